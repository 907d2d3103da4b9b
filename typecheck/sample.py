"""Every public name of the module, used as its stub allows, with a repository of the host's own making.

Strict type checkers must accept this file, and it runs.
"""

import sqlite3
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, assert_type, cast

from quorl_dendra.config import ToolsConfig
from quorl_dendra.tool_handlers import health
from quorl_dendra.tool_handlers.health import ToolHealthTracker
from quorl_dendra.utils.process import ThreadCensus
from quorl_dendra.utils.timing import TimingCollector

if TYPE_CHECKING:
    from quorl_dendra.tool_handlers.health import (
        Database,
        HealthRecord,
        PerformanceReport,
        Repository,
        ThreadCensusReport,
        ToolPerformance,
        UsageRow,
    )

Row = Sequence[str | float | None]


class OwnDatabase:
    """A database object that knows nothing of the module: its own parameter names, wider types, more methods."""

    def __init__(self) -> None:
        self._connection = sqlite3.connect(":memory:")
        self.execute(
            "CREATE TABLE tool_health"
            "(tool_name UNIQUE, call_count, error_count, last_error, disabled_at, updated_at)"
        )
        self.execute("CREATE TABLE schema_info (key UNIQUE, value)")

    def fetchall(self, statement: str, values: Row = ()) -> list[sqlite3.Row]:
        return self._connection.execute(statement, values).fetchall()

    def fetchone(self, statement: str, values: Row = ()) -> sqlite3.Row | None:
        row: sqlite3.Row | None = self._connection.execute(statement, values).fetchone()
        return row

    def execute(self, statement: str, values: Row = (), *, retries: int = 0) -> sqlite3.Cursor:
        return self._connection.execute(statement, values)

    def executemany(self, statement: str, rows: Sequence[Row]) -> int:
        return self._connection.executemany(statement, rows).rowcount

    def close(self) -> None:
        self._connection.close()


@dataclass(frozen=True)
class FrozenRepository:
    db: OwnDatabase


class LazyRepository:
    def __init__(self, opened: OwnDatabase) -> None:
        self._opened = opened

    @property
    def db(self) -> OwnDatabase:
        return self._opened


class LoudTracker(ToolHealthTracker):
    """Overrides take effect: ``flush`` and the summary call the tracker's methods through the object."""

    def record_error(self, tool_name: str, error: str) -> None:
        super().record_error(tool_name, error.upper())

    def flush(self) -> int:
        return super().flush()


def health_summary(tracker: ToolHealthTracker) -> list[dict[str, Any]]:
    """A daemon's functions may pass the reports on as the plain dictionaries that they are."""
    return tracker.get_health_summary()


def performance_stats() -> dict[str, Any]:
    return health.handle_get_tool_performance_stats()


def threads(budget: int) -> dict[str, Any]:
    return health.thread_census_report(budget, ThreadCensus(None, 5, {"worker": 5}))


def use_tracker(tracker: ToolHealthTracker) -> "list[HealthRecord]":
    """Or name what is in them."""
    assert_type(tracker.limits, ToolsConfig)
    assert_type(tracker.cooldown_s, float)
    disabled, last_error = tracker.is_disabled("search")
    assert_type(disabled, bool)
    assert_type(last_error, str | None)
    tracker.record_success("search")
    tracker.record_error("search", "no such file")
    tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=1.5)
    tracker.record_call("fetch", None, outcome="error", alias_hit=True, duration_ms=None)
    if tracker.has_unsaved_changes:
        assert_type(tracker.flush(), int)
    return cast("list[HealthRecord]", health_summary(tracker))


def describe(record: "HealthRecord") -> str:
    since = record["disabled_at"] if record["disabled"] else None
    return f"{record['tool_name']}: {record['call_count']} calls, disabled since {since}"


def mean_ms(row: "UsageRow") -> float:
    return row["avg_ms"] if row["avg_ms"] is not None else 0.0


def slowest(tools: "list[ToolPerformance]") -> str | None:
    return max(tools, key=lambda tool: tool["p95_ms"])["name"] if tools else None


def warning_of(report: "ThreadCensusReport") -> str | None:
    report.get("os", report["python"])
    return report.get("warning")


def never_slow(tool: str, action: str | None) -> bool:
    return False


def replace_names() -> None:
    """As a test does: the module looks these up at each use."""
    health.TOOLS = {}
    health.is_slow_call = never_slow
    health.thread_census = lambda: ThreadCensus(None, 1, {})
    health.get_timing_collector = TimingCollector
    health.logger = health.logging.getLogger("other")


def main() -> None:
    database: Database = OwnDatabase()
    repositories: list[Repository] = [FrozenRepository(OwnDatabase()), LazyRepository(OwnDatabase())]
    make: Callable[[Repository], ToolHealthTracker] = ToolHealthTracker
    for repository in repositories:
        print(*map(describe, use_tracker(make(repository))), sep="\n")
    own = LazyRepository(OwnDatabase())
    records = use_tracker(LoudTracker(own, limits=ToolsConfig(1, 5.0)))
    print([mean_ms(row) for record in records for row in record["usage"]])
    print(own.db.fetchone("SELECT value FROM schema_info WHERE key = ?", (health.TOOL_USAGE_KEY,)))
    rows: list[UsageRow] = health_summary(LoudTracker(own))[0]["usage"]
    print(len(rows))
    report = cast("PerformanceReport", performance_stats())
    print(slowest(report["tools"]))
    print(warning_of(cast("ThreadCensusReport", health.thread_census_report(budget=1000))))
    print(warning_of(cast("ThreadCensusReport", threads(4))))
    replace_names()
    health.logger.info("done: %r", database)
    for done in (database, own.db, *(repository.db for repository in repositories)):
        assert isinstance(done, OwnDatabase)
        done.close()


if __name__ == "__main__":
    main()
