"""What the benchmark measures: the rows of its table, and the summary's cost as keys are added."""

from __future__ import annotations

import gc
import importlib
import itertools
import json
import random
import sys
import threading
import time
import tracemalloc
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from functools import partial
from statistics import median, median_low
from typing import Any

import host  # first: it stands in for the daemon that the baseline imports from

import baseline
from measure import Sample, alternate, once, per_turn, percentile, ratios, repeated

ACTIONS = ("text", "files", "symbols", "build", "status")
OUTCOMES = ("ok", "error", "refused")
KEYS_PER_TOOL = len(ACTIONS) * len(OUTCOMES) * 2
TOOLS = 300
THREADS = 4
ERROR = "fetch: connection refused by 127.0.0.1 after 3 tries"
SCALING_KEYS = (1_000, 3_000, 10_000, 30_000, 100_000)

Makers = dict[str, Callable[[host.Repository], Any]]
Samples = dict[str, list[float]]


class GroupedTracker(baseline.ToolHealthTracker):
    """The baseline with one pass over the usage counts for all tools, as the module does it.

    What it gains is the algorithm's share of the module's gain; the rest is native code's.
    """

    def get_health_summary(self) -> list[dict[str, Any]]:
        """As the base class, but that an overridden ``_usage_rows`` is not called."""
        with self._lock:
            entries: dict[str, list[Any]] = {}
            for entry in self._usage.items():
                entries.setdefault(entry[0][0], []).append(entry)
            return [
                {
                    **baseline._record(name, state),
                    "usage": baseline._rows(name, entries.get(name, ())),
                }
                for name, state in baseline._worst_first(self._state, self._usage)
            ]


@dataclass(frozen=True)
class Plan:
    """How much to measure."""

    rounds: int  # of the rows that take microseconds
    long_rounds: int  # of the rows that take milliseconds
    latency_rounds: int
    latencies: int  # calls in one sample of a latency row
    sample_s: float  # one sample of a row that takes microseconds
    scaling: Mapping[str, int]  # the most usage keys that a subject's summary is measured with


FULL = Plan(15, 15, 3, 100, 0.04, {"baseline": 10_000, "grouped": 100_000, "module": 100_000})
QUICK = Plan(5, 3, 1, 15, 0.01, {"baseline": 1_000, "grouped": 10_000, "module": 100_000})


@dataclass(frozen=True)
class Row:
    """One line of the table; ``measure`` takes its samples, in ``unit``."""

    work: str
    measure: Callable[[], Samples]
    reference: str = "baseline"
    unit: str = "ns"

    def run(self) -> dict[str, Any]:
        """Measure it; the values are those of one round, the one whose ratio is the median."""
        samples = self.measure()
        gains = ratios(samples[self.reference], samples["module"])
        middle = gains.index(median_low(gains))
        module = samples["module"][middle]
        floor = samples["floor"][middle] if "floor" in samples else None
        return {
            "work": self.work,
            "unit": self.unit,
            "baseline": samples[self.reference][middle],
            "module": module,
            "ratio": gains[middle],
            "ratios": gains,
            "floor": floor,
            "over_floor": module / floor if floor else None,
        }


