"""Hostile values: objects that raise, call back, or change the tracker under its feet wherever it uses them.

What could crash runs in other processes, so that it is one failed case; the last line of their output names it.
"""

import gc
import itertools
import json
import threading
from unittest import mock

from harness import OPERATIONS, PLACES, World, derived, dying, native_host, play, wrapped
from support import PATIENCE_S, FakeDatabase, TrackerTest, count, health, result, run_child

FIELDS = "_repo", "_limits", "_lock", "_state", "_dirty", "_usage", "_usage_dirty"
ENTRY = {"tool": "a", "action": "x", "outcome": "ok", "alias_hit": True, "calls": 3, "timed_calls": 2, "total_ms": 2.5}
BUSY = 9  # uses of an odd value, at which it acts


# What an odd value does to its world when it is used.


def fail(world):
    raise OSError("hostile")


def rebind(world):
    for name, value in zip(FIELDS, (None, None, threading.Lock(), {}, set(), {}, False), strict=True):
        setattr(world.tracker, name, value)


def delete(world):
    for name in FIELDS:
        result(delattr, world.tracker, name)


def grow(world):
    for number in range(40):
        world.tracker._state[f"more{number}"] = health._ToolState()
        world.tracker._usage[f"more{number}", None, "ok", False] = health._Usage()
        world.tracker._dirty.add(f"more{number}")


def change_class(world):
    world.tracker.__class__ = type("Other", (health.ToolHealthTracker,), {})
    for record in (*world.tracker._state.values(), *world.tracker._usage.values()):
        record.__class__ = type("Other", (type(record),), {"calls": property(len), "call_count": 7})


def tamper(world):
    """With every list, set and dictionary that was made for the operation and can be found."""
    for found in gc.get_objects():
        if type(found) in (list, set) or type(found) is dict and "world" not in found:
            found.clear()


def re_enter(world):
    """Needs a lock that lets its holder in again."""
    for name in ("count a known key", "error of a new tool", "ask for a disabled tool", "summary", "flush"):
        result(OPERATIONS[name].bind(world), *OPERATIONS[name].arguments)


ACTS = fail, rebind, delete, grow, change_class, tamper, re_enter


def sweep():
    """Odd values act in every place of every operation."""
    gc.freeze()  # collections look only at what comes now
    used = set()
    for act, place, operation, make in itertools.product(ACTS, PLACES, OPERATIONS, (wrapped, derived, dying)):
        case = act.__name__, place, operation, make.__name__
        if act is fail or case[1:] in used:
            print(*case, flush=True)
            if act is tamper:
                gc.freeze()  # all that there is now is none of the operation's
            with native_host():
                world = World(lock=threading.RLock() if act is re_enter else None)
                if play(world, operation, place, make, lambda world, act=act: len(world.uses) > BUSY or act(world)):
                    assert not str(world.outcome).startswith("SystemError"), world.outcome
                    used.update([case[1:]] * bool(world.uses))
            check_sound(world)
    assert not PLACES.keys() - {place for place, _, _ in used}, "a place that nothing uses"
    print("done")


def check_sound(world):
    """The lock is free, and the tracker counts, once its fields are fit again."""
    if world.uses[-1:] != ["__exit__"]:
        assert world.lock.acquire(blocking=False), "the lock is held"
    tracker = world.tracker
    vars(tracker).clear()
    tracker.__init__(FakeDatabase())
    for _ in range(3):
        count(tracker, "z", duration_ms=1.5)
        tracker.record_error("z", "bad")
    assert tracker._usage == {("z", None, "ok", False): health._Usage(3, 3, 4.5)}
    assert tracker.is_disabled("z") == (True, "bad") and tracker._dirty == {"z"}


def recurse():
    """Ask for performance statistics whose collector is that very function."""
    health.get_timing_collector = health.handle_get_tool_performance_stats
    try:
        health.get_timing_collector()
    except RecursionError:
        print("done")


class HostileTest(TrackerTest):
    def run_apart(self, code):
        """The code comes to its end in a process of its own."""
        prelude = f"""
import faulthandler, sys
from test_hostile import *
faulthandler.dump_traceback_later({PATIENCE_S - 5}, exit=True)
sys.unraisablehook = lambda unraisable: None
"""
        ended = run_child(prelude + code)
        last = ended.stdout.splitlines()[-1:]
        if ended.returncode or last != ["done"]:
            self.fail(f"status {ended.returncode} after {last}: {ended.stderr[-3000:]}")

    def test_odd_values_everywhere(self):
        self.run_apart("sweep()")

    def test_an_operation_that_calls_itself_ends_in_an_error(self):
        """By way of native code alone."""
        self.run_apart("recurse()")

    def test_every_changed_character_of_a_document(self):
        """What the module writes is read natively; with a blank before it, by the runtime's parser."""
        document = json.dumps([ENTRY, ENTRY | {"action": None, "calls": -120, "total_ms": -0.5}], separators=(",", ":"))
        self.enterContext(mock.patch.object(health, "_known", lambda tool, action: True))
        tracker = self.make()
        self.assertNotEqual(self.read(tracker, document), ("{}", 0))
        for place, new in itertools.product(range(len(document) + 1), ["", *'019-.eE"\\,:{}[] n\0\x7f\x80é\ud800']):
            for rest in (place, place + 1):
                text = document[:place] + new + document[rest:]
                self.assertEqual(self.read(tracker, text), self.read(tracker, " " + text), text)

    def read(self, tracker, document):
        """What a tracker reads from the document, as text, and how many warnings there were."""
        tracker._usage, self.db.answer = {}, (document,)
        self.warning.reset_mock()
        tracker._load_usage()
        return repr(tracker._usage), self.warning.call_count
