"""The reports as aligned tables."""

from collections.abc import Sequence
from typing import Any

from quorl_dendra.demo.console import BOLD, DIM, RED, WIDTH, Console, printable

Row = tuple[Sequence[object], str]  # the cells, and the style of the whole line


def show(console: Console, reports: dict[str, Any]) -> None:
    """Print the three reports, and the tracker's share of the time."""
    _show_health(console, reports["health_summary"])
    _show_performance(console, reports["performance"]["tools"], reports["tracker_us_per_call"])
    _show_threads(console, reports["threads"], "Thread census: within the budget")
    _show_threads(console, reports["threads_over_budget"], "Thread census: idle threads pile up")


def _show_health(console: Console, summary: list[dict[str, Any]]) -> None:
    """The health summary: each tool, the worst first, with its usage rows under it."""
    rows: list[Row] = []
    for tool in summary:
        state, style = ("disabled", RED) if tool["disabled"] else ("enabled", "")
        rows.append(
            ((tool["tool_name"], "", "", tool["call_count"], tool["error_count"], "", state), style)
        )
        for usage in tool["usage"]:
            synonym = "yes" if usage["alias_hit"] else "no"
            note = "slow" if usage["slow"] else ""
            action = "  " + (usage["action"] or "-")
            average = "-" if usage["avg_ms"] is None else _ms(usage["avg_ms"])
            rows.append(
                ((action, usage["outcome"], synonym, usage["calls"], "", average, note), DIM)
            )
        rows.append(((_times_and_error(tool),), DIM))
    console.say("\nHealth summary: every tool, most errors first", BOLD)
    titles = ("tool, actions", "outcome", "synonym", "calls", "errors", "avg ms", "")
    _show(console, titles, "<<<>>><", rows)
    console.say_wrapped(
        "A tool's own number counts the calls that ran; its rows count those that were refused, "
        "too (disabled).",
        DIM,
    )


def _show_performance(console: Console, tools: list[dict[str, Any]], tracker_us: float) -> None:
    """The performance statistics, with the share of a call's time that the tracker takes."""
    rows: list[Row] = []
    for tool in tools:
        share = 100 * tracker_us / (tracker_us + 1000 * tool["avg_ms"])
        times = [_ms(tool[key]) for key in ("avg_ms", "p95_ms", "min_ms", "max_ms")]
        rows.append(
            ((tool["name"], tool["count"], tool["errors"], *times, f"{share:.2f}%"), "")
        )
    console.say("\nPerformance statistics: the handlers in this process", BOLD)
    titles = ("tool", "runs", "errors", "avg ms", "p95", "min", "max", "tracker")
    _show(console, titles, "<>>>>>>>", rows)
    told = f"tracker: its share of a call's time; its three operations take {tracker_us:.2f} us"
    console.say(told, DIM)


def _show_threads(console: Console, report: dict[str, Any], title: str) -> None:
    """The thread census, and its warning if it has one."""
    by_name = [((f"  {name}", count), DIM) for name, count in report["python_by_name"].items()]
    rows: list[Row] = [
        (("operating system's count", report.get("os", "-")), ""),
        (("Python's count", report["python"]), ""),
        *by_name,
        (("budget", report["budget"]), ""),
    ]
    console.say(f"\n{title}", BOLD)
    _show(console, ("threads", "number"), "<>", rows)
    console.say_wrapped(report.get("warning", ""), RED)


def _show(console: Console, titles: Sequence[str], alignment: str, rows: list[Row]) -> None:
    """Columns as wide as their widest cell; a row of one cell is a line of its own."""
    columns = zip(titles, *(cells for cells, _ in rows if len(cells) > 1), strict=True)
    widths = [max(len(printable(cell)) for cell in column) for column in columns]
    for cells, style in [(titles, BOLD), *rows]:
        if len(cells) == 1:
            console.say(printable(cells[0])[:WIDTH], style)
            continue
        fitted = zip(cells, alignment, widths, strict=True)
        line = "  ".join(f"{printable(cell):{side}{width}}" for cell, side, width in fitted)
        console.say(line.rstrip(), style)


def _times_and_error(tool: dict[str, Any]) -> str:
    disabled = f"; disabled {tool['disabled_at']}" if tool["disabled"] else ""
    error = f"; last error: {tool['last_error']}" if tool["last_error"] else ""
    return f"  updated {tool['updated_at']} UTC{disabled}{error}"


def _ms(value: float) -> str:
    return f"{value:.2f}" if value < 1000 else f"{value:.0f}"
