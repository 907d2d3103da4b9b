"""Tool health tracking, the performance stats of the tools, and the process's thread census.

``ToolHealthTracker`` disables a tool that keeps failing and tries it again after a
cooldown, and counts what each call ran and how it ended, for ``status perf_stats``.
``thread_census_report`` measures the threads of the process against the budget its pools
allow, for the ``status`` answers.
"""

# The extension module in plain Python: the same names, the same behaviour. The benchmark measures
# the extension against it and the fuzzer compares the two step by step, so it is written to be
# plainly right first, and without waste second.

from __future__ import annotations

import json
import logging
import threading
import time
from collections.abc import Iterable
from dataclasses import dataclass
from datetime import datetime, timezone
from typing import TYPE_CHECKING, Any

from quorl_dendra.config import ToolsConfig
from quorl_dendra.tool_registry import TOOLS
from quorl_dendra.tool_schemas import is_slow_call
from quorl_dendra.utils.process import ThreadCensus, thread_census
from quorl_dendra.utils.timing import get_timing_collector

if TYPE_CHECKING:
    from quorl_dendra.repository import Repository

logger = logging.getLogger(__name__)

_SQLITE_TIMESTAMP = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
TOOL_USAGE_KEY = "tool_usage"

# (tool, action, outcome, whether a synonym was used)
_UsageKey = tuple[str, str | None, str, bool]


def _sqlite_time(epoch: float | None) -> str | None:
    """Epoch seconds as the text stored in the ``tool_health`` table."""
    if epoch is None:
        return None
    return datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)


def _epoch(text: str | None) -> float | None:
    """The epoch seconds of a stored ``tool_health`` timestamp (None if absent or unreadable)."""
    if not text:
        return None
    try:
        parsed = datetime.strptime(text, _SQLITE_TIMESTAMP)
    except ValueError:
        return None
    return parsed.replace(tzinfo=timezone.utc).timestamp()


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
    spec = TOOLS.get(tool)
    if spec is None:
        return False
    return action is None or spec.action(action) is not None


def _entries(stored: Any) -> list[Any]:
    """The entries of the stored usage document; anything but text holds none."""
    if not isinstance(stored, str):
        return []
    document: Any = json.loads(stored)
    if document == {}:
        return []
    if not isinstance(document, list):
        kind = type(document).__name__
        raise TypeError(f"the usage document must be an array, not {kind}")
    return document


def _rows(tool_name: str, entries: Iterable[tuple[_UsageKey, _Usage]]) -> list[dict[str, Any]]:
    """The usage rows made of a tool's own entries, most calls first."""
    rows: list[dict[str, Any]] = [
        {
            "action": action,
            "outcome": outcome,
            "alias_hit": alias_hit,
            "calls": usage.calls,
            "avg_ms": round(usage.total_ms / usage.timed_calls, 2) if usage.timed_calls else None,
            "slow": is_slow_call(tool_name, action),
        }
        for (_, action, outcome, alias_hit), usage in entries
    ]
    rows.sort(key=lambda row: (-row["calls"], str(row["action"]), row["outcome"], row["alias_hit"]))
    return rows


def _worst_first(
    states: dict[str, _ToolState], usage: dict[_UsageKey, _Usage]
) -> list[tuple[str, _ToolState]]:
    """Every tool that has a state or usage counts with its state, the worst first."""
    tools = dict(states)
    for tool_name, _, _, _ in usage:
        if tool_name not in tools:
            tools[tool_name] = _ToolState()
    return sorted(tools.items(), key=lambda item: (-item[1].error_count, -item[1].call_count))


