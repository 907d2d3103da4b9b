"""One world for all tests of faults: a tracker over a host, every operation on it, and every place where the module
uses something of the host's. A new operation or place is a line in its table.

What a world is made of is native code, so that an allocation that fails does so in the module or in the runtime's C
code, and so that the only Python code that runs in an operation is what a test puts in one of the places.
"""

import _imp
import copy
import functools
import importlib.util
import itertools
import json
import operator
import re
import threading
import time
import types
from types import SimpleNamespace
from unittest import mock

from support import FakeDatabase, count, health

THEN = "2022-01-01 00:00:00"
READ_STATES = f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health"
READ_USAGE = "SELECT value FROM schema_info WHERE key = ?"
ROWS = [("a", 5, 2, "bad", None, THEN), ("b", 3, 3, "down", THEN, THEN), ("gone", 1, 0, None, None, THEN)]
ROWS += [("c", 1, 1, None, "1970-02-03 04:05:06", THEN)]
DOCUMENT = (
    '[{"tool":"a","action":"x","outcome":"ok","alias_hit":true,"calls":3,"timed_calls":2,"total_ms":2.5},'
    ' {"tool":"gone","action":null,"outcome":"ok","alias_hit":false,"calls":1,"timed_calls":0,"total_ms":0.0}]'
)
KEY = ("a", "x", "ok", True)
FIELDS = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
MANY = [str(number) for number in range(60)]  # more names than a small set holds
FIGURES = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors")
CENSUS = {"os_threads": 9, "python_total": 3, "python_threads": {"pool": 3}}
TIME = re.compile(r"20\d\d-\d\d-\d\d \d\d:\d\d:\d\d$")
REAL_CLOCK = time.time


def always(value):
    """A native function without parameters that returns the value."""
    return itertools.repeat(value).__next__


def native_host(module=health, **changes):
    """A patch that puts native code in every collaborator's place."""
    host = {
        "TOOLS": dict.fromkeys(["a", "b", "c", *MANY], SimpleNamespace(action={"x": 1}.get)),
        "is_slow_call": operator.eq,
        "get_timing_collector": always(SimpleNamespace(get_all_stats=[dict.fromkeys(FIGURES, 1.5)].copy)),
        "thread_census": always(SimpleNamespace(**CENSUS)),
        "logger": SimpleNamespace(warning={}.__setitem__),
    }
    return mock.patch.multiple(module, **(host | changes))


class World:
    """A tracker with a history: the tool a is enabled, b disabled, the cooldown of c is over. ``written`` keeps what
    last reached the database by each statement. Made of the module or of its plain version."""

    def __init__(self, module=health, lock=None, names=(*"abc", *MANY), document=DOCUMENT):
        self.module, self.names, self.document, self.written, self.arguments = module, names, document, {}, {}
        self.db, self.limits = FakeDatabase(), SimpleNamespace()
        self.repair()
        self.tracker = self.construct()
        self.lock = self.tracker._lock = lock or self.tracker._lock
        self.uses, self.act, self.leave = [], None, lambda: None

    def repair(self):
        """The database works, with nothing written, and the settings are the first ones."""
        self.written.clear()
        self.db.fetchall, self.db.fetchone = {READ_STATES: ROWS}.get, {READ_USAGE: (self.document,)}.get
        self.db.execute = self.db.executemany = self.written.__setitem__
        self.limits.disable_after_errors, self.limits.disable_cooldown_s = 3, 1_000_000_000

    def construct(self):
        return self.module.ToolHealthTracker(self.db, self.limits)

    def change(self, *names):
        for name in names:
            self.tracker.record_success(name)

    def change_all(self):
        self.change(*self.names)
        self.tracker.record_call("b", "x", "é", alias_hit=True, duration_ms=1.25e11)

    def break_down(self, *statements):
        """Change everything; these statements raise a TypeError from now on."""
        self.change_all()
        vars(self.db).update(dict.fromkeys(statements, divmod))

    def used(self, use):
        """An odd value is used: note it and act, unless that is what uses it."""
        if act := self.act:
            self.uses.append(use)
            self.act = None
            try:
                act()
            finally:
                self.act = act


# What can be done with a value, as methods. The results of the first are of plain types, whatever the value is.
PLAIN_USES = "bool hash len int float index str repr format contains eq ne lt le gt ge".split()
USES = "call iter next getitem setitem delitem neg round add radd sub rsub truediv rtruediv enter exit".split()
METHODS = "get items keys values add update clear".split()


def use(odd, name, *args, **kwargs):
    """Do with an odd value what can be done with the plain one; its world hears of it."""
    world, value = vars(odd)["world"], vars(odd)["value"]
    world.used(name)
    if type(odd).__base__ is not object:
        return getattr(type(odd).__base__, name)(odd, *args, **kwargs)
    result = getattr(type(value), name)(value, *args, **kwargs)
    return result if name[2:-2] in PLAIN_USES else wrapped_unless_plain(world, result)


