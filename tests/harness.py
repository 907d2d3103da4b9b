"""Every operation of the module in one table, for the tests of memory, leaks and endings.

The host is native wherever an operation reaches it, so that an allocation that fails does so in the module or in the
runtime's C code, not in Python code that stands in for a daemon.
"""

import _imp
import copy
import dataclasses
import importlib.util
import itertools
import operator
import re
import time
from types import SimpleNamespace
from unittest import mock

from support import health, memory

READ_STATES = f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health"
READ_USAGE = "SELECT value FROM schema_info WHERE key = ?"
DOCUMENT = (
    '[{"tool":"a","action":"x","outcome":"ok","alias_hit":true,"calls":3,"timed_calls":2,"total_ms":2.5},'
    ' {"tool":"gone","action":null,"outcome":"ok","alias_hit":false,"calls":1,"timed_calls":0,"total_ms":0.0}]'
)
MANY = [str(number) for number in range(60)]  # more names than a small set holds
FIGURES = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors")
RECORD = health._ToolState(1, 2, "text", None, 5.0)
NOW = re.compile(r"20[2-9]\d-\d\d-\d\d \d\d:\d\d:\d\d$")
SPEC = importlib.util.spec_from_file_location(health.__name__, health.__file__)


def always(value):
    """A native function without parameters that returns the value."""
    return itertools.repeat(value).__next__


def native_host(**changes):
    """A patch that puts native code in every collaborator's place."""
    census = SimpleNamespace(os_threads=9, python_total=3, python_threads={"pool": 3})
    stats = SimpleNamespace(get_all_stats=[dict.fromkeys(FIGURES, 1.5)].copy)
    host = {
        "TOOLS": dict.fromkeys(["a", "b", "c", *MANY], SimpleNamespace(action={"x": 1}.get)),
        "is_slow_call": operator.eq,
        "get_timing_collector": always(stats),
        "thread_census": always(census),
        "logger": SimpleNamespace(warning={}.__setitem__),
    }
    return mock.patch.multiple(health, **(host | changes))


def shown(value):
    """A value to compare: a tracker as all it remembers, mappings as lists, times of about now as one word."""
    if isinstance(value, health.ToolHealthTracker):
        return shown(memory(value))
    if isinstance(value, tuple | list):
        return [shown(item) for item in value]
    if isinstance(value, dict):
        return shown(list(value.items()))
    is_now = isinstance(value, float) and value > 1.5e9 or isinstance(value, str) and NOW.match(value)
    return "now" if is_now else value


def import_afresh():
    """The module once more, as a module of its own."""
    module = _imp.create_dynamic(SPEC)
    _imp.exec_dynamic(module)
    return module


class World:
    """A tracker with a history: the tool a is enabled, b disabled, the cooldown of c is over. ``written`` keeps what
    last reached the database by each statement."""

    def __init__(self):
        now = health._sqlite_time(time.time())
        rows = [("a", 5, 2, "bad", None, now), ("b", 3, 3, "down", now, now), ("gone", 1, 0, None, None, now)]
        rows += [("c", 1, 1, None, "2001-02-03 04:05:06", now)]
        self.written = {}
        self.db = SimpleNamespace(fetchall={READ_STATES: rows}.get, fetchone={READ_USAGE: (DOCUMENT,)}.get)
        self.db.execute = self.db.executemany = self.written.__setitem__
        self.limits = SimpleNamespace(disable_after_errors=3, disable_cooldown_s=9999)
        self.tracker = self.construct()

    def construct(self):
        return health.ToolHealthTracker(SimpleNamespace(db=self.db), self.limits)

    def change(self, *names):
        for name in names:
            self.tracker.record_success(name)

    def change_all(self):
        self.change("a", "b", "c", *MANY)
        self.tracker.record_call("b", "x", "é", alias_hit=True, duration_ms=12.5)

    def disable_at(self, errors):
        self.limits.disable_after_errors = errors

    def spoil(self, name):
        self.tracker._state[name].updated_at = "then"

    def break_down(self, *statements):
        """Change everything; these statements raise a TypeError from now on."""
        self.change_all()
        vars(self.db).update(dict.fromkeys(statements, divmod))