def _record(name: str, state: _ToolState) -> dict[str, Any]:
    """A tool's record in the health summary, but for its usage rows."""
    return {
        "tool_name": name,
        "call_count": state.call_count,
        "error_count": state.error_count,
        "last_error": state.last_error,
        "disabled": state.disabled_at is not None,
        "disabled_at": _sqlite_time(state.disabled_at),
        "updated_at": _sqlite_time(state.updated_at),
    }


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
        self._state: dict[str, _ToolState] = {}
        self._dirty: set[str] = set()
        self._usage: dict[_UsageKey, _Usage] = {}
        self._usage_dirty = False
        self._load()
        self._load_usage()

    @property
    def limits(self) -> ToolsConfig:
        """The tools settings the tracker was made with."""
        return self._limits

    def _load(self) -> None:
        """Seed the state from the table. History is best-effort: losing it is harmless."""
        try:
            rows = self._repo.db.fetchall(f"SELECT {_TOOL_HEALTH_COLUMNS} FROM tool_health")
            removed = [(row[0],) for row in rows if TOOLS.get(row[0]) is None]
            if removed:
                self._repo.db.executemany("DELETE FROM tool_health WHERE tool_name = ?", removed)
        except Exception as error:
            logger.warning("Could not read the tool health history: %s", error)
            return
        with self._lock:
            for name, calls, errors, last_error, disabled_at, updated_at in rows:
                if TOOLS.get(name) is None:
                    continue
                self._state[name] = _ToolState(
                    call_count=int(calls or 0),
                    error_count=int(errors or 0),
                    last_error=last_error,
                    disabled_at=_epoch(disabled_at),
                    updated_at=_epoch(updated_at) or 0.0,
                )

    def _load_usage(self) -> None:
        """Seed the usage counts from ``schema_info``; unreadable or removed rows are left out."""
        try:
            row = self._repo.db.fetchone(
                "SELECT value FROM schema_info WHERE key = ?", (TOOL_USAGE_KEY,)
            )
            loaded: dict[_UsageKey, _Usage] = {
                (
                    str(entry["tool"]),
                    entry["action"],
                    str(entry["outcome"]),
                    bool(entry["alias_hit"]),
                ): _Usage(int(entry["calls"]), int(entry["timed_calls"]), float(entry["total_ms"]))
                for entry in _entries(None if row is None else row[0])
            }
        except Exception as error:
            logger.warning("Could not read the tool usage counts: %s", error)
            return
        kept = {key: usage for key, usage in loaded.items() if _known(key[0], key[1])}
        with self._lock:
            self._usage.update(kept)
            self._usage_dirty = len(kept) < len(loaded)

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
        key = (tool_name, action, outcome, alias_hit)
        with self._lock:
            usage = self._usage.get(key)
            if usage is None:
                usage = self._usage[key] = _Usage()
            usage.calls += 1
            if duration_ms is not None:
                usage.timed_calls += 1
                usage.total_ms += duration_ms
            self._usage_dirty = True

    def record_success(self, tool_name: str) -> None:
        """Record a successful tool call; it ends the tool's run of errors."""
        with self._lock:
            state = self._state.get(tool_name)
            if state is None:
                state = self._state[tool_name] = _ToolState()
            state.call_count += 1
            state.consecutive_errors = 0
            state.disabled_at = None
            state.updated_at = time.time()
            self._dirty.add(tool_name)

    def record_error(self, tool_name: str, error: str) -> None:
        """Record a failed tool call. May auto-disable if threshold exceeded."""
        with self._lock:
            state = self._state.get(tool_name)
            if state is None:
                state = self._state[tool_name] = _ToolState()
            state.call_count += 1
            state.error_count += 1
            state.consecutive_errors += 1
            state.last_error = error[:500] if error else ""
            state.updated_at = time.time()
            if state.consecutive_errors >= self._limits.disable_after_errors:
                state.disabled_at = state.updated_at
            self._dirty.add(tool_name)

    @property
    def cooldown_s(self) -> float:
        """Seconds a disabled tool stays disabled."""
        return self._limits.disable_cooldown_s

    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]:
        """Check if a tool is currently disabled."""
        with self._lock:
            state = self._state.get(tool_name)
            if state is None or state.disabled_at is None:
                return False, None
            now = time.time()
            if now - state.disabled_at >= self.cooldown_s:
                state.consecutive_errors = 0
                state.disabled_at = None
                state.updated_at = now
                self._dirty.add(tool_name)
                return False, None
            return True, state.last_error

    def get_health_summary(self) -> list[dict[str, Any]]:
        """Get health summary for all tracked tools.

        Returns:
            One record per tool, the worst first, with ``usage``: its calls by action, outcome
            and synonym use (most calls first), each with the mean time its handler took and
            whether the action is slow by nature.
        """
        with self._lock:
            return [
                {**_record(name, state), "usage": self._usage_rows(name)}
                for name, state in _worst_first(self._state, self._usage)
            ]

    def _usage_rows(self, tool_name: str) -> list[dict[str, Any]]:
        """A tool's usage counts as ``perf_stats`` shows them, most calls first (under the lock)."""
        return _rows(
            tool_name, [entry for entry in self._usage.items() if entry[0][0] == tool_name]
        )

    @property
    def has_unsaved_changes(self) -> bool:
        """Whether :meth:`flush` has anything to write."""
        with self._lock:
            return bool(self._dirty) or self._usage_dirty

    def flush(self) -> int:
        """Write what changed (blocking: call from a thread that may wait)."""
        return self._flush_health() + self._flush_usage()

    def _flush_usage(self) -> int:
        """Write the usage counts when they changed; how many rows the document holds."""
        with self._lock:
            if not self._usage_dirty:
                return 0
            entries = [
                {
                    "tool": tool,
                    "action": action,
                    "outcome": outcome,
                    "alias_hit": alias_hit,
                    "calls": usage.calls,
                    "timed_calls": usage.timed_calls,
                    "total_ms": round(usage.total_ms, 3),
                }
                for (tool, action, outcome, alias_hit), usage in self._usage.items()
            ]
            self._usage_dirty = False  # last: a snapshot that fails leaves the mark
        try:
            self._repo.db.execute(
                "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                (TOOL_USAGE_KEY, json.dumps(entries, separators=(",", ":"))),
            )
        except BaseException:
            with self._lock:
                self._usage_dirty = True
            raise
        return len(entries)

    def _flush_health(self) -> int:
        """Write the changed ``tool_health`` rows; how many were written."""
        with self._lock:
            names = sorted(self._dirty)
            self._dirty.clear()
            try:
                rows = [
                    (
                        name,
                        state.call_count,
                        state.error_count,
                        state.last_error,
                        _sqlite_time(state.disabled_at),
                        _sqlite_time(state.updated_at),
                    )
                    for name in names
                    if (state := self._state.get(name)) is not None
                ]
            except BaseException:
                self._dirty.update(names)
                raise
        if not rows:
            return 0
        try:
            self._repo.db.executemany(
                f"""INSERT INTO tool_health ({_TOOL_HEALTH_COLUMNS})
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at""",
                rows,
            )
        except BaseException:
            with self._lock:
                self._dirty.update(names)
            raise
        return len(rows)


def handle_get_tool_performance_stats() -> dict[str, Any]:
    """Handle get_tool_performance_stats tool.

    Returns:
        Performance metrics for all MCP tools.
    """
    return {
        "tools": [
            {
                "name": stats["name"],
                "count": stats["count"],
                "avg_ms": stats["avg_ms"],
                "p95_ms": stats["p95_ms"],
                "min_ms": stats["min_ms"],
                "max_ms": stats["max_ms"],
                "errors": stats["errors"],
            }
            for stats in get_timing_collector().get_all_stats()
        ]
    }


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
    if census is None:
        census = thread_census()
    report: dict[str, Any] = {}
    if census.os_threads is not None:
        report["os"] = census.os_threads
    report["python"] = census.python_total
    report["python_by_name"] = dict(census.python_threads)
    report["budget"] = budget
    threads = census.os_threads if census.os_threads is not None else census.python_total
    if threads > budget:
        report["warning"] = (
            f"The process holds {threads} threads, more than the {budget} its pools allow: "
            "threads are piling up. A thread that ran the local embedding model keeps a team of "
            "torch threads, as many as DENDRA_EMBED_THREADS allows (0 leaves torch's own size)."
        )
    return report
