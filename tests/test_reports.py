"""The three reports: the health summary, the performance statistics, the thread census; and the times in them."""

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
YEAR_1, YEAR_10000 = -62_135_596_800, 253_402_300_800  # epoch seconds
# fmt: off
MOMENTS = {
    None: None, 0: "1970-01-01 00:00:00", -0.5: "1969-12-31 23:59:59",
    1700000000: "2023-11-14 22:13:20", 1700000000.999: "2023-11-14 22:13:20",
    1700000000.9999996: "2023-11-14 22:13:21", 951782400: "2000-02-29 00:00:00",
    YEAR_1: "1-01-01 00:00:00", -30_610_224_000: "1000-01-01 00:00:00", YEAR_10000 - 1: "9999-12-31 23:59:59",
}
TEXTS = {
    None: None, "": None, 0: None, b"": None, "2023-11-14 22:13:20": 1700000000.0,
    "2023-1-4 2:3:4": 1672797784.0, "2023-11-14\t22:13:20": 1700000000.0,
    "2０2٣-11-1٤ 1٣:1٣:2٠": 1699967600.0, "2023-11-14\u2003\u00a022:13:20": 1700000000.0,
    "0001-01-01 00:00:00": float(YEAR_1), "9999-12-31 23:59:59": YEAR_10000 - 1.0,
    "2023-11-14 22:13:20.5": None, "2023-11-14T22:13:20": None, "2023-11-14 22:13:20+00:00": None,
    "2023-11-14": None, " 2023-11-14 22:13:20": None, "2023-11-14 22:13:20 ": None,
    "2023-11-14 24:00:00": None, "2023-11-14 22:13:60": None, "2023-02-30 00:00:00": None,
    "1900-02-29 00:00:00": None, "2024-02-29 00:00:00": 1709164800.0, "0000-01-01 00:00:00": None,
}
KNOWN = {
    ("gone", None): False, ("gone", "x"): False, ("a", None): True, ("a", "x"): True,
    ("a", "z"): False, ("a", ""): False, ("b", None): True, ("b", "x"): False,
    ("odd", "empty"): True, ("odd", "none"): False, ("odd", ""): True,
}
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
    def test_times_and_the_registry(self):
        health.TOOLS["odd"] = mock.Mock(action={"empty": "", "none": None, "": 0}.get)
        for name, table in ("_sqlite_time", MOMENTS), ("_epoch", TEXTS), ("_known", KNOWN):
            for given, expected in table.items():
                with self.subTest(name, given=given):
                    args = given if name == "_known" else [given]
                    self.assertEqual(getattr(health, name)(*args), expected)

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

    def test_performance_stats_are_the_collectors_own(self):
        names = "name count avg_ms p95_ms min_ms max_ms errors".split()
        elements = [{"errors": [], "more": 1, **dict.fromkeys(names[:6], n / 7)} for n in (2, 1, 3)]

        def report(module, stats):
            collector = SimpleNamespace(get_all_stats=stats.copy)
            with mock.patch.object(module, "get_timing_collector", lambda: collector):
                return module.handle_get_tool_performance_stats()

        expected = [{name: element[name] for name in names} for element in elements]
        self.assertEqual(repr(report(health, elements)), repr({"tools": expected}))
        for stats in ([], {}, {1: 2}, [{"name": 1}], [*elements, {}], ["text"], [elements[0], None]):
            self.check_same(report, stats)

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
        for names, counts in itertools.product(([("a", 1), ("a", 3)], None, ["ab"], [1]), ((1, 2), (None, None), ("9", 1))):
            self.check_same(lambda module: module.thread_census_report(1, ThreadCensus(*counts, names)))
        own = health.thread_census_report(budget=0)
        self.assertEqual(own["python_by_name"], {"MainThread": 1})
        self.assertIn("more than the 0 its", own["warning"])
