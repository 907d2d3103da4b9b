"""Recording outcomes and usage, and the disable rule with its cooldown."""

from __future__ import annotations

import dataclasses
import time
from unittest import mock

from support import TrackerTest, count, health, memory

REAL_CLOCK = time.time
# A script is a tool's life: e an error (the texts are e1, e2, ...), s a success, ? the question
# whether it is disabled, +9 or -9 seconds pass, N and C set the threshold and the cooldown, r is
# a restart, after which the run of errors is forgotten. Then: the tool's record, its times counted
# from the begin, and the answer to the last question. The threshold is 3 and the cooldown 60 s.
DISABLE_RULE = {
    "?": (None, (False, None)),
    "s": ((1, 0, None, None, 0, 0), (False, None)),
    "e e s e e": ((5, 4, "e4", None, 0, 2), (False, None)),
    "e e s e e e": ((6, 5, "e5", 0, 0, 3), (True, "e5")),
    "e e e ? +59": ((3, 3, "e3", 0, 0, 3), (True, "e3")),
    "e e e +60": ((3, 3, "e3", 0, 0, 3), (False, None)),
    "e e e +60 ?": ((3, 3, "e3", None, 60, 0), (False, None)),
    "e e e +60 ? +1 e e": ((5, 5, "e5", None, 61, 2), (False, None)),
    "e e e +60 ? e e e": ((6, 6, "e6", 60, 60, 3), (True, "e6")),
    "e e e +5 e +59": ((4, 4, "e4", 5, 5, 4), (True, "e4")),
    "e e e +60 e +59": ((4, 4, "e4", 60, 60, 4), (True, "e4")),
    "e e e +1 s +1 e e": ((6, 5, "e5", None, 2, 2), (False, None)),
    "e e e r +5 e e": ((5, 5, "e5", 0, 5, 2), (True, "e5")),
    "e e e r +5 e e e +59": ((6, 6, "e6", 5, 5, 3), (True, "e6")),
    "e e e -10 +69": ((3, 3, "e3", 0, 0, 3), (True, "e3")),
    "N1 e": ((1, 1, "e1", 0, 0, 1), (True, "e1")),
    "N-3 e s": ((2, 1, "e1", None, 0, 0), (False, None)),
    "N2.5 e e": ((2, 2, "e2", None, 0, 2), (False, None)),
    "e e N5 e N3 +1 e": ((4, 4, "e4", 1, 1, 4), (True, "e4")),
    "e e e N9 +1 e": ((4, 4, "e4", 0, 1, 4), (True, "e4")),
    "e e e +30 C20": ((3, 3, "e3", 0, 0, 3), (False, None)),
    "C0 e e e -10": ((3, 3, "e3", 0, 0, 3), (True, "e3")),
    "C-20 e e e -10": ((3, 3, "e3", 0, 0, 3), (False, None)),
}
ERRORS = (
    (None, ""), ("", ""), ("x" * 500, "x" * 500), ("x" * 501, "x" * 500), ("é" * 600, "é" * 500),
    ("\U0001f600" * 501, "\U0001f600" * 500), (0, ""), (b"x" * 900, b"x" * 500),
)  # fmt: skip
KEY = ("a", "x", "ok", False)


def change(tracker, what):
    """What a caller may do to a tracker's memory."""
    if what == "records":
        tracker._state["a"].call_count = tracker._usage[KEY].calls = 8
    elif what == "entries":
        tracker._state["a"], tracker._usage[KEY] = health._ToolState(8), health._Usage(8)
    elif what == "mappings":
        tracker._state, tracker._usage = {"a": health._ToolState(8)}, {KEY: health._Usage(8)}
    elif what == "emptied":
        tracker._state.clear(), tracker._usage.clear()
    else:
        tracker._dirty, tracker._usage_dirty = set(), 0


