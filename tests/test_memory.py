"""Memory that runs out: every allocation of every operation fails, alone and with all that follow.

It is tried in other processes, so that a crash is one failed case.
"""

import _thread
import gc
import itertools
import json
import sys
import threading
import time
import unittest
from functools import partial
from unittest import mock

from harness import OPERATIONS, PLACES, REAL_CLOCK, Operation, World, always, import_afresh
from harness import native_host, play, shown, unfit
from support import health, run_child

try:
    import _testcapi
except ImportError:  # an interpreter without its tests
    _testcapi = None

CALM = 8  # so many points in a row that show no effect: there are no more
# The runtime's own Python code does not survive this: with no memory at all it enters its handlers for ever.
ONCE_ONLY = ("epoch of a lenient text",)
# Where the runtime itself loses something when it has no memory, as in making a list of another.
RUNTIME_LEAKS = ("construct", "time of a bool", "epoch of a lenient text", "import")
# What the runtime makes of a MemoryError: of a lock it cannot have, and of a traceback it cannot lengthen.
RUNTIME_ERRORS = ("can't allocate lock", "return without exception set", "NULL without setting an exception")


def import_module():
    return import_afresh().TOOL_USAGE_KEY


class Threads:
    """Stands in for the module ``_thread``; when its lock type is read, allocations begin to fail. An import does that
    once the module's text has run. That is left alone: when a ``def`` finds no memory, the runtime frees its code
    twice."""

    LockType = property(lambda self: _testcapi.set_nomemory(*self.failing) or type(self.lock))
    lock = threading.Lock()

    def __init__(self, *failing):
        self.failing = failing


def attempt(call, arguments, first, last):
    """Call while the allocations number ``first`` to ``last`` fail; all from the first on where that is 0. (Kept short:
    far into a function the runtime needs memory to enter a handler.)"""
    if call is import_module:
        sys.modules["_thread"] = Threads(first - 1, last)
    else:
        _testcapi.set_nomemory(first - 1, last)
    try:
        return call(*arguments)
    finally:
        _testcapi.remove_mem_hooks()
        sys.modules["_thread"] = _thread


WARN = "construct without a history", "load", "load the counts"  # of every want of memory, as the construction does
SWEPT = {name: operation for name, operation in OPERATIONS.items() if name not in WARN}
SWEPT["import"] = Operation(lambda world: import_module)


class Sweep:
    """One operation, tried at each of its failure points."""

    def __init__(self, name):
        self.name, self.operation = name, SWEPT[name]
        self.is_asked_for_dicts = False
        world = self.make()
        self.before = shown(world.tracker)
        self.answer = shown(self.operation.run(world))
        self.after = shown(world.tracker)
        self.saved = self.save(world)

    def make(self):
        world = World()
        self.operation.begin(world)
        if self.is_asked_for_dicts:
            for owner in (world.tracker, *world.tracker._state.values(), *world.tracker._usage.values()):
                vars(owner)
        return world

    def run(self):
        """The number of failure points."""
        points = 0
        for for_good, clock in itertools.product((False, True), (REAL_CLOCK, always(time.time()))):
            if not (for_good and self.name in ONCE_ONLY):
                with mock.patch("time.time", clock):
                    points += self.sweep(for_good)
        if self.name not in RUNTIME_LEAKS and sys.getallocatedblocks():  # none where a sanitizer has the allocator
            self.check_leaks()
        self.is_asked_for_dicts = True
        return points + self.sweep(False)

    def check_leaks(self):
        gc.collect()
        blocks, repeats = sys.getallocatedblocks(), 4
        for _ in range(repeats):
            self.sweep(False)
        gc.collect()
        grown = sys.getallocatedblocks() - blocks
        assert grown < repeats, f"{grown} blocks leaked"

    def sweep(self, for_good):
        point = calm = 0
        while calm < CALM:
            point += 1
            try:
                calm = 0 if self.try_at(point, 0 if for_good else point) else calm + 1
            except BaseException as error:
                raise AssertionError(f"allocation {point}{' and all that follow' * for_good} failed") from error
        return point - calm

    def try_at(self, first, last):
        """Try one failure point; whether the failure showed."""
        world = self.make()
        warnings = health.logger.warning.__self__
        warnings.clear()
        failed = False  # and not the error: the runtime has only so many to give away without memory
        try:
            answer = shown(attempt(self.operation.bind(world), world.arguments.values(), first, last))
        except self.operation.error:
            answer = None
        except (MemoryError, RuntimeError, SystemError) as error:
            assert type(error) is MemoryError or str(error).endswith(RUNTIME_ERRORS), repr(error)
            failed = True
        assert not world.tracker._lock.locked(), "the lock is held"
        remembered = shown(world.tracker)
        if not failed:
            self.check_answer(answer, len(warnings))
            assert remembered[:2] == self.after[:2], remembered
        else:
            self.check_undone(world, remembered)
        assert self.save(world) == self.saved, "marks are lost"
        return failed or bool(warnings)

    def check_answer(self, answer, warnings):
        if self.name == "construct":  # what it could not read is left out, with a warning
            states, usage, marks, is_changed = self.answer
            assert answer[0] in ([], states) and answer[1:] in ([[], marks, False], [usage, marks, is_changed]), answer
            assert warnings == (answer[0] != states) + (answer[1] != usage), warnings
        else:
            assert answer == self.answer and not warnings, answer

    def check_undone(self, world, remembered):
        """It happened or it did not, and then it can be made to."""
        assert remembered[:2] in (self.before[:2], self.after[:2]), remembered
        if remembered[:2] != self.after[:2] or self.before == self.after:
            answer = shown(self.operation.run(world))
            assert answer == self.answer or self.name == "flush", answer
        assert shown(world.tracker)[:2] == self.after[:2], "after another call"

    def save(self, world):
        """Write all that is left to write; what has been written since the beginning, by statement."""
        world.db.execute = world.db.executemany = world.written.__setitem__
        is_changed = world.tracker.has_unsaved_changes
        assert bool(world.tracker.flush()) == is_changed, "has_unsaved_changes"
        assert not world.tracker.has_unsaved_changes
        assert any("INTO schema_info" in sql for sql in world.written), "the counts, which changed when they were read"
        return shown(dict(sorted(world.written.items())))


