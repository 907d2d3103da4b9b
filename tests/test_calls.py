"""Calls between the module, its host and other threads: what fails, what is heard, who waits."""

import itertools
import signal
import sys
import threading
import time
import unittest
from functools import partial
from unittest import mock

from harness import KEY, MANY, OPERATIONS, PLACES, REAL_CLOCK, World
from harness import deleted, derived, dying, native_host, play, shown, unfit, wrapped
from support import NOW, PATIENCE_S, TrackerTest, baseline, count, health, in_thread

# They walk over all that there is. The module does so once, where the plain version takes step by step what is next.
WHOLE = "construct", "load", "load the counts", "flush", "summary", "usage rows", "thread census", "given thread census"
# They read all that they show first, so that they may name another one of several wrong things.
REPORTS = "summary", "summary of nonsense", "usage rows"
# The module forgets nothing where it cannot put back what a failed write had taken: all is dirty then.
FORGOTTEN = {("flush that fails", "tracker _dirty")}
FORGOTTEN |= {(name, "tracker _lock") for name in ("flush that fails", "flush that fails half-way")}
ERRORS = Exception("boom"), KeyboardInterrupt("boom")
UNFIT = None, 5, "text", [1], {1: 2}, {1}


def play_with(module, *case):
    """As `play`, in a world of that module."""
    with native_host(module):
        world = play(World(module), *case)
        if world:
            world.warnings = repr(getattr(module.logger.warning, "__self__", None))
        return world


def end(world):
    """All that came of an operation."""
    return world and (world.outcome, world.warnings, world.lock.locked(), shown(world.tracker), shown(world.written))


class HostCode(unittest.TestCase):
    """Odd values at work in every place, while the clock is the runtime's own."""

    @classmethod
    def setUpClass(cls):
        """Look at the tracker at each use of an odd value."""
        cls.looks = {}
        for case in itertools.product(OPERATIONS, PLACES, (wrapped, derived)):
            ours, plain = (cls.look(module, *case) for module in (health, baseline))
            if ours[1] and (ours[0] or plain[0]):
                cls.looks[case] = ours, plain

    @staticmethod
    def look(module, *case):
        seen = []
        world = play_with(module, *case, lambda world: seen.append((world.lock.locked(), shown(world.tracker))))
        return world and world.uses, end(world), seen

    def check_same(self, *case, act=lambda world: None):
        """The plain version comes to the same end."""
        ours, plain = (end(play_with(module, *case, act)) for module in (health, baseline))
        self.assertEqual(ours, plain)

    def test_odd_values_are_used_as_in_plain_python(self):
        """In the same order, by operations that have done as much: so what is replaced is heard."""
        for (operation, place, make), (ours, plain) in self.looks.items():
            with self.subTest(operation, place=place, make=make.__name__):
                if not operation.startswith(WHOLE):
                    self.assertEqual(ours, plain)
                elif operation not in REPORTS:
                    self.assertEqual((bool(ours[0]), ours[1]), (bool(plain[0]), plain[1]))

    def test_an_error_of_the_host_comes_out_as_it_is(self):
        """At any use of an odd value. The lock is then free, and what had been done has been done."""
        for case, ((uses, _, _), (plainly, _, _)) in self.looks.items():
            common = [use for use, same in zip(uses, plainly, strict=False) if use == same]
            numbers = {*range(1, len(common) + 1)[:4], len(common)} - {0}
            for number, error in itertools.product(numbers, ERRORS):
                with self.subTest(case[0], place=case[1], make=case[2].__name__, number=number, error=error):
                    if case[:2] not in FORGOTTEN:
                        self.check_same(*case, act=partial(fail_at, number, error))

    def test_unfit_values_raise_what_they_raise_in_plain_python(self):
        """And do as little harm, in every place and operation."""
        makes = {"deleted": deleted, **{repr(value): unfit(value) for value in UNFIT}}
        for operation, place, kind in itertools.product(OPERATIONS.keys() - REPORTS, PLACES, makes):
            with self.subTest(operation, place=place, kind=kind):
                self.check_same(operation, place, makes[kind])

    def test_what_is_replaced_dies_when_the_lock_is_free(self):
        for operation, place in itertools.product(OPERATIONS, PLACES):
            if not operation.startswith("load"):  # which comes before all calls
                with self.subTest(operation, place=place):
                    *_, seen = self.look(health, operation, place, dying)
                    self.assertNotIn(True, [is_held for is_held, _ in seen])


def fail_at(number, error, world):
    if len(world.uses) == number:
        raise error


