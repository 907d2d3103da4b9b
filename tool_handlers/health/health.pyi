"""Tool health tracking, the performance stats of the tools, and the process's thread census.

``ToolHealthTracker`` disables a tool that keeps failing and tries it again after a
cooldown, and counts what each call ran and how it ended, for ``status perf_stats``.
``thread_census_report`` measures the threads of the process against the budget its pools
allow, for the ``status`` answers.
"""

import json as json
import logging as logging
import threading as threading
import time as time
from collections.abc import Iterable, Sequence
from dataclasses import dataclass as dataclass
from datetime import datetime as datetime, timezone as timezone
from typing import (
    TYPE_CHECKING as TYPE_CHECKING,
    Any as Any,
    NotRequired,
    Protocol,
    TypeAlias,
    TypedDict,
    type_check_only,
)

from quorl_dendra.config import ToolsConfig as ToolsConfig
from quorl_dendra.tool_registry import TOOLS as TOOLS
from quorl_dendra.tool_schemas import is_slow_call as is_slow_call
from quorl_dendra.utils.process import ThreadCensus as ThreadCensus, thread_census as thread_census
from quorl_dendra.utils.timing import get_timing_collector as get_timing_collector

# The module reads its names at each use, so a test may replace any of them.
logger: logging.Logger
_SQLITE_TIMESTAMP: str = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS: str = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
TOOL_USAGE_KEY: str = "tool_usage"
_UsageKey: TypeAlias = tuple[str, str | None, str, bool]

# For type checkers only: import these under `if TYPE_CHECKING:`, the module does not have them when it runs. The results
# are annotated as the module annotates them, `dict[str, Any]`; the TypedDicts name what is in them:
# `cast("list[HealthRecord]", tracker.get_health_summary())`, or `row: "UsageRow" = record["usage"][0]`.

@type_check_only
class Database(Protocol):
    """The repository's database object: four statements, each of which may block and may raise."""

    def fetchall(self, sql: str, /) -> Iterable[Sequence[Any]]: ...
    def fetchone(self, sql: str, params: tuple[str], /) -> Sequence[Any] | None: ...
    def execute(self, sql: str, params: tuple[str, str], /) -> object: ...
    def executemany(self, sql: str, rows: list[tuple[Any, ...]], /) -> object: ...

@type_check_only
class Repository(Protocol):
    """A repository of the daemon: the tracker uses its database object only."""

    @property
    def db(self) -> Database: ...

@type_check_only
class UsageRow(TypedDict):
    """The calls of one tool with the same action, outcome and use of synonyms."""

    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    avg_ms: float | None  # None where no call came with a time
    slow: bool

@type_check_only
class HealthRecord(TypedDict):
    """What the health summary says of one tool. Times are UTC, ``%Y-%m-%d %H:%M:%S``."""

    tool_name: str
    call_count: int
    error_count: int
    last_error: str | None
    disabled: bool
    disabled_at: str | None
    updated_at: str
    usage: list[UsageRow]

@type_check_only
class ToolPerformance(TypedDict):
    """What the timing collector measured of one tool."""

    name: str
    count: int
    avg_ms: float
    p95_ms: float
    min_ms: float
    max_ms: float
    errors: int

@type_check_only
class PerformanceReport(TypedDict):
    """The answer of the tool ``get_tool_performance_stats``."""

    tools: list[ToolPerformance]

@type_check_only
class ThreadCensusReport(TypedDict):
    """The threads of the process against their budget."""

    os: NotRequired[int]  # left out where the platform cannot count
    python: int
    python_by_name: dict[str, Any]
    budget: int
    warning: NotRequired[str]  # above the budget only

def _sqlite_time(epoch: float | None) -> str | None:
    """Epoch seconds as the text stored in the ``tool_health`` table."""

def _epoch(text: str | None) -> float | None:
    """The epoch seconds of a stored ``tool_health`` timestamp (None if absent or unreadable)."""

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

    _repo: Repository
    _limits: ToolsConfig
    _lock: threading.Lock
    _state: dict[str, _ToolState]
    _dirty: set[str]
    _usage: dict[_UsageKey, _Usage]
    _usage_dirty: bool

    def __init__(self, repository: Repository, limits: ToolsConfig | None = None) -> None:
        """Create the tracker and read the saved history (blocking: call from a thread).

        Args:
            repository: Where the history is kept.
            limits: When a failing tool is disabled, and for how long; None takes the defaults.
        """

    @property
    def limits(self) -> ToolsConfig:
        """The tools settings the tracker was made with."""

    def _load(self) -> None:
        """Seed the state from the table. History is best-effort: losing it is harmless."""

    def _load_usage(self) -> None:
        """Seed the usage counts from ``schema_info``; unreadable or removed rows are left out."""

    def record_call(
        self, tool_name: str, action: str | None, outcome: str, *, alias_hit: bool, duration_ms: float | None
    ) -> None:
        """Count one call: the action it ran, how it ended, and whether it used a synonym."""

    def record_success(self, tool_name: str) -> None:
        """Record a successful tool call; it ends the tool's run of errors."""

    def record_error(self, tool_name: str, error: str) -> None:
        """Record a failed tool call. May auto-disable if threshold exceeded."""

    @property
    def cooldown_s(self) -> float:
        """Seconds a disabled tool stays disabled."""

    # `if tracker.is_disabled(name):` is always true: unpack the answer, `disabled, error = tracker.is_disabled(name)`.
    # `error` is None for an enabled tool, else its last error: at most 500 characters, empty for an error without text,
    # None where the stored history has none.
    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]:
        """Check if a tool is currently disabled."""

    def get_health_summary(self) -> list[dict[str, Any]]:  # HealthRecord
        """Get health summary for all tracked tools.

        Returns:
            One record per tool, the worst first, with ``usage``: its calls by action, outcome
            and synonym use (most calls first), each with the mean time its handler took and
            whether the action is slow by nature.
        """

    def _usage_rows(self, tool_name: str) -> list[dict[str, Any]]:  # UsageRow
        """A tool's usage counts as ``perf_stats`` shows them, most calls first (under the lock)."""

    @property
    def has_unsaved_changes(self) -> bool:
        """Whether :meth:`flush` has anything to write."""

    def flush(self) -> int:
        """Write what changed (blocking: call from a thread that may wait)."""

    def _flush_usage(self) -> int:
        """Write the usage counts when they changed; how many rows the document holds."""

    def _flush_health(self) -> int:
        """Write the changed ``tool_health`` rows; how many were written."""

def handle_get_tool_performance_stats() -> dict[str, Any]:  # PerformanceReport
    """Handle get_tool_performance_stats tool.

    Returns:
        Performance metrics for all MCP tools.
    """

def thread_census_report(budget: int, census: ThreadCensus | None = None) -> dict[str, Any]:  # ThreadCensusReport
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
