"""The three reports, held against the plain version."""

import itertools
import random
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.utils.process import ThreadCensus
from support import TrackerTest, health

# fmt: off
CENSUSES = (  # the system's count and the runtime's, the budget
    (40, 9, 40), (41, 9, 40), (30, 50, 40), (0, 9, 8), (-1, 9, -2), (None, 40, 40), (None, 41, 40), (10**30, 1, 2.5),
    (True, 1, False), (None, None, 1), ("9", 1, 1), (9, 1, "8"),
)
AVERAGES = (  # timed calls and their total
    (0, 5.0), (3, 100.0), (2, 5.0), (10, 1234.5678), (1, 0.125), (1, 2.675), (8, 1.0), (1, 1e300), (1, -0.001),
    (-2, 5.0), (3, 10), (1, float("inf")), (2**60, 1e30), (1, float("nan")),
)
NAMES = {"pool": [8], "a": 1}, [("a", 1), ("a", 3)], None, ["ab"], [1]  # of threads
# fmt: on


class Reports(TrackerTest):
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