def read(odd, name):
    vars(odd)["world"].used(f".{name}")
    return wrapped_unless_plain(vars(odd)["world"], getattr(vars(odd)["value"], name))


def write(odd, name, value):
    vars(odd)["world"].used(f".{name} =")
    setattr(vars(odd)["value"], name, value)


@functools.cache
def odd_type(kind, base):
    names = [f"__{name}__" for name in (*PLAIN_USES, *USES)] + METHODS * (base is not object)
    members = {name: functools.partialmethod(use, name) for name in names if callable(getattr(kind, name, None))}
    if base is object:
        members |= {"__getattr__": read, "__setattr__": write}
    return type("Odd", (base,), {"__hash__": None} | members)


def wrapped(world, value):
    """An odd value: an object of a type of its own that can do what the value can, and so are the results of that."""
    odd = odd_type(type(value), object)()
    vars(odd).update(world=world, value=value)
    return odd


def wrapped_unless_plain(world, value):
    is_plain = value is None or value is NotImplemented or isinstance(value, bool | str | bytes)
    return value if is_plain else wrapped(world, value)


def derived(world, value):
    """An odd value of a type derived from the plain one's. Only for types of the runtime."""
    if type(value).__module__ != "builtins":
        raise TypeError(value)
    odd = odd_type(type(value), type(value))(value)
    vars(odd).update(world=world, value=value)
    return odd


def dying(world, value):
    """The number or the text, or an object, that is odd in its finaliser only."""
    kind = type(value) if type(value) in (int, float, str) else object
    odd = type("Dying", (kind,), {"__del__": lambda self: world.used("__del__")})
    return odd() if kind is object else odd(value)


def shown(value):
    """A value to compare: trackers, mappings and records as lists, odd values as the plain ones, errors as text, times
    of about now as one word. No record is asked for its ``__dict__``."""
    kind = type(value).__name__
    if kind == "Odd" and type(value).__base__ is object:
        return shown(vars(value)["value"])
    if kind == "ToolHealthTracker":
        return [shown(getattr(value, name, None)) for name in ("_state", "_usage", "_dirty", "_usage_dirty")]
    if kind in ("_ToolState", "_Usage"):
        return [shown(getattr(value, name)) for name in value.__match_args__]
    if isinstance(value, tuple | list):
        return [*map(shown, value)]
    if isinstance(value, set):
        return sorted(map(repr, set(set.__iter__(value))))
    if isinstance(value, dict):
        return shown(list(dict.items(value)))
    if isinstance(value, float) and value > 1.75e9 or isinstance(value, str) and TIME.match(value) and value > "2025":
        return "now"
    return repr(value) if isinstance(value, Exception) else value


class Operation:
    """One call with positional arguments, what is done before it, and the error that it is to end with."""

    def __init__(self, bind, *arguments, prepare=lambda world: None, error=()):
        self.bind, self.arguments, self.prepare, self.error = bind, arguments, prepare, error

    def begin(self, world):
        """Do what comes before it."""
        self.prepare(world)
        world.arguments = dict(enumerate(self.arguments))

    def call(self, world):
        """What the call returns or raises."""
        return self.bind(world)(*world.arguments.values())

    def run(self, world):
        """What the call returns; nothing where it raises what it is to raise."""
        try:
            answer = self.call(world)
        except self.error:
            return None
        assert not self.error, answer
        return answer


def method(name, *arguments, **more):
    return Operation(lambda world: getattr(world.tracker, name), *arguments, **more)


def function(name, *arguments, **more):
    return Operation(lambda world: getattr(world.module, name), *arguments, **more)


def counting(*arguments, **more):
    return Operation(lambda world: functools.partial(count, world.tracker), *arguments, **more)


def import_afresh(name=health.__name__):
    """The module once more, as a module of its own."""
    spec = importlib.util.spec_from_file_location(name, health.__file__)
    module = _imp.create_dynamic(spec)
    _imp.exec_dynamic(module)
    return module


def change(*names):
    return lambda world: world.change(*names)


def break_down(*statements):
    return lambda world: world.break_down(*statements)


def disable_at_once(world):
    world.limits.disable_after_errors = 1


def spoil(world):
    world.tracker._state["a"].updated_at = "then"


