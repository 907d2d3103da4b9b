"""What the tests share: a fake database, a clock that stands still, a tracker over both."""

from __future__ import annotations

import dataclasses
import os
import subprocess
import sys
import tempfile
import threading
import unittest
from collections.abc import Callable
from pathlib import Path
from typing import Any
from unittest import mock

from quorl_dendra.repository import Repository
from quorl_dendra.tool_handlers import health
from quorl_dendra.tool_registry import Action, ToolSpec

NOW = 1_700_000_000.0
NOW_TEXT = "2023-11-14 22:13:20"
PATIENCE_S = 60  # for what comes at once unless something is broken


class FakeDatabase:
    """A database that keeps each call, answers from memory, and calls ``hook(operation)``."""

    def __init__(self, rows: Any = (), document: Any = None) -> None:
        self.db = self  # it is its own repository
        self.rows = list(rows)
        self.answer: Any = None if document is None else (document,)
        self.calls: list[tuple[Any, ...]] = []
        self.hook: Callable[[str], Any] = lambda operation: None

    def _call(self, *call: Any) -> None:
        self.calls.append(call)
        self.hook(call[0])

    def fetchall(self, sql: str) -> Any:
        self._call("fetchall", sql)
        return self.rows

    def fetchone(self, sql: str, params: Any) -> Any:
        self._call("fetchone", sql, params)
        return self.answer

    def execute(self, sql: str, params: Any) -> None:
        self._call("execute", sql, params)

    def executemany(self, sql: str, rows: Any) -> None:
        self._call("executemany", sql, rows)


class Clock:
    """The wall clock; it moves only when it is told to, and calls ``hook()`` when it is read."""

    now: Any = NOW
    hook: Callable[[], Any] = staticmethod(lambda: None)

    def __call__(self) -> Any:
        self.hook()
        return self.now


class TrackerTest(unittest.TestCase):
    """A test with a clock, the tools a (with the actions x, which is slow, and y), b and c, and
    ``warning`` in place of the logger's method."""

    def setUp(self) -> None:
        self.clock = Clock()
        self.enterContext(mock.patch("time.time", self.clock))
        self.warning = self.enterContext(mock.patch.object(health.logger, "warning"))
        actions = (Action("x", slow=True), Action("y"))
        tools = {"a": ToolSpec("a", actions), "b": ToolSpec("b"), "c": ToolSpec("c")}
        self.enterContext(mock.patch.dict(health.TOOLS, tools, clear=True))
        self.db = FakeDatabase()

    def make(self, rows: Any = (), document: Any = None, limits: Any = None) -> Any:
        """A tracker with that history; ``self.db`` is its database and has no calls yet."""
        self.db = FakeDatabase(rows, document)
        tracker = health.ToolHealthTracker(self.db, limits)
        self.db.calls.clear()
        return tracker

    def repository(self) -> Repository:
        """A real repository in a directory of its own."""
        folder = self.enterContext(tempfile.TemporaryDirectory())
        return self.enterContext(Repository(Path(folder, "repository.sqlite3")))


def result(call: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    """What a call returns, or the type and the text of what it raises."""
    try:
        return call(*args, **kwargs)
    except Exception as error:
        return type(error), str(error)


def memory(tracker: Any) -> tuple[Any, ...]:
    """A copy of all that a tracker remembers, in its order."""
    records = tracker._state, tracker._usage
    copies = [[(key, dataclasses.astuple(record)) for key, record in m.items()] for m in records]
    return *copies, set(tracker._dirty), tracker._usage_dirty


def count(tracker: Any, tool: str, action: Any = None, outcome: str = "ok", **named: Any) -> None:
    """Count a call of the tool: untimed, without a synonym, unless ``named`` says otherwise."""
    tracker.record_call(tool, action, outcome, **{"alias_hit": False, "duration_ms": None, **named})


def in_thread(body: Callable[[], Any]) -> threading.Thread:
    """Start a thread that does not outlive the process."""
    thread = threading.Thread(target=body, daemon=True)
    thread.start()
    return thread


def run_child(code: str, *arguments: str, **environment: str) -> subprocess.CompletedProcess[str]:
    """Run code in a new interpreter like this one to its end."""
    command = [sys.executable, "-X", "dev", "-W", "error", "-c", code, *arguments]
    variables = os.environ | environment
    return subprocess.run(
        command, env=variables, capture_output=True, text=True, timeout=PATIENCE_S
    )
