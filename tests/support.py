"""What the tests share: a fake database, a clock that stands still, a tracker over both."""

import os
import subprocess
import sys
import threading
import unittest
from functools import partialmethod
from unittest import mock

from benchmarks import baseline
from quorl_dendra.tool_handlers import health
from quorl_dendra.tool_registry import Action, ToolSpec

NOW = 1_700_000_000.0
# For what comes at once unless something is broken; a sanitizer takes its time.
PATIENCE_S = 360 if "libasan" in os.environ.get("LD_PRELOAD", "") else 60


class FakeDatabase:
    """A database that keeps each call, calls ``hook(operation)`` and answers from memory."""

    def __init__(self):
        self.db = self  # it is its own repository
        self.rows, self.answer, self.calls = [], None, []
        self.hook = lambda operation: None

    def _call(self, operation, *args):
        self.calls.append((operation, *args))
        self.hook(operation)
        return {"fetchall": self.rows, "fetchone": self.answer}.get(operation)

    fetchall = partialmethod(_call, "fetchall")
    fetchone = partialmethod(_call, "fetchone")
    execute = partialmethod(_call, "execute")
    executemany = partialmethod(_call, "executemany")


class TrackerTest(unittest.TestCase):
    """A test with a clock that shows ``clock.return_value``, the tools a (with the actions x, which is slow, and y),
    b and c, and the mock ``warning`` in place of the logger's method."""

    def setUp(self):
        self.clock = self.enterContext(mock.patch("time.time", return_value=NOW))
        self.warning = mock.Mock()
        for module in (health, baseline):
            self.enterContext(mock.patch.object(module.logger, "warning", self.warning))
        tools = {"a": ToolSpec("a", (Action("x", slow=True), Action("y"))), "b": ToolSpec("b"), "c": ToolSpec("c")}
        self.enterContext(mock.patch.dict(health.TOOLS, tools, clear=True))
        self.db = FakeDatabase()

    def make(self):
        """A tracker without a history; ``self.db`` is its database, with no calls yet."""
        self.db = FakeDatabase()
        tracker = health.ToolHealthTracker(self.db)
        self.db.calls.clear()
        return tracker


def result(call, *args, **kwargs):
    """What a call returns, or the type and the text of what it raises."""
    try:
        return call(*args, **kwargs)
    except Exception as error:
        return type(error), str(error)


def count(tracker, tool, action=None, outcome="ok", alias_hit=False, duration_ms=None):
    """Count a call of the tool."""
    tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=duration_ms)


def in_thread(body):
    """Start a thread that does not outlive the process."""
    thread = threading.Thread(target=body, daemon=True)
    thread.start()
    return thread


def run_child(code, *arguments, **environment):
    """Run code in a new interpreter like this one to its end."""
    command = [sys.executable, "-X", "dev", "-W", "error", "-c", code, *arguments]
    kept = {"capture_output": True, "text": True, "env": os.environ | environment}
    return subprocess.run(command, timeout=PATIENCE_S, **kept)
