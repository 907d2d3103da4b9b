"""How things end: interpreters with threads inside the module, subinterpreters, and sequences that do not."""

import os
import sys
import threading
import time
import unittest

from harness import OPERATIONS, World, dying, native_host, put, wrapped
from support import PATIENCE_S, health, in_thread, result, run_child

try:
    import _xxsubinterpreters as interpreters
except ImportError:
    interpreters = None


# Where a thread is when the interpreter ends, and never comes back: the operation, the place of an odd value, and which
# use of that it is.
# fmt: off
STOPS = (
    ("error of a new tool", "tracker _limits", ".disable_after_errors"),
    ("ask for a disabled tool", "tracker _limits", ".disable_cooldown_s"),
    ("success of a dirty tool", "clock", "__call__"),
    ("count a known key", "counts total_ms", "__add__"),
    ("summary", "module is_slow_call", "__call__"),
    ("construct", "module TOOLS", ".get"),
    ("construct", "rows", "__call__"),
    ("construct", "document", "__call__"),
    ("flush", "write of rows", "__call__"),
    ("flush", "write of a document", "__call__"),
    ("performance report", "module get_timing_collector", "__call__"),
    ("thread census", "module thread_census", "__call__"),
    ("success of a dirty tool", "tracker _lock", "__enter__"),
    ("success of a dirty tool", "tracker _lock", "__exit__"),
    ("count nonsense", "tracker _lock", "__exit__"),
    ("error of a dirty tool", "state last_error", "__del__"),
    ("count a known key", "tracker _usage_dirty", "__del__"),
    ("count nonsense", "counts calls", "__del__"),
    ("success of a dirty tool", "", ""),
)
# fmt: on


class Last:
    """Dies while the interpreter ends: waits until it is alone, and then uses the tracker."""

    lock = None  # one that is held

    def __init__(self, tracker):
        self.tracker = tracker

    def __del__(self, listdir=os.listdir, sleep=time.sleep, write=os.write, result=result):
        tracker = self.tracker
        if self.lock:
            self.lock.release()  # where a thread waits for it, that is ended then and keeps it
        while len(listdir("/proc/self/task")) > 1:
            sleep(0.001)
        used = result(tracker.record_success, "c"), result(tracker.is_disabled, "b"), result(tracker.get_health_summary)
        write(1, f"{used} late".encode())


def stop_inside(operation, place, use):
    """In a child: end the interpreter while a thread is there, or waits for the lock where no place is given."""
    native_host().start()
    world, inside, main = World(), threading.Event(), threading.get_ident()
    OPERATIONS[operation].begin(world)
    sys.modules["__main__"].last = last = Last(world.tracker)

    def stay():
        while world.uses[-1] == use and threading.get_ident() != main:
            inside.set()

    if place:
        put(world, place, dying if use == "__del__" else wrapped)
        world.act = stay
    else:
        world.lock.acquire()
        in_thread(inside.set)
    if use in ("", "__exit__"):
        last.lock = world.lock
    in_thread(lambda: OPERATIONS[operation].run(world))
    assert inside.wait(PATIENCE_S)


EVERY_OPERATION = """
from harness import OPERATIONS, World, native_host, shown
with native_host():
    world = World()
    world.tracker.own = world.tracker
    for name, operation in OPERATIONS.items():
        if not name.startswith(("time of", "epoch of")):  # the runtime's datetime does not serve several interpreters
            world.repair()
            operation.begin(world)
            operation.run(world)
print(shown(world.tracker))
"""


def use_subinterpreters():
    """In a child: one after another, with a GIL of their own or not, beside this one."""
    for is_isolated in (True, False) * 3:
        exec(EVERY_OPERATION)
        other = interpreters.create(isolated=is_isolated)
        interpreters.run_string(other, EVERY_OPERATION)
        interpreters.destroy(other)


class Endless:
    """A sequence that is asked for only so much."""

    def __getitem__(self, index):
        assert index < 9
        return "a"


class Endings(unittest.TestCase):
    def run_apart(self, code, *args):
        child = run_child("import sys, test_endings as t; t." + code, *args)
        self.assertEqual((child.returncode, child.stderr), (0, ""))
        return child.stdout

    def test_interpreter_with_a_thread_inside(self):
        """The thread ends where it is, and the tracker serves on."""
        for stop in STOPS:
            with self.subTest(stop):
                self.assertRegex(self.run_apart("stop_inside(*sys.argv[1:])", *stop), r"^\(None, .* late$")

    @unittest.skipUnless(interpreters, "needs _xxsubinterpreters")
    def test_subinterpreters(self):
        first, *others = self.run_apart("use_subinterpreters()").splitlines()
        self.assertEqual(others, [first] * 11)

    def test_sequences_without_an_end(self):
        """Are told from ones of the right length without being read on and on."""
        with native_host():
            world = World()
            world.db.fetchall = lambda sql: [Endless()]
            self.assertRaisesRegex(ValueError, "too many values", world.construct)
            world.tracker._usage[Endless()] = health._Usage()
            world.tracker._usage_dirty = True
            for use in (world.tracker.flush, world.tracker.get_health_summary):
                self.assertRaisesRegex(ValueError, "too many values", use)