def sweep_all(names):
    """In a child: try these operations and print a line for each."""
    with native_host():
        for name in names:
            try:
                outcome = Sweep(name).run()
            except AssertionError as error:
                outcome = f"{error}: {error.__cause__!r}"
            print(json.dumps([name, outcome]), flush=True)


@unittest.skipUnless(_testcapi, "needs _testcapi")
class Memory(unittest.TestCase):
    def test_every_allocation_of_every_operation(self):
        left, points = list(SWEPT), 0
        while left:
            child = run_child("import sys, test_memory; test_memory.sweep_all(sys.argv[1:])", *left)
            for name, outcome in map(json.loads, child.stdout.splitlines()):
                with self.subTest(name):
                    self.assertIs(type(outcome), int, outcome)
                    points += outcome
                left.remove(name)
            if left:
                with self.subTest(left.pop(0)):
                    self.fail(f"crashed with {child.returncode}: {child.stderr}")
        print(f"{points} failure points", file=sys.stderr)
        self.assertGreater(points, 1000)


def use_a_new_module():
    with native_host(module := import_afresh()):
        World(module).change_all()


def use_everything(place):
    """Try all operations with an unfit value in that place."""
    for operation in OPERATIONS:
        play(World(), operation, place, unfit(5))


class Leaks(unittest.TestCase):
    def test_nothing_is_left_behind(self):
        """Neither memory nor references, by operations that succeed or fail, and by modules."""
        self.enterContext(native_host())
        self.addCleanup(gc.unfreeze)
        gc.freeze()  # collections then look only at what comes now
        rounds, tries = 8, 20
        self.left_by(partial(use_everything, "clock"), 200)  # the cache and what the runtime keeps for itself are full
        for use in (use_a_new_module, *(partial(use_everything, place) for place in PLACES)):
            with self.subTest(use):
                before = self.left_by(use, rounds)
                for _ in range(tries):
                    after = self.left_by(use, rounds)
                    grown, before = max(new - old for old, new in zip(before, after, strict=True)), after
                    if grown < rounds:
                        break
                self.assertLess(grown, rounds)

    def left_by(self, use, rounds):
        """The blocks of memory, and the references to what the module holds, after so many rounds."""
        for _ in range(rounds):
            use()
        gc.collect()
        return sys.getallocatedblocks(), sum(map(sys.getrefcount, (*vars(health).values(), time.time)))
