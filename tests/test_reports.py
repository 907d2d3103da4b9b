"""The three reports: the health summary, the performance statistics, the thread census."""

import itertools
import random
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.utils.process import ThreadCensus
from support import NOW, NOW_TEXT, TrackerTest, count, health, memory

PILING_UP = (
    "The process holds {} threads, more than the {} its pools allow: threads are piling up. A"
    " thread that ran the local embedding model keeps a team of torch threads, as many as"
    " DENDRA_EMBED_THREADS allows (0 leaves torch's own size)."
)
# fmt: off
CENSUSES = (  # both counts, the budget, and the count that is warned about
    ((40, 9), 40, None), ((41, 9), 40, 41), ((30, 50), 40, None), ((0, 9), 8, None), ((-1, 9), -2, -1),
    ((None, 40), 40, None), ((None, 41), 40, 41), ((10**30, 1), 2.5, 10**30), ((True, 1), False, True),
)
AVERAGES = (  # timed calls, their total, the mean of two decimals
    (0, 5.0, None), (3, 100.0, 33.33), (2, 5.0, 2.5), (10, 1234.5678, 123.46), (1, 0.125, 0.12),
    (1, 2.675, 2.67), (8, 1.0, 0.12), (1, 1e300, 1e300), (1, -0.001, -0.0), (-2, 5.0, -2.5), (3, 10, 3.33),
    (1, float("inf"), float("inf")), (2**60, 1e30, 867361737988.4), (1, float("nan"), float("nan")),
)
COUNTS = (0, 1, 2), (2**61, 2**63, 2**64, -5), (0, 1.5, True, 2**70)  # plain, large, odd
ACTIONS = (None, "None", "0", "Maze", "Nz", "x", "é", "\U0001f600", "\ud800", "")
# fmt: on


class Reports(TrackerTest):
    def test_the_summary(self):
        tracker = self.make()
        self.assertEqual(tracker.get_health_summary(), [])
        count(tracker, "only", duration_ms=3)
        tracker.record_error("a", "bad")
        tracker._state["a"].disabled_at = NOW - 1e6  # long over, but nobody asked
        for call in ("x", "no", True), ("y", "ok", False, 2), ("y", "ok", False, 2.5), ("y",):
            count(tracker, "a", *call)
        before = memory(tracker)
        expected = [
            {"tool_name": "a", "call_count": 1, "error_count": 1, "last_error": "bad", "disabled": True,
             "disabled_at": "2023-11-03 08:26:40", "updated_at": NOW_TEXT, "usage": [
                 {"action": "y", "outcome": "ok", "alias_hit": False, "calls": 3, "avg_ms": 2.25, "slow": False},
                 {"action": "x", "outcome": "no", "alias_hit": True, "calls": 1, "avg_ms": None, "slow": True}]},
            {"tool_name": "only", "call_count": 0, "error_count": 0, "last_error": None, "disabled": False,
             "disabled_at": None, "updated_at": "1970-01-01 00:00:00", "usage": [
                 {"action": None, "outcome": "ok", "alias_hit": False, "calls": 1, "avg_ms": 3.0, "slow": False}]},
        ]  # fmt: skip
        summary = tracker.get_health_summary()
        self.assertEqual(repr(summary), repr(expected))  # the order of the keys, too
        summary[0]["usage"][0].clear()
        self.assertEqual(tracker.get_health_summary(), expected)
        self.assertEqual(memory(tracker), before)

    def test_the_order_is_that_of_the_plain_version(self):
        """Tools by errors, calls and first sight; rows by calls, action, outcome and synonym use."""
        keys = list(itertools.product("abcuv", ACTIONS, ("ok", "no"), (True, False)))

        def summarise(module, counts, seed):
            chance, tracker, asked = random.Random(seed), self.make(module=module), []
            for tool in chance.sample("abcdefgh", 8):
                tracker._state[tool] = module._ToolState(chance.choice(counts), chance.choice(counts))
            for key in chance.sample(keys, 80):
                tracker._usage[key] = module._Usage(chance.choice(counts), chance.randrange(3), 1.0)

            def is_slow_call(*call):
                asked.append((call, tracker._lock.locked()))
                return call  # whatever it gives is shown

            with mock.patch.object(module, "is_slow_call", is_slow_call):
                summary = tracker.get_health_summary()
                with tracker._lock:
                    rows = [tracker._usage_rows(tool) for tool in "abz"]
            return summary, rows, asked

        for counts, seed in itertools.product(COUNTS, range(50)):
            self.check_same(summarise, counts, seed)

    def test_averages_are_rounded_as_the_runtime_rounds(self):
        chance, tracker = random.Random(7), self.make()
        pairs = [(chance.randrange(1, 99), chance.randrange(10**6) / 200) for _ in range(2000)]
        for timed, total, average in (*AVERAGES, *((n, t, round(t / n, 2)) for n, t in pairs)):
            tracker._usage = {("a", None, "ok", False): health._Usage(1, timed, total)}
            shown = tracker._usage_rows("a")[0]["avg_ms"]
            self.assertEqual(repr(shown), repr(average), (timed, total))

    def test_an_overriding_usage_rows_is_asked_for_each_tool(self):
        class Special(health.ToolHealthTracker):
            def _usage_rows(self, tool_name):
                return ["special", tool_name, self._lock.locked()]

        special, patched = Special(self.db), self.make()
        patched._usage_rows = lambda tool_name: ["special", tool_name, patched._lock.locked()]
        for tracker in special, patched:
            tracker.record_success("a")
            count(tracker, "b")
            usage = [record["usage"] for record in tracker.get_health_summary()]
            self.assertEqual(usage, [["special", "a", True], ["special", "b", True]])

    def test_performance_stats(self):
        """The collector's own values, whatever they are, in its order."""
        names = "name count avg_ms p95_ms min_ms max_ms errors".split()
        elements = [{"errors": [], "more": 1, **dict.fromkeys(names[:6], n / 7)} for n in (2, 1, 3)]
        expected = [{name: element[name] for name in names} for element in elements]

        def report(module, make_stats):
            collector = SimpleNamespace(get_all_stats=make_stats)
            with mock.patch.object(module, "get_timing_collector", lambda: collector):
                return module.handle_get_tool_performance_stats()

        for make_stats in (lambda: elements, lambda: iter(elements)):
            self.assertEqual(repr(report(health, make_stats)), repr({"tools": expected}))
        for stats in ([], None, [{"name": 1}], [*elements, {}], ["text"], [elements[0], None]):
            self.check_same(report, lambda: stats)

    def test_the_thread_census(self):
        threads = {"pool": [8], "MainThread": 1}
        for (by_system, by_runtime), budget, warned in CENSUSES:
            with self.subTest(by_system=by_system, by_runtime=by_runtime, budget=budget):
                report = health.thread_census_report(budget, ThreadCensus(by_system, by_runtime, threads))
                expected = {"os": by_system} if by_system is not None else {}
                expected |= {"python": by_runtime, "python_by_name": threads, "budget": budget}
                if warned is not None:
                    expected["warning"] = PILING_UP.format(warned, budget)
                self.assertEqual(repr(report), repr(expected))
                self.assertIsNot(report["python_by_name"], threads)
        for names in ([("a", 1), ("b", 2), ("a", 3)], None, ["ab"], [1]):
            for counts in (1, 2), (None, None), ("9", 1):
                census = ThreadCensus(*counts, names)
                self.check_same(lambda module: module.thread_census_report(1, census))
        own = health.thread_census_report(budget=0)
        self.assertEqual(own["python_by_name"], {"MainThread": 1})
        self.assertIn("more than the 0 its", own["warning"])
