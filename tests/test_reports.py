"""The three reports and the times in them, held against the plain version."""

import itertools
import random
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.utils.process import ThreadCensus
from support import NOW, TrackerTest, count, health, memory

YEAR_1, YEAR_1000, YEAR_10000 = -62_135_596_800, -30_610_224_000, 253_402_300_800  # epoch seconds
# fmt: off
MOMENTS = (
    None, True, 0, -0.5, 1700000000, 1700000000.999, 1700000000.9999996, 951782400, YEAR_1, YEAR_1 - 1, YEAR_1000,
    YEAR_1000 - 1, YEAR_10000 - 1, YEAR_10000, float("nan"), "text",
)
TEXTS = (
    None, "", 0, b"", 5, "2023-11-14 22:13:20", "2023-1-4 2:3:4", "2023-11-14\t22:13:20", "2０2٣-11-1٤ 1٣:1٣:2٠",
    "2023-11-14\u2003\u00a022:13:20", "0001-01-01 00:00:00", "9999-12-31 23:59:59", "2023-11-14 22:13:20.5",
    "2023-11-14T22:13:20", "2023-11-14 22:13:20+00:00", "2023-11-14", " 2023-11-14 22:13:20", "2023-11-14 22:13:20 ",
    "2023-11-14 24:00:00", "2023-11-14 22:13:60", "2023-11-14 22:13:61", "2023-02-30 00:00:00", "1900-02-29 00:00:00",
    "2024-02-29 00:00:00", "0000-01-01 00:00:00",
)
TOOLS = {"odd": SimpleNamespace(action={"empty": "", "none": None, "": 0}.get), "false": ()}
CENSUSES = (  # the system's count and the runtime's, the budget
    (40, 9, 40), (41, 9, 40), (30, 50, 40), (0, 9, 8), (-1, 9, -2), (None, 40, 40), (None, 41, 40), (10**30, 1, 2.5),
    (True, 1, False), (None, None, 1), ("9", 1, 1), (9, 1, "8"),
)
AVERAGES = (  # timed calls and their total
    (0, 5.0), (3, 100.0), (2, 5.0), (10, 1234.5678), (1, 0.125), (1, 2.675), (8, 1.0), (1, 1e300), (1, -0.001),
    (-2, 5.0), (3, 10), (1, float("inf")), (2**60, 1e30), (1, float("nan")),
)
COUNTS = (0, 1, 2), (2**61, 2**63, 2**64, -5), (0, 1.5, True, 2**70)  # plain, large, odd
NAMES = {"pool": [8], "a": 1}, [("a", 1), ("a", 3)], None, ["ab"], [1]  # of threads
ACTIONS = (None, "None", "0", "Maze", "Nz", "x", "é", "\U0001f600", "\ud800", "")
# fmt: on


class Reports(TrackerTest):
    def test_times_are_those_of_the_runtimes_datetime(self):
        for name, table in ("_sqlite_time", MOMENTS), ("_epoch", TEXTS):
            for given in table:
                self.check_same(lambda module, given: getattr(module, name)(given), given)

    def test_the_registry_is_asked_as_it_answers(self):
        health.TOOLS.update(TOOLS)
        for tool, action in itertools.product(["gone", *health.TOOLS], (None, "x", "z", "", "empty", "none")):
            self.check_same(lambda module, *key: module._known(*key), tool, action)

    def test_a_summary_changes_nothing_and_is_no_part_of_the_tracker(self):
        tracker = self.make()
        self.assertEqual(tracker.get_health_summary(), [])
        count(tracker, "only", duration_ms=3)
        tracker.record_error("a", "bad")
        tracker._state["a"].disabled_at = NOW - 1e6  # long over, but nobody asked
        before = memory(tracker)
        first = tracker.get_health_summary()
        self.assertEqual([record["disabled"] for record in first], [True, False])
        first[1]["usage"].clear()
        self.assertEqual(len(tracker.get_health_summary()[1]["usage"]), 1)
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
        def average(module, timed, total):
            tracker = self.make(module=module)
            tracker._usage["a", None, "ok", False] = module._Usage(1, timed, total)
            return tracker._usage_rows("a")

        chance = random.Random(7)
        pairs = [(chance.randrange(1, 99), chance.randrange(10**6) / 200) for _ in range(2000)]
        for pair in *AVERAGES, *pairs:
            self.check_same(average, *pair)

    def test_performance_stats_are_the_collectors_own(self):
        names = "name count avg_ms p95_ms min_ms max_ms errors".split()
        elements = [{"errors": [], "more": 1, **dict.fromkeys(names[:6], n / 7)} for n in (2, 1, 3)]

        def report(module, stats):
            collector = SimpleNamespace(get_all_stats=lambda: stats)
            with mock.patch.object(module, "get_timing_collector", lambda: collector):
                return module.handle_get_tool_performance_stats()

        for stats in (elements, tuple(elements), [], None, [{"name": 1}], [*elements, {}], ["text"], [None]):
            self.check_same(report, stats)

    def test_the_thread_census(self):
        def report(module, of_system, of_runtime, budget, names):
            return module.thread_census_report(budget, ThreadCensus(of_system, of_runtime, names))

        for counts, names in itertools.product(CENSUSES, NAMES):
            self.check_same(report, *counts, names)
        own = health.thread_census_report(budget=0)
        self.assertEqual(own["python_by_name"], {"MainThread": 1})
        self.assertIn("more than the 0 its", own["warning"])
