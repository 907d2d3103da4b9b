"""How things end: interpreters with threads inside the module, and subinterpreters."""

import importlib.util
import os
import sys
import threading
import time
import unittest

from harness import OPERATIONS, World, dying, native_host, put, shown, wrapped
from support import PATIENCE_S, Test, in_thread, result, run_child

NAME = "_xxsubinterpreters"
interpreters = importlib.util.find_spec(NAME) and importlib.import_module(NAME)

# Where a thread is when the interpreter ends, and never comes back: the operation, the place of an odd value, and which
# use of that it is.
# fmt: off
STOPS = (
    ("error of a new tool", "tracker _limits", ".disable_after_errors"),
    ("success of a dirty tool", "time time", "__call__"),
    ("count a known key", "counts total_ms", "__add__"),
    ("summary", "module is_slow_call", "__call__"),
    ("construct", "module TOOLS", ".get"),
    ("construct", "database fetchall", "__call__"),
    ("flush", "database executemany", "__call__"),
    ("flush", "database execute", "__call__"),
    ("success of a dirty tool", "tracker _lock", "__enter__"),
    ("success of a dirty tool", "tracker _lock", "__exit__"),
    ("count nonsense", "tracker _lock", "__exit__"),
    ("error of a dirty tool", "state last_error", "__del__"),
    ("count a known key", "tracker _usage_dirty", "__del__"),
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
        while len(listdir("/proc/self/task")) > 2:  # itself, and who watches whether this hangs
            sleep(0.001)
        used = result(tracker.record_success, "c"), result(tracker.is_disabled, "b"), result(tracker.get_health_summary)
        write(1, f"{used} late".encode())


def stop_inside(operation, place, use):
    # In a child: end the interpreter while a thread is there, or waits for the lock where no place is given.
    native_host().__enter__()
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
    in_thread(lambda: result(OPERATIONS[operation].call, world))
    assert inside.wait(PATIENCE_S)


def use_everything():
    with native_host():
        world = World()
        world.tracker.own = world.tracker
        for name, operation in OPERATIONS.items():
            if not name.startswith(("time of", "epoch of")):  # the runtime's datetime is one for all interpreters
                world.repair()
                operation.begin(world)
                result(operation.call, world)
        print(shown(world.tracker), flush=True)


def use_subinterpreters():
    # In a child: one after another, with a GIL of their own or not, beside this one.
    for is_isolated in (True, False) * 3:
        use_everything()
        other = interpreters.create(isolated=is_isolated)
        interpreters.run_string(other, "import test_endings; test_endings.use_everything()")
        interpreters.destroy(other)


class Endings(Test):
    def run_apart(self, function, *args):
        child = run_child(function, *args)
        self.assertEqual((child.returncode, child.stderr), (0, ""))
        return child.stdout

    def test_interpreter_with_a_thread_inside(self):
        """The thread ends where it is, and the tracker serves on."""
        for stop in STOPS:
            with self.subTest(stop):
                self.assertRegex(self.run_apart(stop_inside, *stop), r"^\(None, .* late$")

    @unittest.skipUnless(interpreters, "needs subinterpreters")
    def test_subinterpreters(self):
        first, *others = self.run_apart(use_subinterpreters).splitlines()
        self.assertEqual(len(others), 11)
        for other in others:
            self.check_same({"tracker": other}, {"tracker": first}, "another interpreter")
