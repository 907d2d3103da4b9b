"""What the tests share: a fake database, a clock that stands still, a limit that only a hang reaches, comparing."""

import os
import signal
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
# Ten times what the slowest test, or child of one, takes on an idle machine; a sanitizer takes its time.
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


def limit_time():
    # From now on the main thread has so much time: then it raises, also out of waiting for a lock.

    def fail(*_):
        import faulthandler  # which subinterpreters cannot have

        faulthandler.dump_traceback()
        raise SystemExit("only a hang takes so long")

    signal.signal(signal.SIGALRM, fail)
    signal.alarm(PATIENCE_S)


class Test(unittest.TestCase):
    """A test that fails where it hangs."""

    def setUp(self):
        self.addCleanup(signal.alarm, 0)
        limit_time()

    def check_same(self, ours, plain, *case):
        # Both accounts of a case are the same, or the first difference is told.
        if told := difference(ours, plain):
            self.fail(f"{case}: {told}")


class TrackerTest(Test):
    """A test of the module with a clock that stands still."""

    # It shows ``clock.return_value``. The tools are a (with the actions x, which is slow, and y), b and c; the mock
    # ``warning`` gets the logger's records.

    module = health

    def setUp(self):
        super().setUp()
        self.clock = self.enterContext(mock.patch("time.time", return_value=NOW))
        self.warning = self.enterContext(mock.patch.object(self.module.logger, "handle"))
        tools = {"a": ToolSpec("a", (Action("x", slow=True), Action("y"))), "b": ToolSpec("b"), "c": ToolSpec("c")}
        self.enterContext(mock.patch.dict(health.TOOLS, tools, clear=True))

    def make(self):
        # A tracker without a history; ``self.db`` is its database, with no calls yet.
        self.db = FakeDatabase()
        tracker = self.module.ToolHealthTracker(self.db)
        self.db.calls.clear()
        return tracker


class PlainTest(TrackerTest):
    """The same of the plain-Python version. A class of tests of both is a base of one class of each kind."""

    module = baseline


def difference(found, expected, labels=("module", "plain Python")):
    # Where two accounts, texts by name, differ first: the name, and both from shortly before the place where they part.
    # None where they do not.
    for name in expected | found:
        texts = [account.get(name, "(nothing)") for account in (found, expected)]
        if texts[0] != texts[1]:
            start = max(0, len(os.path.commonprefix(texts)) - 100)
            told = [ascii(text[start : start + 400]) for text in texts]
            return f"{name}\n    {labels[0]}: {told[0]}\n    {labels[1]}: {told[1]}"
    return None


def result(call, *args, **kwargs):
    # What a call returns, or the type and the text of what it raises.
    try:
        return call(*args, **kwargs)
    except Exception as error:
        return type(error), str(error)


def count(tracker, tool, action=None, outcome="ok", alias_hit=False, duration_ms=None):
    # Count a call of the tool.
    tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=duration_ms)


def in_thread(body):
    # Start a thread that does not outlive the process.
    thread = threading.Thread(target=body, daemon=True)
    thread.start()
    return thread


def run_child(function, *arguments):
    # Call a function of a test file with texts in a new interpreter like this one; one that hangs tells where.
    code = f"from {function.__module__} import {function.__name__} as run; import sys, faulthandler;"
    code += f"faulthandler.dump_traceback_later({PATIENCE_S}, exit=True); run(*sys.argv[1:])"
    signal.alarm(2 * PATIENCE_S)  # from now on: each child has its own time
    command = [sys.executable, "-X", "dev", "-W", "error", "-c", code, *arguments]
    return subprocess.run(command, capture_output=True, text=True)
