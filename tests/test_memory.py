"""Memory that runs out: every allocation of every operation fails, alone and with all that follow."""
# It is tried in other processes, so that a crash is one failed case.

import _imp
import _thread
import gc
import importlib.util
import json
import sys
import threading
import time
import unittest
from collections import Counter
from functools import partial
from unittest import mock

from harness import MANY, NATIVE, OPERATIONS, PLACES, REAL_CLOCK, WARNINGS, Operation, World
from harness import always, load, native_host, play, remembered, shown, unfit
from support import NOW, Test, difference, health, result, run_child

_testcapi = importlib.util.find_spec("_testcapi") and importlib.import_module("_testcapi")
CALM = 8  # so many points in a row that show no effect: there are no more
# The runtime's own Python code does not survive this: with no memory at all it enters its handlers for ever.
ONCE_ONLY = ("epoch of a lenient text",)
# Where the runtime itself loses something when it has no memory, as in making a list of another.
RUNTIME_LEAKS = ("construct from a foreign document", "time of a bool", "epoch of a lenient text", "import")
# What the runtime makes of a MemoryError: of a lock it cannot have, and of a traceback it cannot lengthen.
RUNTIME_ERRORS = ("can't allocate lock", "return without exception set", "NULL without setting an exception")


def import_module():
    # The module once more, as a module of its own, by native code alone.
    spec = importlib.util.spec_from_file_location(health.__name__, health.__file__)
    module = _imp.create_dynamic(spec)
    _imp.exec_dynamic(module)
    return module


class Threads:
    """Stands in for the module ``_thread``; when its lock type is read, allocations begin to fail."""

    # An import does that once the module's text has run. That is left alone: when a ``def`` finds no memory, the
    # runtime frees its code twice.
    LockType = property(lambda self: _testcapi.set_nomemory(*self.failing) or type(self.lock))
    lock = threading.Lock()

    def __init__(self, *failing):
        self.failing = failing


def attempt(call, arguments, first, last):
    # Call while the allocations number ``first`` to ``last`` fail; all from the first on where that is 0.
    # Kept short: far into a function the runtime needs memory to enter a handler.
    if call is import_module:
        sys.modules["_thread"] = Threads(first - 1, last)
    else:
        _testcapi.set_nomemory(first - 1, last)
    try:
        return call(*arguments)
    finally:
        _testcapi.remove_mem_hooks()
        sys.modules["_thread"] = _thread


# They warn of every want of memory, as the construction does.
WARN = "construct from a row without an end", "construct without a history", "load", "load the counts"
SWEPT = {name: operation for name, operation in OPERATIONS.items() if name not in WARN}
World.import_module = staticmethod(import_module)
SWEPT["import"] = Operation("import_module")
OTHER_CLOCK = always(NOW + 1e8)


class Sweep:
    """One operation, tried at each of its failure points."""

    def __init__(self, module, name):
        self.module, self.name, self.operation = module, name, SWEPT[name]
        self.is_asked_for_dicts = False
        world = self.make()
        self.before = records(world)
        self.answer = told(result(self.operation.call, world))
        self.after = records(world)
        self.saved = self.save(world)

    def make(self):
        world = World(self.module, names=[*"abc", *MANY])
        self.operation.begin(world)
        if self.is_asked_for_dicts:
            for owner in (world.tracker, *world.tracker._state.values(), *world.tracker._usage.values()):
                vars(owner)
        return world

    def run(self):
        # The number of failure points.
        points = self.sweep()
        if self.name not in ONCE_ONLY:
            points += self.sweep(for_good=True)
        if self.name not in RUNTIME_LEAKS and sys.getallocatedblocks():  # none where a sanitizer has the allocator
            grown = growth_by(self.sweep, 4)
            assert grown < 4, f"{grown} blocks leaked, one more sweep leaves {types_left_by(self.sweep)}"
        if self.name != "import":
            points += self.sweep(OTHER_CLOCK) + self.sweep(OTHER_CLOCK, self.name not in ONCE_ONLY)
            self.is_asked_for_dicts = True
            points += self.sweep()
        return points

    def sweep(self, clock=REAL_CLOCK, for_good=False):
        point = calm = 0
        while calm < CALM:
            point += 1
            place = f"{self.name}, allocation {point}{' and all that follow' * for_good}"
            place += ", another clock" * (clock is OTHER_CLOCK) + ", with each __dict__" * self.is_asked_for_dicts
            print(place, flush=True)  # the last line tells where it crashed
            with mock.patch("time.time", clock):
                try:
                    calm = 0 if self.try_at(point, 0 if for_good else point, clock) else calm + 1
                except BaseException as error:
                    raise AssertionError(f"{place}: {type(error).__name__}: {error}") from error
        return point - calm

    def try_at(self, first, last, clock):
        # Try one failure point; whether the failure showed.
        world, failed = self.make(), False
        WARNINGS.clear()
        try:
            answer = attempt(self.operation.bind(world), world.arguments.values(), first, last)
        except Exception as error:  # which is not kept: the runtime has only so many to give away without memory
            failed = type(error) is MemoryError or str(error).endswith(RUNTIME_ERRORS)
            answer = type(error), str(error)
        warnings = len(WARNINGS)
        assert not world.tracker._lock.locked(), "the lock is held"
        if failed and (clock is OTHER_CLOCK or self.is_asked_for_dicts) and records(world) != self.before:
            return True  # the steps before it stay, as in plain Python
        if failed:
            self.check_undone(world)
        else:
            self.check_answer(told(answer), warnings)
        same(records(world), self.after)
        same(self.save(world), self.saved)
        return failed or bool(warnings)

    def check_answer(self, answer, warnings):
        # It is what it is with memory; but a tracker leaves out what it could not read, with a warning.
        unread = [name for name in self.answer.keys() & {"_state", "_usage"} if answer[name] == "{}"]
        expected = self.answer | dict.fromkeys(unread, "{}")
        if "_usage" in unread:
            expected["_usage_dirty"] = "False"
        same(answer, expected)
        assert warnings == len(unread), warnings

    def check_undone(self, world):
        # It happened or it did not, and then it can be made to.
        if records(world) == self.after != self.before:
            return
        same(records(world), self.before)
        answer = told(result(self.operation.call, world))
        if self.name != "flush":  # of which a part may have happened
            same(answer, self.answer)

    def save(self, world):
        # Write all that is left to write; what has been written since the beginning, by statement.
        world.db.execute = world.db.executemany = world.written.__setitem__
        is_changed = world.tracker.has_unsaved_changes
        assert bool(world.tracker.flush()) == is_changed, "has_unsaved_changes"
        assert not world.tracker.has_unsaved_changes
        assert any("INTO schema_info" in sql for sql in world.written), "the counts, which changed when they were read"
        return {sql: shown(rows) for sql, rows in world.written.items()}


