"""Tool health tracking, the performance stats of the tools, and the process's thread census."""

import logging
import threading
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final, NotRequired, Protocol, TypeAlias, TypedDict

from quorl_dendra.config import ToolsConfig
from quorl_dendra.utils.process import ThreadCensus

logger: Final[logging.Logger]
_SQLITE_TIMESTAMP: Final[str]
_TOOL_HEALTH_COLUMNS: Final[str]
TOOL_USAGE_KEY: Final[str]
_UsageKey: TypeAlias = tuple[str, str | None, str, bool]

# What the module asks of its host. These names exist for type checkers only.

class Database(Protocol):
    """The repository's database object: four statements, each of which may block and may raise."""

    def fetchall(self, sql: str, /) -> Iterable[Sequence[Any]]: ...
    def fetchone(self, sql: str, params: tuple[str], /) -> Sequence[Any] | None: ...
    def execute(self, sql: str, params: tuple[str, str], /) -> object: ...
    def executemany(self, sql: str, rows: list[tuple[Any, ...]], /) -> object: ...

class Repository(Protocol):
    """A repository of the daemon: the tracker uses its database object only."""

    @property
    def db(self) -> Database: ...

class Census(Protocol):
    """A census of the process's threads, such as `ThreadCensus`."""

    @property
    def os_threads(self) -> int | None: ...
    @property
    def python_total(self) -> int: ...
    @property
    def python_threads(self) -> Mapping[str, Any]: ...

# The reports' shapes, for type checkers only.

class UsageRow(TypedDict):
    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    avg_ms: float | None
    slow: bool

class HealthRecord(TypedDict):
    tool_name: str
    call_count: int
    error_count: int
    last_error: str | None
    disabled: bool
    disabled_at: str | None
    updated_at: str
    usage: list[UsageRow]

class ToolPerformance(TypedDict):
    name: str
    count: int
    avg_ms: float
    p95_ms: float
    min_ms: float
    max_ms: float
    errors: int

class PerformanceReport(TypedDict):
    tools: list[ToolPerformance]

class ThreadCensusReport(TypedDict):
    os: NotRequired[int]
    python: int
    python_by_name: dict[str, Any]
    budget: int
    warning: NotRequired[str]

def _sqlite_time(epoch: float | None) -> str | None: ...
def _epoch(text: str | None) -> float | None: ...
@dataclass
class _ToolState:
    call_count: int = 0
    error_count: int = 0
    last_error: str | None = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0

@dataclass
class _Usage:
    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0

def _known(tool: str, action: str | None) -> bool: ...

class ToolHealthTracker:
    _repo: Repository
    _limits: ToolsConfig
    _lock: threading.Lock
    _state: dict[str, _ToolState]
    _dirty: set[str]
    _usage: dict[_UsageKey, _Usage]
    _usage_dirty: bool

    def __init__(self, repository: Repository, limits: ToolsConfig | None = None) -> None: ...
    @property
    def limits(self) -> ToolsConfig: ...
    def _load(self) -> None: ...
    def _load_usage(self) -> None: ...
    def record_call(
        self,
        tool_name: str,
        action: str | None,
        outcome: str,
        *,
        alias_hit: bool,
        duration_ms: float | None,
    ) -> None: ...
    def record_success(self, tool_name: str) -> None: ...
    def record_error(self, tool_name: str, error: str) -> None: ...
    @property
    def cooldown_s(self) -> float: ...
    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]: ...
    def get_health_summary(self) -> list[HealthRecord]: ...
    def _usage_rows(self, tool_name: str) -> list[UsageRow]: ...
    @property
    def has_unsaved_changes(self) -> bool: ...
    def flush(self) -> int: ...
    def _flush_usage(self) -> int: ...
    def _flush_health(self) -> int: ...

def handle_get_tool_performance_stats() -> PerformanceReport: ...
def thread_census_report(budget: int, census: ThreadCensus | None = None) -> ThreadCensusReport: ...
