"""Measure the module against the same module in plain Python, and print a table.

Both run in one process and one run, in turn. A row shows one round, whose ratio is the median; where
the rounds' ratios lie far apart, it shows their range instead.
The floor of an operation is an empty native method, called with the same arguments, and time.time()
where the operation reads the clock. The column is empty where there is no such method or none is
built.
"""

from __future__ import annotations

import argparse
import json
import os
import platform
import sys
import time
from dataclasses import replace
from pathlib import Path
from typing import Any

import host  # first: it stands in for the daemon that the baseline imports from

import baseline
from rows import FULL, KEYS_PER_TOOL, QUICK, SCALING_KEYS, TOOLS, Bench

TABLE = "{:<49} {:>9} {:>9} {:>7} {:>8} {:>8}"
LEGEND = f"""
ratio: baseline / module of the median round, whose times are shown; a range where the rounds differ by over half
floor: an empty native call with the same arguments, and time.time() where the operation reads the clock
x floor: module / floor
{TOOLS} x {KEYS_PER_TOOL}: {TOOLS} tools with {KEYS_PER_TOOL} usage keys each
beside work: while another thread flushes and summarises {TOOLS} x {KEYS_PER_TOOL} in a loop
baseline grouped: the summary's usage rows made in one pass in Python too"""


def _quantity(value: float | None, unit: str) -> str:
    """A value in the unit that a reader would write it in; nothing for None."""
    if value is None:
        return ""
    if unit == "bytes":
        return f"{value:.0f} B"
    for size, name in ((1e9, "s"), (1e6, "ms"), (1e3, "us")):
        if value >= size:
            decimals = 0 if value >= 100 * size else 1 if value >= 10 * size else 2
            return f"{value / size:.{decimals}f} {name}"
    return f"{value:.0f} ns" if value >= 100 else f"{value:.1f} ns"


def _ratio(row: dict[str, Any]) -> str:
    """The median round's ratio, or the range of all rounds where one number would mislead."""
    least, most = min(row["ratios"]), max(row["ratios"])
    if most <= 1.5 * least:
        return f"{row['ratio']:.2f}"
    return "-".join(f"{ratio:.0f}" if least >= 10 else f"{ratio:.1f}" for ratio in (least, most))


def _print_row(row: dict[str, Any]) -> None:
    cells = [_quantity(row[column], row["unit"]) for column in ("baseline", "module", "floor")]
    over = "" if row["over_floor"] is None else f"{row['over_floor']:.2f}"
    line = TABLE.format(row["work"], cells[0], cells[1], _ratio(row), cells[2], over)
    print(line.rstrip(), flush=True)


def _print_scaling(points: list[dict[str, Any]]) -> None:
    print("\nget_health_summary, ns per usage key, by the number of keys")
    print(f"{'':<18}", *(f"{keys:>9,}" for keys in SCALING_KEYS))
    for subject, label in (
        ("baseline", "baseline"),
        ("grouped", "baseline grouped"),
        ("module", "module"),
    ):
        costs = [point["ns_per_key"] for point in points if point["subject"] == subject]
        print(f"{label:<18}", *(f"{cost:>9.0f}" for cost in costs))


def _machine() -> dict[str, Any]:
    """Where and when the run was made."""
    try:
        lines = Path("/proc/cpuinfo").read_text().splitlines()
    except OSError:
        lines = []
    models = [line.partition(":")[2].strip() for line in lines if line.startswith("model name")]
    return {
        "compiler": os.environ.get("HEALTH_COMPILER", "unknown compiler"),
        "python": platform.python_version(),
        "system": f"{platform.system()} {platform.machine()}",
        "cpu": models[0] if models else platform.machine(),
        "cpus": len(models),
        "date": time.strftime("%Y-%m-%d"),
    }


def main() -> None:
    """Measure, and print or write what was asked for."""
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter samples")
    parser.add_argument(
        "--json", nargs="?", const="-", metavar="FILE", help="print JSON, or also write it to FILE"
    )
    parser.add_argument(
        "--only", default="", metavar="TEXT", help="only what has TEXT in its name ('scaling' too)"
    )
    parser.add_argument(
        "--self",
        action="store_true",
        help="measure the baseline against itself: how far from 1 chance takes a ratio",
    )
    options = parser.parse_args()
    show = options.json != "-"
    plan = QUICK if options.quick else FULL
    if options.self:
        plan = replace(plan, scaling={**plan.scaling, "module": plan.scaling["baseline"]})
    bench = Bench(plan, baseline if options.self else host.extension())
    machine = _machine()
    if show:
        built = "plain Python" if options.self else f"built by {machine['compiler']}"
        print(f"The module ({built}) against plain Python (baseline); CPython {machine['python']}, "
              f"{machine['system']}, {machine['cpus']} x {machine['cpu']}\n")  # fmt: skip
        print(TABLE.format("", "baseline", "module", "ratio", "floor", "x floor"))
    rows: list[dict[str, Any]] = []
    for row in bench.rows():
        if options.only in row.work:
            rows.append(row.run())
            if show:
                _print_row(rows[-1])
    points = bench.scaling() if options.only in "scaling" else []
    if show and points:
        _print_scaling(points)
    if show:
        print(LEGEND)
    if options.json:
        # Only the numbers of a full run against the module are fit to be drawn (plot.py).
        full = not (options.quick or options.self)
        result = {"full": full, "machine": machine, "rows": rows, "scaling": points}
        text = json.dumps(result, indent=1) + "\n"
        if show:
            Path(options.json).write_text(text)
        else:
            sys.stdout.write(text)


if __name__ == "__main__":
    main()
