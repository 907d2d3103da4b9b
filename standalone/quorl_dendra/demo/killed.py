"""A process to be killed, and one that looks what was kept: ``... demo.killed work|look FILE``.

Both print one line of JSON. ``work`` then waits until it is killed, or its standard input ends.
"""

import json
import sys

from quorl_dendra.config import ToolsConfig
from quorl_dendra.repository import Repository
from quorl_dendra.tool_handlers.health import ToolHealthTracker

_LIMITS = ToolsConfig(disable_after_errors=3, disable_cooldown_s=3600.0)
_FLUSHED, _UNSAVED, _ERROR = 40, 7, "no route to host"


def main() -> None:
    """Do what the process's arguments ask, with the database they name."""
    part, file = sys.argv[1:]
    with Repository(file) as repository:
        tracker = ToolHealthTracker(repository, _LIMITS)
        if part == "look":
            _look(tracker)
        else:
            _work(tracker)


def _work(tracker: ToolHealthTracker) -> None:
    for _ in range(_LIMITS.disable_after_errors):
        tracker.record_error("fetch", _ERROR)
    _count_calls(tracker, _FLUSHED)
    tracker.flush()
    _count_calls(tracker, _UNSAVED)
    print(json.dumps({"flushed": _FLUSHED, "unsaved": _UNSAVED, "error": _ERROR}), flush=True)
    sys.stdin.read()


def _count_calls(tracker: ToolHealthTracker, number: int) -> None:
    for _ in range(number):
        tracker.record_success("search")
        tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=1.5)


def _look(tracker: ToolHealthTracker) -> None:
    disabled, error = tracker.is_disabled("fetch")
    calls = {tool["tool_name"]: tool["call_count"] for tool in tracker.get_health_summary()}
    print(json.dumps({"calls": calls.get("search", 0), "error": error if disabled else None}))


if __name__ == "__main__":
    main()
