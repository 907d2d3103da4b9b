"""One world for all tests of faults: a tracker over a host, what is done with it, and what it uses of the host's."""

# A new operation, or a new place where the module uses something of the host's, is a line in its table.
#
# What a world is made of is native code, so that an allocation that fails does so in the module or in the runtime's C
# code, and so that the only Python code that runs in an operation is what a test puts in one of the places.
#
# An account tells what came of something: texts by the names of its parts.

import copy
import functools
import importlib.util
import itertools
import operator
import re
import sys
import threading
import time
import types
from operator import methodcaller
from types import SimpleNamespace
from unittest import mock

from support import NOW, FakeDatabase, baseline, count, health, result

THEN = "2022-01-01 00:00:00"
READ_STATES = f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health"
READ_USAGE = "SELECT value FROM schema_info WHERE key = ?"
ROWS = [("a", 5, 2, "bad", None, THEN), ("b", 3, 3, "down", THEN, THEN), ("gone", 1, 0, None, None, THEN)]
ROWS += [("c", 1, 1, None, "1970-02-03 04:05:06", THEN)]
DOCUMENT = (  # in the form that is read natively
    '[{"tool":"a","action":"x","outcome":"ok","alias_hit":true,"calls":3,"timed_calls":2,"total_ms":2.5},'
    '{"tool":"gone","action":null,"outcome":"ok","alias_hit":false,"calls":1,"timed_calls":0,"total_ms":0.0}]'
)
KEY = ("a", "x", "ok", True)
FIELDS = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
MANY = [str(number) for number in range(9)]  # more names than a small set holds
FIGURES = dict.fromkeys("name count avg_ms p95_ms min_ms max_ms errors".split(), 1.5)
CENSUS = {"os_threads": 9, "python_total": 3, "python_threads": {"pool": 3}}
ADDRESS = re.compile(r"0x[0-9a-f]+|id='\d+'|'/[^']*'")
# What the clock shows now, or a later time, in epoch seconds and as it is stored.
PRESENT = re.compile(r"\b1(7[1-9]|[89]\d)\d{7}\b(\.\d+)?|\b20(2[4-9]|[3-9]\d)-\d\d-\d\d \d\d:\d\d:\d\d")
REAL_CLOCK = time.time
WARNINGS = {}  # the last of each kind, in a native host


PLAIN_CODE = baseline.__loader__.get_code(baseline.__name__)


def load(path=health.__file__):
    # The module, or its plain version, made anew as an import makes it.
    spec = importlib.util.spec_from_file_location(health.__name__, path)
    module = importlib.util.module_from_spec(spec)
    with mock.patch.dict(sys.modules, {spec.name: module}):
        if path == baseline.__file__:
            exec(PLAIN_CODE, vars(module))
        else:
            spec.loader.exec_module(module)
    return module


NATIVE, PLAIN = load(), load(baseline.__file__)


def always(value):
    # A native function without parameters that returns the value.
    return itertools.repeat(value).__next__


def native_host(module=NATIVE):
    # What puts native code in every collaborator's place but the clock's, which is native.
    host = {
        "TOOLS": dict.fromkeys(["a", "b", "c", *MANY], SimpleNamespace(action={"x": 1}.get)),
        "is_slow_call": operator.eq,
        "get_timing_collector": always(SimpleNamespace(get_all_stats=[FIGURES].copy)),
        "thread_census": always(SimpleNamespace(**CENSUS)),
        "logger": SimpleNamespace(warning=WARNINGS.__setitem__),
    }
    return mock.patch.multiple(module, **host)