class Bench:
    """The measurements of one run."""

    def __init__(self, plan: Plan, module: Any) -> None:
        self._plan = plan
        self._plain: Makers = {
            "baseline": baseline.ToolHealthTracker,
            "module": module.ToolHealthTracker,
        }
        self._grouped: Makers = {"grouped": GroupedTracker, "module": module.ToolHealthTracker}
        self._floor = _floor()

    def rows(self) -> list[Row]:
        """The rows in the table's order, not measured yet."""
        ask, succeed = "tracker.is_disabled(tool)", "tracker.record_success(tool)"
        refuse, fail = "tracker.is_disabled(broken)", "tracker.record_error(tool, error)"
        count = "tracker.record_call(tool, action, outcome, alias_hit=False, duration_ms=took)"
        around = "\n".join((ask, succeed, count))
        size = f"{TOOLS} x {KEYS_PER_TOOL}"
        return [
            Row("is_disabled of an enabled tool", partial(self._call, ask)),
            Row("is_disabled of a disabled tool", partial(self._call, refuse, reads_clock=True)),
            Row("record_success", partial(self._call, succeed, reads_clock=True)),
            Row("record_error", partial(self._call, fail, reads_clock=True)),
            Row("record_call", partial(self._call, count)),
            Row("the three around one call", partial(self._call, around, reads_clock=True)),
            Row(f"the three, {THREADS} threads on one tool", partial(self._threads, around)),
            Row("has_unsaved_changes", partial(self._call, "tracker.has_unsaved_changes")),
            Row(f"get_health_summary, {size}", partial(self._summary, self._plain)),
            Row(
                f"get_health_summary, {size}, baseline grouped",
                partial(self._summary, self._grouped),
                "grouped",
            ),
            Row(f"flush into nothing, {size}", self._flush),
            Row(f"construction, {size}", self._construct),
            Row("p99 of is_disabled beside work", partial(self._latency, self._plain)),
            Row(
                "p99 of is_disabled beside work, baseline grouped",
                partial(self._latency, self._grouped),
                "grouped",
            ),
            Row("memory of a tool with one usage key", self._memory, unit="bytes"),
        ]

    def scaling(self) -> list[dict[str, Any]]:
        """The summary's nanoseconds per usage key, by subject, for more and more keys.

        The sizes take turns as the subjects do. So the machine's drift hits all alike, and each summary
        comes after other work, as a daemon's status answer does, with caches that hold none of it.
        """
        samples: dict[tuple[str, int], Sample] = {}
        for size in SCALING_KEYS:
            tools = round(size / KEYS_PER_TOOL)
            repository, keys = history(tools), tools * KEYS_PER_TOOL
            for name, make in (self._plain | self._grouped).items():
                if size <= self._plan.scaling[name]:
                    samples[name, keys] = _summary(make, repository)
        return [
            {"subject": name, "keys": keys, "ns": median(ns), "ns_per_key": median(ns) / keys}
            for (name, keys), ns in self._long(samples).items()
        ]

    def _call(self, statements: str, *, reads_clock: bool = False) -> Samples:
        """An operation, by one thread on one tool."""
        samples = {
            name: per_turn(repeated(statements, _names(_used(make))), self._plan.sample_s)
            for name, make in self._plain.items()
        }
        if self._floor is not None:
            floor = repeated(statements + "\ntime.time()" * reads_clock, _names(self._floor))
            samples["floor"] = per_turn(floor, self._plan.sample_s)
        return alternate(samples, self._plan.rounds)

    def _threads(self, statements: str) -> Samples:
        """The whole work of several threads that are let go together, per turn of any of them."""

        def sample(make: Callable[[host.Repository], Any]) -> Sample:
            run = repeated(statements, _names(_used(make)))
            return per_turn(partial(_in_threads, run), 10 * self._plan.sample_s)

        return alternate(
            {name: sample(make) for name, make in self._plain.items()}, self._plan.long_rounds
        )

    def _summary(self, makers: Makers) -> Samples:
        repository = history(TOOLS)
        return self._long({name: _summary(make, repository) for name, make in makers.items()})

    def _flush(self) -> Samples:
        """Everything has changed, and the database takes it and does nothing."""

        def sample(make: Callable[[host.Repository], Any]) -> Sample:
            repository = history(TOOLS)
            tracker = make(repository)
            repository.db = _Nothing()
            return once(tracker.flush, partial(_touch, tracker))

        return self._long({name: sample(make) for name, make in self._plain.items()})

    def _construct(self) -> Samples:
        repository = history(TOOLS)
        return self._long(
            {name: once(partial(make, repository)) for name, make in self._plain.items()}
        )

    def _long[K](self, samples: Mapping[K, Sample]) -> dict[K, list[float]]:
        return alternate(samples, self._plan.long_rounds)

    def _latency(self, makers: Makers) -> Samples:
        samples = {
            name: partial(_busy_p99, make(history(TOOLS)), self._plan.latencies)
            for name, make in makers.items()
        }
        return alternate(samples, self._plan.latency_rounds, warm_up=False)

    def _memory(self) -> Samples:
        return alternate(
            {name: partial(_bytes_per_tool, make) for name, make in self._plain.items()}, 1
        )


class _Nothing:
    """A database that does nothing with what it is given."""

    def execute(self, sql: str, params: Any) -> None:
        """Take a statement."""

    def executemany(self, sql: str, rows: Any) -> None:
        """Take a statement."""


