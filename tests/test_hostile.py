"""Hostile values: objects that raise, call back, or change the tracker under its feet wherever it uses them."""

import gc
import itertools
import sys
import threading
import unittest
from unittest import mock

from harness import FIELDS, OPERATIONS, PLACES, World, derived, dying, native_host, play, wrapped
from support import FakeDatabase, count, health, result

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


ACTS = rebind, delete, grow, change_class, tamper, re_enter


class Hostile(unittest.TestCase):
    def test_odd_values_everywhere(self):
        """In every place of every operation: no crash, a free lock, and a tracker that counts."""
        self.enterContext(mock.patch.object(sys, "unraisablehook", lambda unraisable: None))
        self.enterContext(native_host())
        self.addCleanup(gc.unfreeze)
        gc.freeze()  # collections look only at what comes now
        cases = itertools.product(OPERATIONS, PLACES, (wrapped, derived, dying))
        used = [case for case in cases if self.attack(fail, *case)]
        self.assertEqual({place for _, place, _ in used}, PLACES.keys())
        for act, case in itertools.product(ACTS, used):
            self.attack(act, *case)

    def attack(self, act, *case):
        """Whether an odd value was used."""
        with self.subTest(act=act.__name__, case=case):
            world = World(lock=threading.RLock() if act is re_enter else None)
            if act is tamper:
                gc.freeze()  # all that there is now is none of the operation's
            if play(world, *case, lambda world: len(world.uses) > BUSY or act(world)):
                self.assertNotRegex(str(world.outcome), "^SystemError")
            if world.uses[-1:] != ["__exit__"]:
                self.assertTrue(world.lock.acquire(blocking=False), "the lock is held")
            self.check_counts(world.tracker)
        return bool(world.uses)

    def check_counts(self, tracker):
        """It serves on, once its fields are fit again."""
        vars(tracker).clear()
        tracker.__init__(FakeDatabase())
        for _ in range(3):
            count(tracker, "z", duration_ms=1.5)
            tracker.record_error("z", "bad")
        self.assertEqual(tracker._usage, {("z", None, "ok", False): health._Usage(3, 3, 4.5)})
        self.assertEqual((tracker.is_disabled("z"), tracker._dirty), ((True, "bad"), {"z"}))

    def test_an_operation_that_calls_itself_ends_in_an_error(self):
        """By way of native code alone."""
        with mock.patch.object(health, "get_timing_collector", health.handle_get_tool_performance_stats):
            self.assertRaises(RecursionError, health.get_timing_collector)