class World:
    """A tracker with a history: the tool a is enabled, b disabled, the cooldown of c is over."""

    # ``written`` keeps what last reached the database by each statement.
    def __init__(self, module=NATIVE, lock=None, names="abc"):
        self.module, self.names, self.written, self.arguments = module, names, {}, {}
        self.db, self.limits, self.time = FakeDatabase(), SimpleNamespace(), NOW
        self.repair()
        self.tracker = self.construct()
        self.lock = self.tracker._lock = lock or self.tracker._lock
        self.uses, self.act, self.leave = [], None, lambda: None

    def repair(self):
        # The database works, with nothing written, the settings are the first ones, and a second has passed.
        self.written.clear()
        WARNINGS.clear()
        self.db.fetchall, self.db.fetchone = {READ_STATES: ROWS}.get, {READ_USAGE: (DOCUMENT,)}.get
        self.db.execute = self.db.executemany = self.written.__setitem__
        self.limits.disable_after_errors, self.limits.disable_cooldown_s = 3, 1_000_000_000
        self.time += 1

    def construct(self, *limits):
        return self.module.ToolHealthTracker(self.db, *limits or [self.limits])

    def count(self, *arguments):
        count(self.tracker, *arguments)

    def change(self, *names):
        for name in names:
            self.tracker.record_success(name)

    def change_all(self):
        self.change(*self.names)
        self.tracker.record_call("b", "x", "é", alias_hit=True, duration_ms=1.25e11)

    def break_down(self, *statements):
        # Change everything; these statements raise a TypeError from now on.
        self.change_all()
        vars(self.db).update(dict.fromkeys(statements, divmod))

    def used(self, use):
        # An odd value is used: note it and act, unless that is what uses it.
        if act := self.act:
            self.uses.append(use)
            self.act = None
            try:
                act()
            finally:
                self.act = act

    def account(self):
        # What came of the last operation.
        return {
            "outcome": self.outcome,
            "the lock is held": str(self.lock.locked()),
            "warnings": shown(WARNINGS),
            **remembered(self.tracker),
            "written": shown(self.written),
        }


# The results of these uses are of plain types, whatever the value is.
PLAIN_USES = "bool hash len int float index str repr format contains eq ne lt le gt ge".split()
# What is left as it is in an odd value: all that every object has, but for what a value is compared and shown with.
OBJECT = {*dir(object), "__get__", "__class_getitem__", "__getnewargs__", "__set_name__"}
OBJECT -= {f"__{name}__" for name in PLAIN_USES}


def use(odd, name, *args, **kwargs):
    # Do with an odd value what can be done with the plain one; its world hears of it.
    world, value = vars(odd)["world"], vars(odd)["value"]
    world.used(name)
    if type(odd).__base__ is not object:
        return getattr(type(odd).__base__, name)(odd, *args, **kwargs)
    found = getattr(type(value), name)(value, *args, **kwargs)
    return found if name[2:-2] in PLAIN_USES else wrapped_unless_plain(world, found)


def read(odd, name):
    vars(odd)["world"].used(f".{name}")
    return wrapped_unless_plain(vars(odd)["world"], getattr(vars(odd)["value"], name))


def write(odd, name, value):
    vars(odd)["world"].used(f".{name} =")
    setattr(vars(odd)["value"], name, value)


@functools.cache
def odd_type(kind, base):
    names = [name for name in {*dir(kind)} - OBJECT if name[:2] == "__" or base is not object]
    members = {name: functools.partialmethod(use, name) for name in names if callable(getattr(kind, name, None))}
    if base is object:
        members |= {"__getattr__": read, "__setattr__": write}
    return type("Odd", (base,), {"__hash__": None} | members)


def wrapped(world, value):
    # An odd value: an object of a type of its own that can do what the value can, and so are the results of that.
    odd = odd_type(type(value), object)()
    vars(odd).update(world=world, value=value)
    return odd


def wrapped_unless_plain(world, value):
    is_plain = value is None or value is NotImplemented or isinstance(value, bool | str | bytes)
    return value if is_plain else wrapped(world, value)


def derived(world, value):
    # An odd value of a type derived from the plain one's. Only for types of the runtime.
    if type(value).__module__ != "builtins":
        raise TypeError(value)
    odd = odd_type(type(value), type(value))(value)
    vars(odd).update(world=world, value=value)
    return odd


def dying(world, value):
    # The number or the text, or an object, that is odd in its finaliser only.
    kind = type(value) if type(value) in (int, float, str) else object
    odd = type("Dying", (kind,), {"__del__": lambda self: world.used("__del__")})
    return odd() if kind is object else odd(value)


def shown(value):
    # A value as text, without addresses, paths and what the time is: of a tracker its fields, of a set its members in order, of an odd
    # value the plain one. Errors that are raised natively have no traceback. No record is asked for its ``__dict__``.
    if type(value).__name__ == "Odd" and type(value).__base__ is object:
        return shown(vars(value)["value"])
    if hasattr(type(value), "_load"):
        return ", ".join(remembered(value).values())
    if isinstance(value, set):
        value = sorted(map(repr, set.__iter__(value)))
    return PRESENT.sub("now", ADDRESS.sub("...", re.sub("<traceback.*?>", "None", repr(value))))


