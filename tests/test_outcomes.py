"""Recording outcomes and usage, and the disable rule with its cooldown."""

import itertools
import time
from unittest import mock

from quorl_dendra.config import ToolsConfig
from support import FakeDatabase, TrackerTest, count, health, memory

REAL_CLOCK = time.time
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
    "e e e r +5 e e": ((5, 5, "e5", 0, 5, 2), (True, "e5")),
    "e e e r +5 e e e +59": ((6, 6, "e6", 5, 5, 3), (True, "e6")),
    "e e e -10 +69": ((3, 3, "e3", 0, 0, 3), (True, "e3")),
    "N1 e": ((1, 1, "e1", 0, 0, 1), (True, "e1")),
    "e e N5 e": ((3, 3, "e3", None, 0, 3), (False, None)),
    "e e e C60 +60": ((3, 3, "e3", 0, 0, 3), (False, None)),
    "e e e +30 C20": ((3, 3, "e3", 0, 0, 3), (False, None)),
    "C0 N0 e -1": ((1, 1, "e1", 0, 0, 1), (True, "e1")),
}
# fmt: on
KEY = ("a", "x", "ok", False)


def meet_names(module, field, turn):
    """What a tracker counts where a known name acts as it is compared, each turn anew; the last one is the name that
    is looked for."""

    class Name(str):
        __hash__ = str.__hash__

        def __eq__(self, other):
            if next(turns) == turn:
                fresh = {KEY: module._Usage(8)}, {"a": module._ToolState(8)}
                setattr(tracker, field, dict(zip(("_usage", "_state"), fresh, strict=True)).get(field, set()))
            return False

    tracker, turns = module.ToolHealthTracker(FakeDatabase()), itertools.count()
    tracker._dirty = {Name("a")}
    tracker._usage = {(Name("a"), *KEY[1:]): module._Usage(), KEY: module._Usage(1)}
    tracker._state = {Name("a"): module._ToolState(), "a": module._ToolState(1)}
    for _ in range(3):
        tracker.record_success("a")
        count(tracker, "a", "x")
    return len(tracker._dirty), [(str(key), values[0]) for part in memory(tracker)[:2] for key, values in part]


class Outcomes(TrackerTest):
    def play(self, script):
        """A tracker after the script."""
        tracker, errors = self.make(), 0
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
                    for state in tracker._state.values():
                        state.consecutive_errors = 0
                case "N":
                    tracker.limits.disable_after_errors = float(token[1:])
                case "C":
                    tracker.limits.disable_cooldown_s = int(token[1:])
                case _:
                    self.clock.return_value += float(token)
        return tracker

    def test_the_disable_rule(self):
        for (script, (expected, answer)), is_native in itertools.product(DISABLE_RULE.items(), (False, True)):
            with self.subTest(script, is_native=is_native):
                self.clock.return_value = 0.0
                tracker = self.play(script)
                states, *others = memory(tracker)
                self.assertEqual(states, [("a", expected)] if expected else [])
                self.assertEqual(others, [[], {"a"} if expected else set(), False])
                clock = float(self.clock.return_value).conjugate if is_native else self.clock
                with mock.patch("time.time", clock):
                    self.assertEqual(tracker.is_disabled("a"), answer)

    def test_the_settings_are_the_ones_given_or_the_hosts_defaults(self):
        for limits in (0, "", ToolsConfig(1, 2.5)):
            self.assertIs(health.ToolHealthTracker(self.db, limits).limits, limits)
        for tracker in (self.make(), health.ToolHealthTracker(self.db, None)):
            self.assertEqual(tracker.limits, ToolsConfig(3, 60.0))

    def test_mappings_of_many_keys_that_a_caller_replaces(self):
        """A new key comes before all of them are met again."""
        tracker, names = self.make(), [f"tool {number}" for number in range(40)]
        for known in (names, ["new", *names]):
            for name in known:
                tracker.record_success(name)
                count(tracker, name)
            if known is names:
                tracker._state = {name: health._ToolState(7) for name in names}
                tracker._usage = {key: health._Usage(8) for key in tracker._usage}
        states, usage, *_ = memory(tracker)
        self.assertEqual([state[0] for _, state in states], [8] * 40 + [1])
        self.assertEqual([counts[0] for _, counts in usage], [9] * 40 + [1])

    def test_more_keys_than_the_cache_has_places(self):
        tracker = self.make()
        for _ in range(3):
            for number in range(2000):
                count(tracker, "a", "x", str(number))
        self.assertEqual({record.calls for record in tracker._usage.values()}, {3})

    def test_names_that_change_the_tracker_as_they_are_compared(self):
        """What is found must not be used when the comparison replaced it."""
        for clock, field, turn in itertools.product((self.clock, REAL_CLOCK), ("_dirty", "_usage", "_state"), range(3)):
            with mock.patch("time.time", clock):
                self.check_same(meet_names, field, turn)

    def test_what_a_caller_changes_is_seen(self):
        """However often the tool and the key were met before the change."""
        changes = {  # what a caller does after 50 calls, and the calls counted after one more
            "t._state['a'].call_count = t._usage[KEY].calls = 8": 9,
            "t.old = t._usage[KEY]; t._state['a'], t._usage[KEY] = health._ToolState(8), health._Usage(8)": 9,
            "t._state = {'a': health._ToolState(8)}; t._usage = {KEY: health._Usage(8)}": 9,
            "t._state.clear(); t._usage.clear()": 1,
            "t._dirty = set(); t._usage_dirty = 0": 51,
        }
        for clock, (change, calls) in itertools.product((self.clock, REAL_CLOCK), changes.items()):
            with self.subTest(change, clock=clock), mock.patch("time.time", clock):
                tracker = self.make()
                for number in range(51):
                    if number == 50:
                        exec(change, {"t": tracker, "KEY": KEY, "health": health})
                    tracker.record_success("a")
                    count(tracker, "a", "x")
                    self.assertEqual(tracker.is_disabled("a"), (False, None))
                self.assertEqual(tracker._state["a"].call_count, calls)
                self.assertEqual(tracker._usage[KEY].calls, calls)
                self.assertEqual((tracker._dirty, tracker._usage_dirty), ({"a"}, True))
                tracker._state["a"].disabled_at = time.time()
                self.assertIs(tracker.is_disabled("a")[0], True)