OPERATIONS = {
    "construct": Operation(lambda world: world.construct),
    "construct without a history": Operation(
        lambda world: world.construct, prepare=break_down("fetchall", "fetchone")
    ),
    "count a new key": counting("a", None, "ok", False, 1.5),
    "count a known key": counting(*KEY, 7),
    "count again": counting(*KEY, 2.5, prepare=lambda world: count(world.tracker, *KEY)),
    "count an odd key": counting("a", 5, 2**70, "yes", 2**70),
    "count a dictionary": counting("a", {}, error=TypeError),
    "count nonsense": counting(*KEY, "long", error=TypeError),
    "count without a name": Operation(lambda world: world.tracker.record_call, error=TypeError),
    "success of a list": method("record_success", [], error=TypeError),
    "success without a name": method("record_success", ""),
    "success of a new tool": method("record_success", "new"),
    "success that the dirty set grows for": method("record_success", "new", prepare=change(*"abc1")),
    "success of a known tool": method("record_success", "a"),
    "success of a dirty tool": method("record_success", "a", prepare=change("a")),
    "error of a new tool": method("record_error", "new", "text"),
    "error of a dirty tool": method("record_error", "a", "é" * 999, prepare=change("a")),
    "error of a disabled tool": method("record_error", "b", None, prepare=disable_at_once),
    "error of nonsense": method("record_error", "a", 5, error=TypeError),
    "ask for an unknown tool": method("is_disabled", "new"),
    "ask for an enabled tool": method("is_disabled", "a"),
    "ask for a disabled tool": method("is_disabled", "b"),
    "ask after the cooldown": method("is_disabled", "c"),
    "ask for a list": method("is_disabled", [], error=TypeError),
    "has_unsaved_changes": method("__getattribute__", "has_unsaved_changes"),
    "cooldown_s": method("__getattribute__", "cooldown_s"),
    "limits": method("__getattribute__", "limits"),
    "load": method("_load"),
    "load the counts": method("_load_usage"),
    "flush": method("flush", prepare=World.change_all),
    "flush without a change": method("flush", prepare=lambda world: world.tracker.flush()),
    "flush that fails": method("flush", prepare=break_down("execute", "executemany"), error=TypeError),
    "flush that fails half-way": method("flush", prepare=break_down("execute"), error=TypeError),
    "summary": method("get_health_summary", prepare=World.change_all),
    "summary of nonsense": method("get_health_summary", prepare=spoil, error=TypeError),
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
    "given thread census": function("thread_census_report", 5, SimpleNamespace(**CENSUS)),
    "thread census of nonsense": function("thread_census_report", 5, 6, error=AttributeError),
}


def in_module(world):
    return world.module


def in_tracker(world):
    return world.tracker


def in_state(world):
    return world.tracker._state["a"]


def in_counts(world):
    return world.tracker._usage[KEY]


def places(find, names):
    """The attributes of an object of the world, by its name and theirs."""
    return {f"{find.__name__[3:]} {name}": (find, name) for name in names}


ITEMS, ATTRIBUTES = (operator.getitem, operator.setitem, operator.delitem), (getattr, setattr, delattr)
# Where the module uses something of the host's: the object that holds it, and under which name. A test puts an odd
# value in its place.
PLACES = {
    **places(in_tracker, [*FIELDS, "_flush_health", "_flush_usage", "_usage_rows"]),
    **places(in_state, health._ToolState.__match_args__),
    **places(in_counts, health._Usage.__match_args__),
    **places(in_module, "TOOLS is_slow_call get_timing_collector thread_census logger json time threading".split()),
    **places(in_module, "datetime timezone _ToolState _Usage _sqlite_time _epoch _known".split()),
    "a state": (lambda world: world.tracker._state, "a"),
    "a count": (lambda world: world.tracker._usage, KEY),
    "time of disabling": (lambda world: world.tracker._state["b"], "disabled_at"),
    "clock": (lambda world: time, "time"),
    "new lock": (lambda world: threading, "Lock"),
    "reader": (lambda world: json, "loads"),
    "writer": (lambda world: json, "dumps"),
    "threshold": (lambda world: world.limits, "disable_after_errors"),
    "cooldown": (lambda world: world.limits, "disable_cooldown_s"),
    "rows": (lambda world: world.db, "fetchall"),
    "document": (lambda world: world.db, "fetchone"),
    "write of rows": (lambda world: world.db, "executemany"),
    "write of a document": (lambda world: world.db, "execute"),
    **{f"argument {place}": (lambda world: world.arguments, place) for place in range(5)},
}


def unfit(value):
    """Makes a copy of this of any value."""
    return lambda world, plain: copy.copy(value)


def deleted(world, plain):
    """Leaves nothing in a place."""
    return deleted


def put(world, place, make):
    """Put what ``make`` gives in a place; False where that cannot be. ``world.leave()`` undoes it."""
    find, name = PLACES[place]
    try:
        owner = find(world)
        read, write, drop = ITEMS if isinstance(owner, dict) else ATTRIBUTES
        value = read(owner, name)
        new = make(world, value)
        drop(owner, name) if new is deleted else write(owner, name, new)
    except (KeyError, TypeError, AttributeError):
        return False
    if isinstance(owner, types.ModuleType):
        world.leave = lambda: write(owner, name, value)
    return True


def play(world, operation, place, make, act=lambda world: None):
    """The world after an operation with what ``make`` puts in a place, at each use of which it acted; nothing where
    there is no such place."""
    OPERATIONS[operation].begin(world)
    if not put(world, place, make):
        return None
    world.act = functools.partial(act, world)
    try:
        world.outcome = shown(OPERATIONS[operation].call(world))
    except BaseException as error:
        world.outcome = shown(repr(error).replace(world.module.__name__, "the module"))
    world.act = None
    world.leave()
    return world
