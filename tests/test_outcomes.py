"""Recording outcomes and usage, the disable rule with its cooldown, and the order of what is told of them."""

import io
from collections import deque
from functools import partial
from itertools import product
from unittest import mock

from quorl_dendra.repository import Repository
from harness import OPERATIONS, REAL_CLOCK, World, derived, load, wrapped
from support import NOW, PlainTest, TrackerTest, count

# A tool's life: e an error (of the texts e1, e2, ...), s a success, ? the question whether it is
# disabled, r a restart, after which the run of errors is forgotten, +9 or -9 seconds pass, N and C
# set the threshold, at first 3, and the cooldown, at first 60 s. Then: the tool's record, its
# times counted from the begin, and the answer to a last question.
# fmt: off
DISABLE_RULE = {
    "": (None, (False, None)),
    "e e s e e": ((5, 4, "e4", None, 0, 2), (False, None)),
    "e e e ? +59.9": ((3, 3, "e3", 0, 0, 3), (True, "e3")),
    "e e e +60": ((3, 3, "e3", 0, 0, 3), (False, None)),
    "e e e +60 ? +1 e e": ((5, 5, "e5", None, 61, 2), (False, None)),
    "e e e +5 e +59": ((4, 4, "e4", 5, 5, 4), (True, "e4")),
    "e e e +1 s": ((4, 3, "e3", None, 1, 0), (False, None)),
    "+7 e e e r": ((3, 3, "e3", 7, 7, 0), (True, "e3")),
    "e e e r +5 e e": ((5, 5, "e5", 0, 5, 2), (True, "e5")),
    "e e e r +5 e e e +59": ((6, 6, "e6", 5, 5, 3), (True, "e6")),
    "e e e -10 +69": ((3, 3, "e3", 0, 0, 3), (True, "e3")),
    "N1 e": ((1, 1, "e1", 0, 0, 1), (True, "e1")),
    "e e N5 e": ((3, 3, "e3", None, 0, 3), (False, None)),
    "e e e +30 C20": ((3, 3, "e3", 0, 0, 3), (False, None)),
    "C0 N0 e -1": ((1, 1, "e1", 0, 0, 1), (True, "e1")),
}
# fmt: on
SETTINGS = {"N": "disable_after_errors", "C": "disable_cooldown_s"}
PATH = "count a known key", "success of a dirty tool", "error of a dirty tool"
PATH += "ask for an enabled tool", "ask for a disabled tool", "ask after the cooldown"


class OutcomesTests:
    def play(self, script):
        # A tracker after the script.
        repository, errors = Repository(":memory:"), 0
        self.addCleanup(repository.close)
        tracker = self.module.ToolHealthTracker(repository)
        for token in script.split():
            match token[0]:
                case "e":
                    errors += 1
                    tracker.record_error("a", f"e{errors}")
                case "s":
                    tracker.record_success("a")
                case "?":
                    tracker.is_disabled("a")
                case "r":
                    tracker.flush()
                    tracker = self.module.ToolHealthTracker(repository, tracker.limits)
                case "N" | "C":
                    setattr(tracker.limits, SETTINGS[token[0]], int(token[1:]))
                case _:
                    self.clock.return_value += float(token)
        return tracker

    def test_the_disable_rule(self):
        for (script, (record, answer)), is_native in product(DISABLE_RULE.items(), (False, True)):
            with self.subTest(script, is_native=is_native):
                self.clock.return_value = 0.0
                tracker = self.play(script)
                self.assertEqual(tracker._state, {"a": self.module._ToolState(*record)} if record else {})
                self.assertEqual(tracker._dirty, set(tracker._state) if script[-1:] != "r" else set())
                self.assertEqual((tracker._usage, tracker._usage_dirty), ({}, False))
                # The clock is read once, and only for a disabled tool.
                times = deque([float(self.clock.return_value)])
                with mock.patch("time.time", times.popleft if is_native else partial(deque.popleft, times)):
                    self.assertEqual(tracker.is_disabled("a"), answer)
                self.assertEqual(len(times), not record or record[3] is None)

    def test_more_keys_than_the_caches_have_places(self):
        tracker = self.make()
        for _ in range(3):
            for number in range(2000):
                count(tracker, "a", "x", str(number))
        self.assertEqual({record.calls for record in tracker._usage.values()}, {3})
        tracker.flush()
        self.db.answer = self.db.calls[-1][2][1:]  # the document
        self.assertEqual(self.module.ToolHealthTracker(self.db)._usage, tracker._usage)

    def test_the_work_of_a_call_does_not_grow_with_the_tools(self):
        """It uses its own tool and key, and no other."""
        with mock.patch("time.time", REAL_CLOCK):
            world = World(self.module)
            for number in range(100):
                name = derived(world, f"{number}")
                world.tracker._state[name] = wrapped(world, self.module._ToolState())
                world.tracker._usage[name, None, "ok", False] = wrapped(world, self.module._Usage())
                world.tracker._dirty.add(name)
            world.act = lambda: None
            for operation in PATH * 2:
                OPERATIONS[operation].begin(world)
                OPERATIONS[operation].call(world)
        self.assertEqual(world.uses, [])

    def test_settings_and_clock_are_read_under_the_lock(self):
        def read(value):
            held.append(tracker._lock.locked())
            return value

        class Limits:
            disable_after_errors = property(lambda self: read(1))
            disable_cooldown_s = property(lambda self: read(60.0))

        file = mock.Mock(readable=lambda: True, fileno=partial(read, NOW))
        for clock in file.fileno, io.BufferedReader(file).fileno:  # the latter is native, and runs Python code
            with mock.patch("time.time", clock):
                for tracker in self.make(), load(self.module.__file__).ToolHealthTracker(self.db):
                    tracker._limits, held = Limits(), []
                    for _ in range(3):
                        tracker.record_error("a", "bad")  # takes one setting and the time, as does the next
                        tracker.is_disabled("a")
                        tracker.record_success("a")
                    self.assertEqual(held, [True] * 15, clock)

    def test_what_ties_keeps_its_order(self):
        """Tools with as many errors and calls; rows of no action and of one that is called None."""
        tracker, numbers = self.make(), [f"{number:03}" for number in range(100)]
        for number in reversed(numbers):
            tracker.record_success(number)
            count(tracker, f"more {number}")
        inserted = [(action, number) for number in numbers for action in (None, "None")[:: (-1) ** int(number)]]
        for action, outcome in inserted[::2] + inserted[1::2]:
            count(tracker, "000", action, outcome)
        summary = tracker.get_health_summary()
        names = numbers[::-1] + [f"more {number}" for number in reversed(numbers)]
        self.assertEqual([record["tool_name"] for record in summary], names)
        rows = [(row["action"], row["outcome"]) for row in summary[99]["usage"]]
        self.assertEqual(rows, inserted)


class NativeOutcomes(OutcomesTests, TrackerTest): ...


class PlainOutcomes(OutcomesTests, PlainTest): ...
