"""Calls between the module and its host: what fails, what takes effect, what interrupts."""

import itertools
import signal
from functools import partial
from unittest import mock

from harness import KEY, MANY, NATIVE, OPERATIONS, PLACES, PLAIN, World
from harness import deleted, derived, dying, load, native_host, play, shown, unfit, wrapped
from support import Test, TrackerTest, count, health, limit_time

# They walk over all that there is. The module does so once, where the plain version takes step by step what is next.
WHOLE = "construct", "load", "load the counts", "flush", "summary", "usage rows", "thread census", "given thread census"
# They read all that they show first, so that they may name another one of several wrong things.
REPORTS = "summary", "summary of nonsense", "usage rows"
# The module forgets nothing where it cannot put back what a failed write had taken: all is dirty then.
FORGOTTEN = {("flush that fails", "tracker _dirty")}
FORGOTTEN |= {(name, "tracker _lock") for name in ("flush that fails", "flush that fails half-way")}
ERRORS = Exception("boom"), KeyboardInterrupt("boom")
UNFIT = None, 5, "text", [1], {1: 2}, {1}


def outcome(module, *case):
    # What comes of it, as `play` does it in a world of the module; nothing where there is no such place.
    world = play(World(module), *case)
    return world and world.account()


def look(module, *case):
    # How an odd value was used and what the tracker was at each use; and what came of it.

    def note(world):
        held = "held" if world.lock.locked() else "free"
        seen[f"use {len(world.uses)}"] = f"{world.uses[-1]} while the lock is {held}:\n{shown(world.tracker)}"

    seen = {}
    world = play(World(module), *case, note)
    return world.uses if world else [], seen, world and world.account()


class HostCode(Test):
    """Odd values at work in every place."""

    @classmethod
    def setUpClass(cls):
        limit_time()
        for module in (NATIVE, PLAIN):
            cls.enterClassContext(native_host(module))
        cls.looks = {}
        for odd in itertools.product(OPERATIONS, PLACES, (wrapped, derived)):
            ours, plain = look(NATIVE, *odd), look(PLAIN, *odd)
            if ours[0] or plain[0]:
                cls.looks[odd] = ours, plain

    def check(self, operation, place, make, *act):
        # The plain version comes to the same.
        ours, plain = (outcome(module, operation, place, make, *act) for module in (NATIVE, PLAIN))
        self.check_same(ours or {}, plain or {}, operation, place, make, *act)

    def test_odd_values_are_used_as_in_plain_python(self):
        """In the same order, by operations that have done as much: so what is replaced takes effect."""
        for odd, ((uses, seen, ours), (plain_uses, plain_seen, plain)) in self.looks.items():
            if not odd[0].startswith(WHOLE):
                self.check_same(seen, plain_seen, *odd)
            if odd[0] not in REPORTS:
                self.check_same(ours, plain, *odd)
                self.assertEqual(bool(uses), bool(plain_uses), odd)

    def test_an_error_of_the_host_comes_out_as_it_is(self):
        """At any use of an odd value. The lock is then free, and what had been done has been done."""
        for odd, ((uses, *_), (plain_uses, *_)) in self.looks.items():
            common = [use for use, same in zip(uses, plain_uses, strict=False) if use == same]
            for number in {*range(1, len(common) + 1)[:4], len(common)} - {0}:
                for error in ERRORS:
                    if odd[:2] not in FORGOTTEN:
                        self.check(*odd, partial(fail_at, number, error))

    def test_unfit_values_raise_what_they_raise_in_plain_python(self):
        """And do as little harm, in every place and operation."""
        used = {odd[:2] for odd in self.looks}
        for operation, place in itertools.product(OPERATIONS.keys() - REPORTS, PLACES):
            self.check(operation, place, deleted)
            nothing, something = (outcome(PLAIN, operation, place, make) for make in (deleted, lambda _, value: value))
            if (operation, place) in used or nothing != something:  # so it is used, or looked at
                for value in UNFIT:
                    self.check(operation, place, unfit(value))

    def test_a_summary_walks_over_the_usage_counts_once(self):
        """And not once for each tool, as the plain version."""
        self.assertEqual(play(World(), "summary", "tracker _usage", wrapped).uses.count(".items"), 1)

    def test_what_is_replaced_dies_when_the_lock_is_free(self):
        odd = [(place, dying) for place in PLACES]
        odd.append(("time time", lambda world, clock: lambda: dying(world, clock())))
        for operation, (place, make) in itertools.product(OPERATIONS, odd):
            if not operation.startswith("load"):  # which comes before all calls
                _, seen, _ = look(NATIVE, operation, place, make)
                self.assertNotIn("while the lock is held", str(seen), (operation, place))


def fail_at(number, error, world):
    if len(world.uses) == number:
        raise error


class Interruptions(TrackerTest):
    """What a host does from outside while the module works natively."""

    def test_an_interruption_while_names_wait_to_be_put_back(self):
        """Nothing is lost, whichever write failed."""
        cases = ("executemany", sorted([*"abc", *MANY])), ("execute", [])
        own = health.ToolHealthTracker, type("Own", (health.ToolHealthTracker,), {})
        for (statement, names), tracker_class in itertools.product(cases, own):
            with self.subTest(statement, tracker_class=tracker_class):
                tracker, written = self.interrupt_flush(statement, tracker_class)
                if names:  # neither a call nor a flush that fails, nor a write of the counts alone makes it forget
                    count(tracker, *KEY)
                    tracker._state[0] = None  # a name that has no place among the others
                    self.assertRaises(TypeError, tracker.flush)
                    del tracker._state[0]
                    self.assertGreater(tracker._flush_usage(), 0)
                written.clear()
                self.assertIs(tracker.has_unsaved_changes, True)
                self.assertEqual(tracker.flush(), len(names) + len(tracker._usage))
                *rows, (_, document) = written.values()
                self.assertEqual([row[0] for row in itertools.chain(*rows)], names)
                self.assertIn('"outcome":"\\u00e9"', document)
                self.assertIs(tracker.has_unsaved_changes, False)

    def interrupt_flush(self, statement, tracker_class):
        # The tracker after a flush of all names: the statement fails while the lock is held, and a signal's handler
        # raises while the thread waits for it.
        world = World(health, names=[*"abc", *MANY])

        def fail(*args):
            world.lock.acquire()
            signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
            raise OSError

        def handle(number, frame):
            if frame.f_code is not fail.__code__:
                signal.setitimer(signal.ITIMER_REAL, 0)
                raise KeyboardInterrupt

        world.tracker.__class__ = tracker_class
        world.change_all()
        self.addCleanup(limit_time)  # by the same signal
        signal.signal(signal.SIGALRM, handle)
        with mock.patch.object(world.db, statement, fail), self.assertRaises(KeyboardInterrupt):
            world.tracker.flush()
        world.lock.release()
        return world.tracker, world.written
