"""A repository's SQLite database, which outlives the daemon."""

import sqlite3
import threading
from collections.abc import Iterable, Sequence
from os import PathLike
from typing import Any, Self

_SCHEMA = (
    """CREATE TABLE IF NOT EXISTS tool_health (
        tool_name TEXT PRIMARY KEY,
        call_count INTEGER,
        error_count INTEGER,
        last_error TEXT,
        disabled_at TEXT,
        updated_at TEXT)""",
    "CREATE TABLE IF NOT EXISTS schema_info (key TEXT PRIMARY KEY, value TEXT)",
    # What cannot be used is found out at the opening: a foreign table of that name, and by writing,
    # a database that is read-only.
    "SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at "
    "FROM tool_health LIMIT 0",
    "INSERT OR REPLACE INTO schema_info (key, value) VALUES ('schema_version', '1')",
)


class Database:
    """One SQLite connection for all threads, one statement at a time, each committed at its end.

    Every method may block (on the file, on another process's lock up to the busy timeout, on
    another thread's statement) and raises ``sqlite3.Error``; a failed statement leaves no trace.
    """

    def __init__(self, path: str | PathLike[str], busy_timeout_s: float = 5.0) -> None:
        self._lock = threading.Lock()
        self._connection = sqlite3.connect(path, timeout=busy_timeout_s, check_same_thread=False)
        try:
            self._connection.execute("PRAGMA journal_mode = WAL")
            self._connection.execute("PRAGMA synchronous = NORMAL")  # outlives a kill
            for statement in _SCHEMA:
                self.execute(statement)
        except BaseException:
            self._connection.close()
            raise

    def fetchall(self, sql: str, params: Sequence[Any] = ()) -> list[tuple[Any, ...]]:
        """Every row of the result."""
        with self._lock:
            return self._connection.execute(sql, params).fetchall()

    def fetchone(self, sql: str, params: Sequence[Any] = ()) -> tuple[Any, ...] | None:
        """The first row of the result, or None."""
        with self._lock:
            row: tuple[Any, ...] | None = self._connection.execute(sql, params).fetchone()
        return row

    def execute(self, sql: str, params: Sequence[Any] = ()) -> None:
        """Run and commit one statement."""
        with self._lock, self._connection:
            self._connection.execute(sql, params)

    def executemany(self, sql: str, rows: Iterable[Sequence[Any]]) -> None:
        """Run one statement once per parameter row, in order, and commit them together."""
        with self._lock, self._connection:
            self._connection.executemany(sql, rows)

    def close(self) -> None:
        """Close the connection, after the statement that runs; closing again does nothing."""
        with self._lock:
            self._connection.close()


class Repository:
    """A repository of the daemon: its database is ``db``. A context manager that closes it."""

    def __init__(self, path: str | PathLike[str]) -> None:
        self.db = Database(path)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Close the database."""
        self.db.close()