def remembered(tracker):
    # What the tracker has in its fields. Leaves its ``__dict__`` unasked for.
    return {name: shown(result(getattr, tracker, name)) for name in FIELDS}


class Operation:
    """One call with positional arguments of what an attribute of the world is, and what is done before it."""

    def __init__(self, path, *arguments, prepare=lambda world: None):
        self.path, self.arguments, self.prepare = path, arguments, prepare
        self.bind = operator.attrgetter(path)

    def begin(self, world):
        self.prepare(world)
        world.arguments = dict(enumerate(self.arguments))

    def call(self, world):
        try:
            return self.bind(world)(*world.arguments.values())
        except SystemExit as hang:
            raise SystemExit(f"{hang}: {self.path}{self.arguments}") from None


def disable_at_once(world):
    world.limits.disable_after_errors = 1


def explain(world):
    world.tracker.is_disabled("b")  # from now on, it is found natively
    world.tracker._state["b"].last_error = str(world.time)  # a new text
    world.limits.disable_cooldown_s = 1e10  # longer than since the epoch


def spoil(world):
    world.tracker._state["a"].updated_at = "then"


def store_without_end(world):
    world.db.fetchall = {READ_STATES: [range(10**15)]}.get


def store_with_blanks(world):
    world.db.fetchone = {READ_USAGE: (DOCUMENT.replace(",", ", "),)}.get


OPERATIONS = {
    "construct": Operation("construct"),
    "construct with default settings": Operation("construct", None),
    "construct from a foreign document": Operation("construct", prepare=store_with_blanks),
    "construct from a row without an end": Operation("construct", prepare=store_without_end),
    "construct without a history": Operation("construct", prepare=methodcaller("break_down", "fetchall", "fetchone")),
    "count a new key": Operation("count", "a", None, "ok", False, 1.5),
    "count a known key": Operation("count", *KEY, 7),
    "count again": Operation("count", *KEY, 2.5, prepare=methodcaller("count", *KEY)),
    "count an odd key": Operation("count", "a", 5, 2**70, "yes", 2**70),
    "count nonsense": Operation("count", *KEY, "long"),
    "count without a name": Operation("tracker.record_call"),
    "success without a name": Operation("tracker.record_success", ""),
    "success of a new tool": Operation("tracker.record_success", "new"),
    "success that grows a set": Operation("tracker.record_success", "new", prepare=methodcaller("change", *"abc1")),
    "success of a known tool": Operation("tracker.record_success", "a"),
    "success of a dirty tool": Operation("tracker.record_success", "a", prepare=methodcaller("change", "a")),
    "error of a new tool": Operation("tracker.record_error", "new", "text" * 999),
    "error of a dirty tool": Operation("tracker.record_error", "a", "é" * 999, prepare=methodcaller("change", "a")),
    "error of a disabled tool": Operation("tracker.record_error", "b", None, prepare=disable_at_once),
    "error of nonsense": Operation("tracker.record_error", "a", 5),
    "ask for an unknown tool": Operation("tracker.is_disabled", "new"),
    "ask for an enabled tool": Operation("tracker.is_disabled", "a"),
    "ask for a disabled tool": Operation("tracker.is_disabled", "b", prepare=explain),
    "ask after the cooldown": Operation("tracker.is_disabled", "c"),
    "has_unsaved_changes": Operation("tracker.__getattribute__", "has_unsaved_changes"),
    "cooldown_s": Operation("tracker.__getattribute__", "cooldown_s"),
    "limits": Operation("tracker.__getattribute__", "limits"),
    "load": Operation("tracker._load"),
    "load the counts": Operation("tracker._load_usage"),
    "flush": Operation("tracker.flush", prepare=World.change_all),
    "flush without a change": Operation("tracker.flush", prepare=lambda world: world.tracker.flush()),
    "flush that fails": Operation("tracker.flush", prepare=methodcaller("break_down", "execute", "executemany")),
    "flush that fails half-way": Operation("tracker.flush", prepare=methodcaller("break_down", "execute")),
    "summary": Operation("tracker.get_health_summary", prepare=World.change_all),
    "summary of nonsense": Operation("tracker.get_health_summary", prepare=spoil),
    "usage rows": Operation("tracker._usage_rows", "a"),
    "known": Operation("module._known", "a", "x"),
    "time": Operation("module._sqlite_time", 1.7e9),
    "time of a bool": Operation("module._sqlite_time", True),
    "time of nonsense": Operation("module._sqlite_time", "x"),
    "epoch": Operation("module._epoch", "2001-02-03 04:05:06"),
    "epoch of a lenient text": Operation("module._epoch", "2001-2-3 4:5:6"),
    "epoch of nonsense": Operation("module._epoch", 5),
    "performance report": Operation("module.handle_get_tool_performance_stats"),
    "thread census": Operation("module.thread_census_report", 5),
    "given thread census": Operation("module.thread_census_report", 5, SimpleNamespace(**CENSUS)),
    "thread census of nonsense": Operation("module.thread_census_report", 5, 6),
}