def history(tools: int) -> host.Repository:
    """A repository that holds ``tools`` tools with 30 usage keys each, the same every time."""
    chance = random.Random(1)
    names = [f"tool_{i:05}" for i in range(tools)]
    host.TOOLS.update((name, host.ToolSpec(ACTIONS)) for name in names)
    host.SLOW_CALLS.update((name, "build") for name in names)
    times = [f"2024-05-{day:02} 13:{minute:02}:42" for day in range(1, 29) for minute in range(60)]
    rows = [
        (
            name,
            chance.randrange(1000),
            chance.randrange(50),
            chance.choice((None, ERROR)),
            chance.choice((None, None, None, chance.choice(times))),
            chance.choice(times),
        )
        for name in names
    ]
    document = [
        {
            "tool": name,
            "action": action,
            "outcome": outcome,
            "alias_hit": alias_hit,
            "calls": (calls := chance.randrange(1, 500)),
            "timed_calls": chance.randrange(calls),
            "total_ms": round(chance.uniform(0, 50_000), 3),
        }
        for action, outcome, alias_hit in itertools.product(ACTIONS, OUTCOMES, (False, True))
        for name in names
    ]
    return host.Repository(
        host.Database(rows, json.dumps(document, separators=(",", ":")))  # as a flush writes it
    )


def _summary(make: Callable[[host.Repository], Any], repository: host.Repository) -> Sample:
    return once(make(repository).get_health_summary)


def _empty() -> host.Repository:
    return host.Repository(host.Database())


def _used(make: Callable[[host.Repository], Any]) -> Any:
    """A tracker that knows the tools and the usage key of the measured calls, and one more of each."""
    tracker = make(_empty())
    tracker.limits.disable_cooldown_s = 1e9
    for _ in range(tracker.limits.disable_after_errors):
        tracker.record_error("broken", ERROR)
    for tool in ("search", "fetch"):
        tracker.record_success(tool)
        tracker.record_call(tool, "text", "ok", alias_hit=False, duration_ms=12.5)
    return tracker


def _floor() -> Any:
    """An object whose native methods only take the operations' arguments; None if unbuilt."""
    sys.path.append(str(host.BUILD / "bench"))
    try:
        return importlib.import_module("health_floor").Floor()
    except ModuleNotFoundError:
        return None


def _names(tracker: Any) -> dict[str, Any]:
    """The names that the measured statements use, for a tracker or the floor."""
    return {
        "tracker": tracker,
        "tool": "search",
        "broken": "broken",
        "action": "text",
        "outcome": "ok",
        "took": 12.5,
        "error": ERROR,
        "time": time,
    }


def _touch(tracker: Any) -> None:
    """Mark everything that the tracker has as changed."""
    for name in tracker._state:
        tracker.record_success(name)
    tracker.record_call("tool_00000", "text", "ok", alias_hit=False, duration_ms=1.0)


def _in_threads(run: Callable[[int], int], n: int) -> int:
    """The time from the release of the threads until the last of ``n`` turns in all is done."""
    barrier = threading.Barrier(THREADS + 1)

    def work() -> None:
        barrier.wait()
        run(n // THREADS)

    threads = [threading.Thread(target=work) for _ in range(THREADS)]
    for thread in threads:
        thread.start()
    start = time.perf_counter_ns()  # before the release: after it, a thread may be well on its way
    barrier.wait()
    for thread in threads:
        thread.join()
    return time.perf_counter_ns() - start


def _busy_p99(tracker: Any, calls: int) -> float:
    """The 99th percentile of the time that ``is_disabled`` takes beside a thread that is at work.

    That thread flushes and summarises without a pause. The calls come a millisecond apart, as tool
    calls come from outside, and not in a row: a thread that asks without a pause does so thousands
    of times in each of its turns, in which the other thread cannot do anything, and would measure
    an idle tracker.
    """
    done = threading.Event()
    started = threading.Event()

    def work() -> None:
        while not done.is_set():
            _touch(tracker)
            started.set()
            tracker.flush()
            tracker.get_health_summary()

    thread = threading.Thread(target=work)
    thread.start()
    started.wait()
    clock = time.perf_counter_ns
    latencies: list[int] = []
    for _ in range(calls):
        time.sleep(0.001)
        start = clock()
        tracker.is_disabled("tool_00000")
        latencies.append(clock() - start)
    done.set()
    thread.join()
    return percentile(latencies, 0.99)


def _bytes_per_tool(make: Callable[[host.Repository], Any], count: int = 4000) -> float:
    """The memory that a tracker takes for each of ``count`` tools, the names' own not counted.

    It counts what is asked of the runtime's allocators, which is all that either subject uses.
    """
    names = [f"memory_{i}" for i in range(count)]
    tracker = make(_empty())
    gc.collect()
    tracemalloc.start()
    before = tracemalloc.get_traced_memory()[0]
    for name in names:
        tracker.record_success(name)
        tracker.record_call(name, "text", "ok", alias_hit=False, duration_ms=12.5)
    gc.collect()
    after = tracemalloc.get_traced_memory()[0]
    tracemalloc.stop()
    return (after - before) / count