class Outcomes(TrackerTest):
    def play(self, script):
        """A tracker after the script, and the tool's record with times since the begin."""
        tracker = self.make()
        errors, passed, begin = 0, 0, time.time()
        for token in script.split():
            state = tracker._state.get("a")
            match token[0], token[1:]:
                case "e", _:
                    errors += 1
                    tracker.record_error("a", f"e{errors}")
                case "s", _:
                    tracker.record_success("a")
                case "?", _:
                    tracker.is_disabled("a")
                case "r", _:
                    state.consecutive_errors = 0
                case "N", value:
                    tracker.limits.disable_after_errors = float(value)
                case "C", value:
                    tracker.limits.disable_cooldown_s = float(value)
                case _:  # the clock may be the runtime's own: what was moves, not what is
                    passed += int(token)
                    state.updated_at -= int(token)
                    if state.disabled_at is not None:
                        state.disabled_at -= int(token)
        self.assertEqual(tracker._dirty, set(tracker._state))
        self.assertIs(tracker._usage_dirty, False)
        if not tracker._state:
            return tracker, None
        *counts, disabled_at, updated_at, run = dataclasses.astuple(tracker._state["a"])
        since = [t if t is None else round(t - begin + passed) for t in (disabled_at, updated_at)]
        return tracker, (*counts, *since, run)

    def test_the_disable_rule(self):
        for clock in (self.clock, REAL_CLOCK):  # the runtime's own is read on a way of its own
            for script, (expected, answer) in DISABLE_RULE.items():
                with self.subTest(script, clock=clock), mock.patch("time.time", clock):
                    tracker, record = self.play(script)
                    self.assertEqual(record, expected)
                    self.assertEqual(tracker.is_disabled("a"), answer)

    def test_an_errors_text_is_cut_by_characters(self):
        for clock in (self.clock, REAL_CLOCK):
            tracker = self.make()
            for error, kept in ERRORS:
                with self.subTest(str(error)[:9], clock=clock), mock.patch("time.time", clock):
                    tracker.record_error("a", error)
                    self.assertEqual(tracker._state["a"].last_error, kept)
            tracker._state["a"].last_error = None
            tracker._state["a"].disabled_at = time.time()
            self.assertEqual(tracker.is_disabled("a"), (True, None))

    def test_the_clock_is_read_at_most_once_and_under_the_lock(self):
        tracker = self.make()
        for _ in range(3):
            tracker.record_error("b", "")
        operations = (
            (1, "record_success", "a"), (1, "record_error", "a", "e"), (0, "is_disabled", "a"),
            (0, "is_disabled", "new"), (1, "is_disabled", "b"), (0, "get_health_summary"),
            (0, "_load"), (0, "_load_usage"), (0, "flush"),
        )  # fmt: skip
        for reads, name, *args in operations:
            with self.subTest(name, args=args):
                held = []
                self.clock.hook = lambda: held.append(tracker._lock.locked())
                getattr(tracker, name)(*args)
                count(tracker, "a")
                self.assertEqual(held, [True] * reads)

    def test_calls_are_counted_by_their_key(self):
        tracker = self.make()
        calls = (
            ("a", "x", "ok", False, None), ("a", "x", "ok", True, 1.5), ("a", None, "ok", False, 0),
            ("a", "None", "ok", False, None), ("a", "x", "no", False, 2), ("b", "", "", False, 0.1),
            ("b", "", "", False, 0.2), ("a", "x", "ok", 1, 1.5), ("a", "x", "ok", 0, 3),
        )  # fmt: skip
        for *key, alias_hit, duration in calls:
            tracker.record_call(*key, alias_hit=alias_hit, duration_ms=duration)
        expected = [
            (("a", "x", "ok", False), (2, 1, 3.0)), (("a", "x", "ok", True), (2, 2, 3.0)),
            (("a", None, "ok", False), (1, 1, 0.0)), (("a", "None", "ok", False), (1, 0, 0.0)),
            (("a", "x", "no", False), (1, 1, 2.0)), (("b", "", "", False), (2, 2, 0.1 + 0.2)),
        ]  # fmt: skip
        self.assertEqual(memory(tracker), ([], expected, set(), True))
        self.assertEqual({type(usage.total_ms) for usage in tracker._usage.values()}, {float})

    def test_what_a_caller_changes_is_seen(self):
        """However often the tool and the key were met before the change."""
        results = {"records": 9, "entries": 9, "mappings": 9, "emptied": 1, "marks": 51}
        for clock in (self.clock, REAL_CLOCK):
            for what, calls in results.items():
                with self.subTest(what, clock=clock), mock.patch("time.time", clock):
                    tracker = self.make()
                    for number in range(51):
                        if number == 50:
                            change(tracker, what)
                        tracker.record_success("a")
                        count(tracker, "a", "x")
                    self.assertEqual(tracker._state["a"].call_count, calls)
                    self.assertEqual(tracker._usage[KEY].calls, calls)
                    self.assertEqual((tracker._dirty, tracker._usage_dirty), ({"a"}, True))
                    self.assertEqual(tracker.is_disabled("a"), (False, None))
                    tracker._state["a"].disabled_at = time.time()
                    self.assertIs(tracker.is_disabled("a")[0], True)