# Where the module uses something of the host's: the object that holds it, and under which names. A test puts an odd
# value in its place.
HOLDERS = {
    "tracker": (lambda world: world.tracker, [*FIELDS, "_flush_health", "_flush_usage", "_usage_rows"]),
    "state": (lambda world: world.tracker._state["a"], health._ToolState.__match_args__),
    "disabled": (lambda world: world.tracker._state["b"], ["disabled_at", "last_error"]),
    "cooled": (lambda world: world.tracker._state["c"], ["disabled_at"]),
    "counts": (lambda world: world.tracker._usage[KEY], health._Usage.__match_args__),
    "states": (lambda world: world.tracker._state, ["a"]),
    "usage": (lambda world: world.tracker._usage, [KEY]),
    "settings": (lambda world: world.limits, ["disable_after_errors", "disable_cooldown_s"]),
    "database": (lambda world: world.db, ["fetchall", "fetchone", "execute", "executemany"]),
    "argument": (lambda world: world.arguments, range(5)),
    "time": (lambda world: time, ["time"]),
    "threading": (lambda world: threading, ["Lock"]),
    "module": (
        lambda world: world.module,
        "TOOLS is_slow_call get_timing_collector thread_census logger json time threading datetime timezone ToolsConfig"
        " _SQLITE_TIMESTAMP _TOOL_HEALTH_COLUMNS TOOL_USAGE_KEY _ToolState _Usage _sqlite_time _epoch _known".split(),
    ),
}
PLACES = {f"{holder} {name}": (find, name) for holder, (find, names) in HOLDERS.items() for name in names}
ITEMS = operator.getitem, operator.setitem, operator.delitem, operator.contains
ATTRIBUTES = getattr, setattr, delattr, hasattr


def unfit(value):
    # Makes a copy of this of any value.
    return lambda world, plain: copy.copy(value)


def deleted(world, plain):
    # Leaves nothing in a place.
    return deleted


def put(world, place, make):
    # Put what ``make`` gives in a place; False where that cannot be. ``world.leave()`` undoes it in a module, and puts
    # back what was deleted and is not there again.
    find, name = PLACES[place]
    try:
        owner = find(world)
        get, replace, drop, has = ITEMS if isinstance(owner, dict) else ATTRIBUTES
        value = get(owner, name)
        new = make(world, value)
        drop(owner, name) if new is deleted else replace(owner, name, new)
    except (KeyError, TypeError, AttributeError):
        return False
    if isinstance(owner, types.ModuleType):
        world.leave = lambda: replace(owner, name, value)
    elif new is deleted:  # else nothing here keeps alive what may be about to die
        world.leave = lambda: has(owner, name) or replace(owner, name, value)
    return True


def play(world, operation, place, make, act=lambda world: None):
    # The world after an operation with what ``make`` puts in a place, at each use of which it acted; nothing where
    # there is no such place.
    OPERATIONS[operation].begin(world)
    if not put(world, place, make):
        return None
    world.act = functools.partial(act, world)
    try:
        outcome = OPERATIONS[operation].call(world)
    except (Exception, KeyboardInterrupt) as error:  # but no hang
        outcome = error.with_traceback(None)
    world.act = None
    world.outcome = shown(outcome)
    world.leave()
    return world
