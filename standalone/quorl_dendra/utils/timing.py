"""How long the tools' handlers take: one collector for the process."""

import math
import threading
from collections import deque
from typing import Any

_SAMPLES_KEPT = 1000  # per tool, for the 95th percentile: that of the latest runs


class _Timings:
    def __init__(self) -> None:
        self.count = self.errors = 0
        self.total_ms = self.max_ms = 0.0
        self.min_ms = math.inf
        self.latest = deque[float](maxlen=_SAMPLES_KEPT)


class TimingCollector:
    """Durations and errors per tool. Any thread may call any method."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._tools: dict[str, _Timings] = {}

    def record(self, name: str, duration_ms: float, *, error: bool = False) -> None:
        """Add one run of a tool's handler, failed ones included."""
        with self._lock:
            timings = self._tools.setdefault(name, _Timings())
            timings.count += 1
            timings.errors += error
            timings.total_ms += duration_ms
            timings.min_ms = min(timings.min_ms, duration_ms)
            timings.max_ms = max(timings.max_ms, duration_ms)
            timings.latest.append(duration_ms)

    def get_all_stats(self) -> list[dict[str, Any]]:
        """The figures of every tool that ran, by name, all of one moment; times in milliseconds."""
        with self._lock:
            return [
                {
                    "name": name,
                    "count": timings.count,
                    "avg_ms": round(timings.total_ms / timings.count, 3),
                    "p95_ms": round(_p95(timings.latest), 3),
                    "min_ms": round(timings.min_ms, 3),
                    "max_ms": round(timings.max_ms, 3),
                    "errors": timings.errors,
                }
                for name, timings in sorted(self._tools.items())
            ]


def _p95(samples: deque[float]) -> float:
    return sorted(samples)[math.ceil(0.95 * len(samples)) - 1]


_collector = TimingCollector()


def get_timing_collector() -> TimingCollector:
    """The process-wide collector."""
    return _collector