class Threads(TrackerTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())

    def test_a_module_of_another_type_is_heard(self):
        """Although the clock in its namespace is the runtime's own."""

        class Loud(type(time)):
            time = property(lambda self: lambda: 7.0)

        tracker = World().tracker
        self.addCleanup(setattr, time, "__class__", type(sys))
        with mock.patch.dict(vars(time), time=REAL_CLOCK):
            time.__class__ = Loud
            tracker.record_success("a")
        self.assertEqual(tracker._state["a"].updated_at, 7.0)

    def test_a_native_clock_may_replace_the_lock(self):
        class Host:
            @property
            def __dict__(self):
                tracker._lock = mock.MagicMock()
                return {}

        tracker = World().tracker
        tracker.record_success("a")
        with mock.patch("time.time", Host().__dir__):  # a native function that runs Python code
            tracker.record_success("a")
        tracker._lock.__enter__.assert_called_once_with()

    def test_an_interruption_while_names_wait_to_be_put_back(self):
        """Nothing is lost, whichever write failed."""
        for statement, names in ("executemany", sorted([*"abc", *MANY])), ("execute", []):
            with self.subTest(statement):
                tracker, written = self.interrupt_flush(statement)
                if names:  # neither a call nor a write of the counts alone makes it forget
                    count(tracker, *KEY)
                    self.assertGreater(tracker._flush_usage(), 0)
                written.clear()
                self.assertIs(tracker.has_unsaved_changes, True)
                self.assertEqual(tracker.flush(), len(names) + len(tracker._usage))
                *rows, (_, document) = written.values()
                self.assertEqual([row[0] for row in itertools.chain(*rows)], names)
                self.assertIn('"outcome":"\\u00e9"', document)
                self.assertIs(tracker.has_unsaved_changes, False)

    def interrupt_flush(self, statement):
        """The tracker after a flush of all names: the statement fails while the lock is held, and a signal's handler
        raises while the thread waits for it."""
        world, main, failed, is_over = World(), threading.current_thread(), [], threading.Event()

        def fail(*args):
            world.lock.acquire()
            in_thread(interrupt)
            failed.append(True)  # calls no Python function
            raise OSError

        def interrupt():
            while not is_over.wait(0.001):
                if failed and sys._current_frames()[main.ident].f_code is not fail.__code__:
                    signal.pthread_kill(main.ident, signal.SIGUSR1)

        def handle(*args):
            signal.signal(signal.SIGUSR1, signal.SIG_IGN)
            raise KeyboardInterrupt

        world.change_all()
        self.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, handle))
        with mock.patch.object(world.db, statement, fail), self.assertRaises(KeyboardInterrupt):
            world.tracker.flush()
        is_over.set()
        world.lock.release()
        return world.tracker, world.written

    def test_who_waits_for_the_lock_lets_others_run_and_then_reads_anew(self):
        sys.setswitchinterval(1000)  # only who waits lets another run
        counted = {"record_success": (9, 8), "record_error": (9, 8), "count": (8, 9)}
        operations = {
            "record_success": lambda: tracker.record_success("a"),
            "record_error": lambda: tracker.record_error("a", "bad"),
            "count": lambda: count(tracker, *KEY),
            "is_disabled": lambda: tracker.is_disabled("a"),
            "summary": lambda: tracker.get_health_summary()[0]["call_count"],
        }
        shows = {"is_disabled": (True, "new"), "summary": 8}
        for (name, operate), clock in itertools.product(operations.items(), (self.clock, REAL_CLOCK)):
            with self.subTest(name, clock=clock), mock.patch("time.time", clock):
                tracker, started, results = World().tracker, threading.Event(), []
                for known in operations.values():
                    known()
                with tracker._lock:
                    thread = in_thread(lambda: (started.set(), results.append(operate())))
                    self.assertTrue(started.wait(PATIENCE_S))
                    self.assertEqual((results, tracker.limits.disable_cooldown_s), ([], tracker.cooldown_s))
                    state = health._ToolState(8, 0, "new", time.time() - 1, NOW)
                    tracker._state, tracker._usage = {"a": state}, {KEY: health._Usage(8)}
                    tracker.limits.disable_after_errors = 1
                thread.join(PATIENCE_S)
                counts = state.call_count, tracker._usage[KEY].calls
                self.assertEqual(counts, counted.get(name, (8, 8)))
                self.assertEqual(results, [shows.get(name)])
                self.assertTrue(name != "record_error" or state.disabled_at == state.updated_at)

    def test_a_blocked_flush_holds_up_nobody(self):
        for blocked in ("executemany", "execute"):
            tracker, entered, release, written = self.make(), threading.Event(), threading.Event(), []
            tracker.record_success("a")
            count(tracker, "a")
            self.db.hook = lambda called: called != blocked or entered.set() or release.wait(PATIENCE_S)
            thread = in_thread(lambda: written.append(tracker.flush()))
            self.assertTrue(entered.wait(PATIENCE_S))
            tracker.record_success("a")
            count(tracker, "a")
            self.assertEqual((tracker.is_disabled("a")[0], len(tracker.get_health_summary())), (False, 1))
            self.assertEqual((written, tracker._dirty, tracker._usage_dirty), ([], {"a"}, True))
            release.set()
            thread.join(PATIENCE_S)
            self.assertEqual(written, [2])
            self.assertEqual((tracker._dirty, tracker._usage_dirty), ({"a"}, blocked == "execute"))
