"""Taking times: every subject of a row in turn, so that the machine's drift hits all alike.

A sample is a function without arguments that does its work once and returns what it cost. The
garbage collector stays on, as in the daemon, and is run to the end before each sample, so that no
subject pays for what another left behind.
"""

from __future__ import annotations

import gc
import math
import time
from collections.abc import Callable, Mapping, Sequence
from typing import Any

Sample = Callable[[], float]

# Statements repeated in the body of a timing loop: the loop's own 10 to 20 ns per turn are then
# below half a nanosecond per statement and need not be taken off.
UNROLL = 50


def alternate[K](
    subjects: Mapping[K, Sample], rounds: int, warm_up: bool = True
) -> dict[K, list[float]]:
    """Each subject's samples, taken in turn; every other round goes the other way about.

    Before them comes one sample that does not count, for the caches' and the bytecode's sake.
    """
    samples: dict[K, list[float]] = {name: [] for name in subjects}
    for sample in subjects.values() if warm_up else ():
        sample()
    for turn in range(rounds):
        for name in list(subjects) if turn % 2 == 0 else reversed(subjects):
            gc.collect()
            samples[name].append(subjects[name]())
    return samples


def ratios(slow: Sequence[float], fast: Sequence[float]) -> list[float]:
    """The ratios of two subjects' samples, round by round."""
    return [a / b for a, b in zip(slow, fast, strict=True)]


def percentile(values: Sequence[float], share: float) -> float:
    """The smallest value that at least ``share`` (0 to 1) of the values do not exceed."""
    return sorted(values)[max(0, math.ceil(share * len(values)) - 1)]


def repeated(statements: str, names: Mapping[str, Any]) -> Callable[[int], int]:
    """A function that runs ``statements`` ``n`` times (a multiple of UNROLL) and returns the time.

    Each call compiles code of its own: the runtime specialises code for the types it meets, and two
    subjects in one piece of code would spoil that for each other. The time is in nanoseconds.
    """
    source = "\n".join(
        [
            f"def run(turns, clock, {', '.join(names)}):",
            "    start = clock()",
            "    for _ in range(turns):",
            *[f"        {line}" for line in statements.splitlines() * UNROLL],
            "    return clock() - start",
        ]
    )
    namespace: dict[str, Any] = {}
    exec(source, namespace)
    run = namespace["run"]
    return lambda n: run(n // UNROLL, time.perf_counter_ns, *names.values())


def per_turn(run: Callable[[int], int], sample_s: float) -> Sample:
    """A sample of ``run``, in nanoseconds per turn, with turns for about ``sample_s`` seconds."""
    n = UNROLL
    while (spent := run(n)) < sample_s * 1e9 / 4:
        n *= 2
    n = max(UNROLL, round(n * sample_s * 1e9 / spent / UNROLL) * UNROLL)
    return lambda: run(n) / n


def once(work: Callable[[], object], prepare: Callable[[], object] = lambda: None) -> Sample:
    """A sample of one call of ``work`` after ``prepare``, in nanoseconds.

    Only ``work`` is timed; what it returns is freed after the clock was read.
    """

    def sample() -> float:
        prepare()
        start = time.perf_counter_ns()
        result = work()
        spent = time.perf_counter_ns() - start
        del result
        return spent

    return sample
