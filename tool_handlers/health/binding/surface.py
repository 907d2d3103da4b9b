# The module as Python sees it. The build compiles this text, with annotations held as text (scripts/embed-surface); at
# import, the code is run in the module's namespace. So imports with their errors, constants, records, signatures and
# documentation are the runtime's own.
#
# `...` stands for the native function that takes its place (see python/function.hpp). What the runtime does as well is
# Python here.

"""Tool health tracking, the performance stats of the tools, and the process's thread census.

``ToolHealthTracker`` disables a tool that keeps failing and tries it again after a
cooldown, and counts what each call ran and how it ended, for ``status perf_stats``.
``thread_census_report`` measures the threads of the process against the budget its pools
allow, for the ``status`` answers.
"""

import json
import logging
import threading
import time
from dataclasses import dataclass
from datetime import datetime, timezone

TYPE_CHECKING = False
from typing import Any

from quorl_dendra.config import ToolsConfig
from quorl_dendra.tool_registry import TOOLS
from quorl_dendra.tool_schemas import is_slow_call
from quorl_dendra.utils.process import ThreadCensus, thread_census
from quorl_dendra.utils.timing import get_timing_collector

logger = logging.getLogger(__name__)

_SQLITE_TIMESTAMP = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
TOOL_USAGE_KEY = "tool_usage"

# (tool, action, outcome, whether a synonym was used)
_UsageKey = tuple[str, str | None, str, bool]


def _sqlite_time(epoch: float | None) -> str | None:
    """Epoch seconds as the text stored in the ``tool_health`` table."""
    return (...).call(epoch)


def _epoch(text: str | None) -> float | None:
    """The epoch seconds of a stored ``tool_health`` timestamp (None if absent or unreadable)."""
    return (...).call(text)


@dataclass
class _ToolState:
    """What is known about one tool's health.

    ``error_count`` is every error the tool has had; ``consecutive_errors`` the run of them since
    its last success, which disables it (kept in memory only: a restart starts a new run, and a
    disabled tool stays disabled by ``disabled_at``).
    """

    call_count: int = 0
    error_count: int = 0
    last_error: str | None = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0


@dataclass
class _Usage:
    """How many calls one usage key counts, and the time their handlers took."""

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0


def _known(tool: str, action: str | None) -> bool:
    """Whether a usage row names a tool, and an action of it, that the registry still has."""
    return (...).call(tool, action)


class ToolHealthTracker:
    """Track tool call success/failure and auto-disable unhealthy tools.

    Every tool call asks :meth:`is_disabled` first and reports its outcome afterwards, so
    none of that may wait for the database: a long write anywhere (an index batch, a
    swap, ``ANALYZE``) would hold every call, and on the event loop every repository's
    worker, behind it. The state therefore lives in memory. The ``tool_health`` table is
    its mirror: it seeds the state when the tracker is created, and :meth:`flush` writes
    what changed, from a thread that may wait.

    A tool that fails ``tools.disable_after_errors`` calls in a row is disabled and is tried
    again after ``tools.disable_cooldown_s`` seconds (the ``tools`` section of the
    configuration). The agent is told when a tool is disabled.

    Thread safety: every method may be called from any thread.
    """

    def __init__(self, repository: Repository, limits: ToolsConfig | None = None) -> None:
        """Create the tracker and read the saved history (blocking: call from a thread).

        Args:
            repository: Where the history is kept.
            limits: When a failing tool is disabled, and for how long; None takes the defaults.
        """
        self._repo = repository
        self._limits = limits if limits is not None else ToolsConfig()
        self._lock = threading.Lock()
        self._state = {}
        self._dirty = set()
        self._usage = {}
        self._usage_dirty = False
        self._load()
        self._load_usage()

    @property
    def limits(self) -> ToolsConfig:
        """The tools settings the tracker was made with."""
        return self._limits

    def _load(self) -> None:
        """Seed the state from the table. History is best-effort: losing it is harmless."""
        return (...).call(self)

    def _load_usage(self) -> None:
        """Seed the usage counts from ``schema_info``; unreadable or removed rows are left out."""
        return (...).call(self)

    def record_call(
        self,
        tool_name: str,
        action: str | None,
        outcome: str,
        *,
        alias_hit: bool,
        duration_ms: float | None,
    ) -> None:
        """Count one call: the action it ran, how it ended, and whether it used a synonym."""
        return (...).call(self, tool_name, action, outcome, alias_hit, duration_ms)

    def record_success(self, tool_name: str) -> None:
        """Record a successful tool call; it ends the tool's run of errors."""
        return (...).call(self, tool_name)

    def record_error(self, tool_name: str, error: str) -> None:
        """Record a failed tool call. May auto-disable if threshold exceeded."""
        return (...).call(self, tool_name, error)

    @property
    def cooldown_s(self) -> float:
        """Seconds a disabled tool stays disabled."""
        return self._limits.disable_cooldown_s

    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]:
        """Check if a tool is currently disabled."""
        return (...).call(self, tool_name)

    def get_health_summary(self) -> list[dict[str, Any]]:
        """Get health summary for all tracked tools.

        Returns:
            One record per tool, the worst first, with ``usage``: its calls by action, outcome
            and synonym use (most calls first), each with the mean time its handler took and
            whether the action is slow by nature.
        """
        return (...).call(self)

    def _usage_rows(self, tool_name: str) -> list[dict[str, Any]]:
        """A tool's usage counts as ``perf_stats`` shows them, most calls first (under the lock)."""
        return (...).call(self, tool_name)

    @property
    def has_unsaved_changes(self) -> bool:
        """Whether :meth:`flush` has anything to write."""
        return (...).call(self)

    def flush(self) -> int:
        """Write what changed (blocking: call from a thread that may wait)."""
        return self._flush_health() + self._flush_usage()

    def _flush_usage(self) -> int:
        """Write the usage counts when they changed; how many rows the document holds."""
        return (...).call(self)

    def _flush_health(self) -> int:
        """Write the changed ``tool_health`` rows; how many were written."""
        return (...).call(self)


def handle_get_tool_performance_stats() -> dict[str, Any]:
    """Handle get_tool_performance_stats tool.

    Returns:
        Performance metrics for all MCP tools.
    """
    return (...).call()


def thread_census_report(budget: int, census: ThreadCensus | None = None) -> dict[str, Any]:
    """The process's threads for a status answer, measured against what its pools allow.

    ``os`` is the operating system's count (left out where the platform cannot count), ``python``
    the threads Python knows, ``python_by_name`` those by name prefix (the threads of one pool
    share it) and ``budget`` the most the pools allow. Above the budget ``warning`` says so: it is
    measured against the operating system's count, which also sees the threads Python does not
    know, such as the team of threads torch keeps for every thread that ran the embedding model;
    without that count, against Python's.

    Blocking unless a census is given: taking one reads the operating system's count.

    Args:
        budget: The most threads the process's pools allow.
        census: A census taken already; None takes one now.

    Returns:
        The report.
    """
    return (...).call(budget, census)
