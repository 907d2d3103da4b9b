"""A wrong use of every public name of the module, each of which a strict type checker must refuse.

Nothing here is meant to run. An ignored rule that no longer applies is an error (pyproject.toml), so a stub that
begins to allow one of these shows.
"""

from collections.abc import Sequence
from typing import TYPE_CHECKING, Any, cast

from quorl_dendra.config import ToolsConfig
from quorl_dendra.tool_handlers import health
from quorl_dendra.tool_handlers.health import ToolHealthTracker
from quorl_dendra.utils.process import ThreadCensus

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


class ReadOnlyDatabase:
    """Lacks what writes."""

    def fetchall(self, sql: str) -> list[tuple[Any, ...]]: ...
    def fetchone(self, sql: str, params: Sequence[str]) -> tuple[Any, ...] | None: ...


class AwaitedDatabase(ReadOnlyDatabase):
    """Its answers must be awaited, which the module does not do."""

    async def fetchone(self, sql: str, params: Sequence[str]) -> tuple[Any, ...] | None: ...  # pyright: ignore[reportIncompatibleMethodOverride]
    async def execute(self, sql: str, params: Sequence[str]) -> None: ...
    async def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None: ...


class ReadOnlyRepository:
    db: ReadOnlyDatabase


def refuse(tracker: ToolHealthTracker, repository: "Repository", record: "HealthRecord", row: "UsageRow") -> None:
    health.unheard_of()  # pyright: ignore[reportAttributeAccessIssue, reportUnknownMemberType]
    health.logger.shout("late")  # pyright: ignore[reportAttributeAccessIssue, reportUnknownMemberType]
    key: int = health.TOOL_USAGE_KEY  # pyright: ignore[reportAssignmentType]
    health._Usage(count=key)  # pyright: ignore[reportCallIssue, reportPrivateUsage]
    health._ToolState(disabled_at="today")  # pyright: ignore[reportArgumentType, reportPrivateUsage]

    ToolHealthTracker()  # pyright: ignore[reportCallIssue]
    ToolHealthTracker(object())  # pyright: ignore[reportArgumentType]
    ToolHealthTracker(ReadOnlyRepository())  # pyright: ignore[reportArgumentType]
    ToolHealthTracker(repository, {"disable_after_errors": 3})  # pyright: ignore[reportArgumentType]
    ToolHealthTracker(repository, ToolsConfig(), None)  # pyright: ignore[reportCallIssue]
    database: Database = AwaitedDatabase()  # pyright: ignore[reportAssignmentType]
    opened: Repository = ReadOnlyRepository()  # pyright: ignore[reportAssignmentType]
    print(database, opened)

    tracker.limits = ToolsConfig()  # pyright: ignore[reportAttributeAccessIssue]
    tracker.cooldown_s = 1.0  # pyright: ignore[reportAttributeAccessIssue]
    tracker.has_unsaved_changes = False  # pyright: ignore[reportAttributeAccessIssue]
    del tracker.limits  # pyright: ignore[reportAttributeAccessIssue]
    tracker.cooldown_s()  # pyright: ignore[reportCallIssue]
    print(tracker._usage["search"])  # pyright: ignore[reportArgumentType]

    tracker.record_call("search", "text", "ok", False, 1.5)  # pyright: ignore[reportCallIssue]
    tracker.record_call("search", "text", "ok", alias_hit=False)  # pyright: ignore[reportCallIssue]
    tracker.record_call("search", "text", None, alias_hit=False, duration_ms=None)  # pyright: ignore[reportArgumentType]
    tracker.record_success(None)  # pyright: ignore[reportArgumentType]
    tracker.record_error("search")  # pyright: ignore[reportCallIssue]
    tracker.record_error("search", OSError("gone"))  # pyright: ignore[reportArgumentType]
    answer: bool = tracker.is_disabled("search")  # pyright: ignore[reportAssignmentType]
    tracker.is_disabled("search")[1].upper()  # pyright: ignore[reportOptionalMemberAccess]
    tracker.flush(True)  # pyright: ignore[reportCallIssue]
    tracker.get_health_summary()["search"]  # pyright: ignore[reportArgumentType, reportCallIssue]
    print(answer)

    record["consecutive_errors"] += 1  # pyright: ignore[reportGeneralTypeIssues]
    row["avg_ms"] += 1.0  # pyright: ignore[reportOperatorIssue]
    report: PerformanceReport = {"tools": [{"name": "search"}]}  # pyright: ignore[reportAssignmentType]
    performance: ToolPerformance = report["tools"][0]["errors"]  # pyright: ignore[reportAssignmentType]
    health.handle_get_tool_performance_stats("search")  # pyright: ignore[reportCallIssue]
    health.thread_census_report()  # pyright: ignore[reportCallIssue]
    health.thread_census_report("many")  # pyright: ignore[reportArgumentType]
    health.thread_census_report(4, {"os_threads": 5})  # pyright: ignore[reportArgumentType]
    threads = cast("ThreadCensusReport", health.thread_census_report(4, ThreadCensus(None, 5, {})))
    print(performance, threads["warning"])  # pyright: ignore[reportTypedDictNotRequiredAccess]
