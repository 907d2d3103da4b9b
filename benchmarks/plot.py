"""Draw the summary's time against the usage keys, with gnuplot, from the benchmark's JSON."""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
from pathlib import Path
from typing import Any

# subject, its name in the benchmark's table with its passes over the usage keys, colour, point type
LINES = (
    ("baseline", "baseline: one pass per tool", "#b5403a", 7),
    ("grouped", "baseline grouped: one pass", "#c98a1b", 5),
    ("module", "module: one pass", "#2b6ca3", 9),
)
TITLE = "get_health_summary, 30 usage keys per tool"

SETTINGS = """
set terminal {terminal} background rgb 'white' enhanced
set output '{output}'
set border 3 lc rgb '#555555'
set tics nomirror scale 0.6 textcolor rgb '#333333'
set grid ytics xtics lc rgb '#dddddd' lt 1 lw 0.6
set logscale xy
set xtics ("1,000" 1e3, "3,000" 3e3, "10,000" 1e4, "30,000" 3e4, "100,000" 1e5)
set xrange [700:150000]
set yrange [{least}:{most}]
set title "{title}" noenhanced textcolor rgb '#222222'
set xlabel "usage keys" textcolor rgb '#333333'
set ylabel "time of one summary, ms" textcolor rgb '#333333'
set key bottom right reverse Left textcolor rgb '#222222'
"""

TERMINALS = {".svg": "svg size 760,480 font ',14'", ".png": "pngcairo size 760,480 font ',12'"}


def program(points: list[dict[str, Any]], output: Path) -> str:
    """The gnuplot program that draws ``points`` into ``output``, an .svg or a .png."""
    data: list[str] = []
    curves: list[str] = []
    times = [p["ns"] / 1e6 for p in points]
    settings = SETTINGS.format(
        terminal=TERMINALS[output.suffix],
        output=output,
        title=TITLE,
        least=min(times) / 2,  # no marker touches an axis
        most=max(times) * 2,
    )
    last = max(p["keys"] for p in points)
    for subject, title, colour, point in LINES:
        own = [p for p in points if p["subject"] == subject]
        if not own:
            continue
        data += [f"${subject} << END", *(f"{p['keys']} {p['ns'] / 1e6}" for p in own), "END"]
        curves.append(
            f"${subject} with linespoints lw 2 pt {point} lc rgb '{colour}' title '{title}'"
        )
        if own[-1]["keys"] < last:
            settings += f"""set label "not measured further:\\nit grows with the square" at \
{own[-1]["keys"]},{own[-1]["ns"] / 1e6} offset 1.5,0.4 textcolor rgb '{colour}'\n"""
    return "\n".join([settings, *data, "plot " + ", ".join(curves), ""])


def main() -> None:
    """Read the JSON, draw the picture."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("json", type=Path, help="what bench.py --json wrote")
    parser.add_argument("output", type=Path, help="the picture to write: .svg or .png")
    options = parser.parse_args()
    result = json.loads(options.json.read_text())
    points = result["scaling"]
    if not (points and result.get("full")):
        sys.exit(f"plot.py: {options.json} is not of a full run; `make bench` makes one")
    options.output.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run(["gnuplot"], input=program(points, options.output), text=True, check=True)
    if options.output.suffix == ".svg":
        drawn = options.output.read_text().replace("<title>Gnuplot<", f"<title>{TITLE}<")
        options.output.write_text(drawn)


if __name__ == "__main__":
    main()
