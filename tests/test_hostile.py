"""Hostile values: objects that raise, call back, or change the tracker under its feet wherever it uses them."""

import gc
import itertools
import sys
import threading
from types import SimpleNamespace
from unittest import mock

from harness import FIELDS, NATIVE, OPERATIONS, PLACES, World, derived, dying, native_host, play, remembered, wrapped
from support import Test, health, result

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
        world.tracker._state[f"more{number}"] = NATIVE._ToolState()
        world.tracker._usage[f"more{number}", None, "ok", False] = NATIVE._Usage()
        world.tracker._dirty.add(f"more{number}")


def change_class(world):
    world.tracker.__class__ = type("Other", (NATIVE.ToolHealthTracker,), {})
    for record in (*world.tracker._state.values(), *world.tracker._usage.values()):
        record.__class__ = type("Other", (type(record),), {"calls": property(len), "call_count": 7})


def tamper(world):
    # With every list, set and dictionary that was made for the operation and can be found.
    for found in gc.get_objects():
        is_ours = type(found) is dict and found.keys() & {"world", "__module__"}  # of an odd value or its type
        if type(found) in (list, set, dict) and not is_ours:
            found.clear()


def re_enter(world):
    # Needs a lock that lets its holder in again.
    for name in ("count a known key", "error of a new tool", "ask for a disabled tool", "summary", "flush"):
        result(OPERATIONS[name].bind(world), *OPERATIONS[name].arguments)


def remember_anew(tracker):
    # What it remembers of changes, once its fields are fit again.
    world = World()
    vars(tracker).clear()
    tracker.__init__(world.db, world.limits)
    world.tracker = tracker
    world.change_all()
    return remembered(tracker)


ACTS = rebind, delete, grow, change_class, tamper, re_enter


class Hostile(Test):
    def test_odd_values_everywhere(self):
        """In every place of every operation: no crash, a free lock, and a tracker that counts."""
        self.enterContext(mock.patch.object(sys, "unraisablehook", lambda unraisable: None))
        self.enterContext(native_host())
        self.addCleanup(gc.unfreeze)
        gc.freeze()  # collections look only at what comes now
        self.remembered = remember_anew(World().tracker)
        odd = itertools.product(OPERATIONS, PLACES, (wrapped, derived, dying))
        used = [values for values in odd if self.attack(fail, *values)]
        unused = PLACES.keys() - {place for _, place, _ in used}
        self.assertEqual(unused, {"module TOOL_USAGE_KEY"})  # which is only handed on
        for act, values in itertools.product(ACTS, used):
            self.attack(act, *values)

    def attack(self, act, operation, place, make):
        # Whether an odd value was used.
        with self.subTest(act=act, operation=operation, place=place, make=make):
            world = World(lock=threading.RLock() if act is re_enter else None)
            if act is tamper:
                gc.freeze()  # all that there is now is none of the operation's
            if play(world, operation, place, make, lambda world: len(world.uses) > BUSY or act(world)):
                self.assertNotRegex(world.outcome, "^System(Error|Exit)")
            if world.uses[-1:] != ["__exit__"]:
                self.assertTrue(world.lock.acquire(blocking=False), "the lock is held")
            self.assertEqual(remember_anew(world.tracker), self.remembered)
        return bool(world.uses)

    def test_odd_keys_of_namespaces(self):
        """Of the settings' class and of the module: comparing them empties the records and drops the settings."""

        class Key(str):
            __hash__ = str.__hash__

            def __eq__(self, other):
                if next(uses) == last:
                    [vars(record).clear() for record in world.tracker._state.values()]
                    world.tracker._limits = None
                    gc.collect()

        self.enterContext(native_host())
        settings = {Key("disable_after_errors"): 1, Key("disable_cooldown_s"): 1}
        for operation, last in itertools.product(OPERATIONS, range(6)):
            world, uses, odd = World(), itertools.count(9), Key("time")
            OPERATIONS[operation].begin(world)
            result(OPERATIONS[operation].call, world)  # what can be remembered is, from now on
            world.tracker._limits = type("Limits", (SimpleNamespace,), settings)(**vars(world.limits))
            clock = vars(NATIVE).pop("time")
            vars(NATIVE).update({odd: None, "time": clock})
            uses = itertools.count()
            result(OPERATIONS[operation].call, world)
            del vars(NATIVE)[odd]

    def test_an_operation_that_calls_itself_ends_in_an_error(self):
        """By way of native code alone."""
        with mock.patch.object(health, "get_timing_collector", health.handle_get_tool_performance_stats):
            self.assertRaises(RecursionError, health.get_timing_collector)