class Operation:
    """One call, what is done before it, and the error that it is to end with."""

    def __init__(self, call, prepare=lambda world: None, error=()):
        self.call, self.prepare, self.error = call, prepare, error

    def run(self, world):
        """What the call returns; nothing where it raises what it is to raise."""
        try:
            answer = self.call(world)
        except self.error:
            return None
        assert not self.error, answer
        return answer


def method(name, *args, prepare=lambda world: None, error=(), **kwargs):
    return Operation(lambda world: getattr(world.tracker, name)(*args, **kwargs), prepare, error)


def function(name, *args, error=()):
    return Operation(lambda world: getattr(health, name)(*args), error=error)


def changed(*names):
    return lambda world: world.change(*names)


def broken(*statements):
    return lambda world: world.break_down(*statements)


OPERATIONS = {
    "construct": Operation(World.construct),
    "count a new key": method("record_call", "a", None, "ok", alias_hit=False, duration_ms=1.5),
    "count a known key": method("record_call", "a", "x", "ok", alias_hit=True, duration_ms=7),
    "count an odd key": method("record_call", "a", 5, 2**70, alias_hit="yes", duration_ms=2**70),
    "count nonsense": method("record_call", "a", "x", "ok", alias_hit=True, duration_ms="long", error=TypeError),
    "count without a name": method("record_call", alias_hit=True, duration_ms=None, error=TypeError),
    "success of a new tool": method("record_success", "new"),
    "success of a known tool": method("record_success", "a"),
    "success of a marked tool": method("record_success", "a", prepare=changed("a")),
    "error of a new tool": method("record_error", "new", "text"),
    "error of a marked tool": method("record_error", "a", "é" * 999, prepare=changed("a")),
    "error of a disabled tool": method("record_error", "b", None, prepare=lambda world: world.disable_at(1)),
    "error of nonsense": method("record_error", "a", 5, error=TypeError),
    "ask for an unknown tool": method("is_disabled", "new"),
    "ask for an enabled tool": method("is_disabled", "a"),
    "ask for a disabled tool": method("is_disabled", "b"),
    "ask after the cooldown": method("is_disabled", "c"),
    "ask for a list": method("is_disabled", [], error=TypeError),
    "has_unsaved_changes": method("__getattribute__", "has_unsaved_changes"),
    "cooldown_s": method("__getattribute__", "cooldown_s"),
    "limits": Operation(lambda world: world.tracker.limits is world.limits),
    "flush": method("flush", prepare=World.change_all),
    "flush without a change": method("flush", prepare=lambda world: world.tracker.flush()),
    "flush that fails": method("flush", prepare=broken("execute", "executemany"), error=TypeError),
    "flush that fails half-way": method("flush", prepare=broken("execute"), error=TypeError),
    "summary": method("get_health_summary", prepare=World.change_all),
    "summary of nonsense": method("get_health_summary", prepare=lambda world: world.spoil("a"), error=TypeError),
    "usage rows": method("_usage_rows", "a"),
    "known": function("_known", "a", "x"),
    "time": function("_sqlite_time", 1.7e9),
    "time of a bool": function("_sqlite_time", True),
    "time of nonsense": function("_sqlite_time", "x", error=TypeError),
    "epoch": function("_epoch", "2001-02-03 04:05:06"),
    "epoch of a lenient text": function("_epoch", "2001-2-3 4:5:6"),
    "epoch of nonsense": function("_epoch", 5, error=TypeError),
    "performance report": function("handle_get_tool_performance_stats"),
    "thread census": function("thread_census_report", 5),
    "thread census of nonsense": function("thread_census_report", 5, 6, error=AttributeError),
    "make records": Operation(lambda world: [health._ToolState(), health._Usage(1, 2, 3)]),
    "make a record of nonsense": function("_Usage", 1, 2, 3, 4, error=TypeError),
    "compare records": Operation(lambda world: dataclasses.replace(RECORD) == RECORD),
    "show a record": Operation(lambda world: repr(RECORD)),
    "copy a record": Operation(lambda world: copy.copy(RECORD)),
    "import": Operation(lambda world: import_afresh().TOOL_USAGE_KEY),
}