def told(answer):
    return remembered(answer) if hasattr(type(answer), "_load") else {"answer": shown(answer)}


def records(world):
    fields = remembered(world.tracker)
    return {name: fields[name] for name in ("_state", "_usage")}


def same(found, expected):
    text = difference(found, expected, ("without memory", "with it"))
    assert text is None, text


def growth_by(use, rounds):
    # How many blocks of memory more there are after so many rounds.
    before = blocks_in_use()
    for _ in range(rounds):
        use()
    return blocks_in_use() - before


def blocks_in_use():
    while gc.collect():  # what it frees may set more free
        pass
    return sys.getallocatedblocks()


def types_left_by(use):
    # The types of what is there after a use and was not before, as far as the collector knows, and how many.
    gc.freeze()  # it hides what there is now
    use()
    gc.collect()
    return Counter(type(found).__name__ for found in gc.get_objects()).most_common(9)


def sweep_all(*names):
    # In a child: try these operations and print a line for each.
    module = load()
    with native_host(module):
        for name in names:
            try:
                outcome = Sweep(module, name).run()
            except AssertionError as error:
                outcome = str(error)
            print(json.dumps([name, outcome]), flush=True)


@unittest.skipUnless(_testcapi, "needs _testcapi")
class Memory(Test):
    def test_every_allocation_of_every_operation(self):
        left, points = list(SWEPT), 0
        while left:
            child = run_child(sweep_all, *left)
            lines = child.stdout.splitlines()
            for name, outcome in [json.loads(line) for line in lines if line.startswith("[")]:
                with self.subTest(name):
                    self.assertIs(type(outcome), int, f"\n{outcome}")
                    points += outcome
                left.remove(name)
            if left:
                with self.subTest(left.pop(0)):
                    self.fail(f"ended with {child.returncode} at {lines[-1:]}: {child.stderr}")
        print(f"{points} failure points", file=sys.stderr)
        self.assertGreater(points, 1000)


def use_a_new_module():
    with native_host(module := import_module()):
        World(module).change_all()


def use_everything(place):
    # Try all operations with an unfit value in that place.
    for operation in OPERATIONS:
        play(World(), operation, place, unfit(5))


class Leaks(Test):
    def test_nothing_is_left_behind(self):
        """Neither memory nor references, by operations that succeed or fail, and by modules."""
        self.enterContext(native_host())
        self.addCleanup(gc.unfreeze)
        gc.freeze()  # collections then look only at what comes now
        rounds, tries = 8, 100
        growth_by(partial(use_everything, "time time"), 200)  # the cache and what the runtime keeps for itself are full
        for use in (use_a_new_module, *(partial(use_everything, place) for place in PLACES)):
            with self.subTest(use):
                for _ in range(tries):
                    before = references()
                    grown = growth_by(use, rounds), references() - before
                    if max(grown) < rounds:
                        break
                else:
                    self.fail(f"blocks and references more: {grown}; one more use leaves {types_left_by(use)}")


def references():
    # To what the module holds.
    return sum(map(sys.getrefcount, (*vars(NATIVE).values(), time.time)))
