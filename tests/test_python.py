"""A host that looks closely sees a module written in Python.

Each case is done to the module and to its plain version, both loaded afresh under one name over one host: what can be
seen must be the same. A case is a function of such a module and of a tracker with a history. What the QUESTIONS return is
compared. Changes are made between two tours through all operations, which are compared step by step; a tracker that a
change returns takes the first one's place, and of what else it returns the notes or the calls are compared. What a case
does to its module needs no undoing.
"""

import copy
import ctypes
import dataclasses
import difflib
import functools
import importlib.util
import inspect
import itertools
import json
import operator
import pickle
import pydoc
import re
import sys
import threading
import time
import types
import typing
import weakref
from collections import OrderedDict, UserDict, defaultdict, deque
from datetime import datetime, timedelta, timezone
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.config import ToolsConfig
from support import NOW, FakeDatabase, TrackerTest, baseline, health, result

NAMES = [name for name in vars(health) if name[:2] != "__"]
OWN = [name for name in NAMES if getattr(vars(health)[name], "__module__", None) == health.__name__]
MEMBERS = [name for name in vars(health.ToolHealthTracker) if name == "__init__" or name[:2] != "__"]
FIELDS = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
RECORDS = {"_ToolState": "_state", "_Usage": "_usage"}
READS = {"items", "keys", "__getitem__", "__iter__"}  # of which a summary needs more or fewer
IMPORTED = [f"quorl_dendra.{name}" for name in "config tool_registry tool_schemas utils.process utils.timing".split()]
IMPORTED += "json logging threading time dataclasses datetime".split()
HELPERS = {"annotations", "Iterable", "_entries", "_rows", "_worst_first", "_record"}  # the plain version's own

# A history: the tool a is enabled, b disabled, the cooldown of c is over.
ROWS = [("a", 5, 1, None, None, "2023-11-14 22:13:20"), ("b", 4, 4, "bad", "2023-11-14 22:13:00", None)]
ROWS += [("c", 3, 3, "bad", "2023-11-14 20:13:20", "")]
ENTRY = '{"tool":"%s","action":null,"outcome":"ok","alias_hit":true,"calls":3,"timed_calls":2,"total_ms":2.5}'
DOCUMENT = f"[{ENTRY % 'a'},{ENTRY % 'gone'},{ENTRY % 'b'}]"

CENSUS = SimpleNamespace(os_threads=4, python_total=2, python_threads={})
TIMED, UNTIMED, UNFIT = ({"alias_hit": True, "duration_ms": took} for took in (2.25, None, "long"))
# A method of the tracker or a name of the module, and its arguments, those by name last.
# fmt: off
TOUR = (
    ("is_disabled", "b"), ("is_disabled", "c"), ("is_disabled", "unheard of"), ("is_disabled", []),
    ("record_success", "a"), ("record_error", "a", "e" * 501), ("record_error", "new", "first"), ("record_error", "a", 5),
    ("record_error", "a", None), ("record_error", "a", "third"), ("is_disabled", "a"), ("record_success", "a"),
    ("record_success", "new"), ("record_call", "a", None, "ok", TIMED), ("record_call", "new", "x", "no", UNTIMED),
    ("record_call", "new", "x", "no", TIMED), ("record_call", "a", None, "ok", UNFIT), ("limits",), ("cooldown_s",),
    ("has_unsaved_changes",), ("_usage_rows", "a"), ("get_health_summary",), ("_flush_usage",), ("flush",), ("flush",),
    ("record_success", "a"), ("_load",), ("_load_usage",), ("_sqlite_time", NOW), ("_epoch", "2023-11-14 22:13:20"),
    ("_known", "a", "x"), ("thread_census_report", 3, CENSUS), ("handle_get_tool_performance_stats",), ("_Usage", 1),
    ("_ToolState", 1, 2), ("ToolHealthTracker", FakeDatabase(ROWS, DOCUMENT)),
)
# fmt: on


def load(path):
    """The module made anew, as an import makes it."""
    spec = importlib.util.spec_from_file_location(health.__name__, path)
    module = importlib.util.module_from_spec(spec)
    with mock.patch.dict(sys.modules, {spec.name: module}):
        spec.loader.exec_module(module)
    return module


def shown(value):
    """A value as text without addresses and paths; errors that are raised natively have no traceback."""
    return re.sub(r"<traceback.*?>", "None", re.sub(r"0x[0-9a-f]+|id='\d+'|'/[^']*'", "...", repr(value)))


def remembered(tracker):
    """What the tracker has in its fields. Leaves its `__dict__` unasked for."""
    fields = [result(getattr, tracker, name) for name in FIELDS]
    return shown([sorted(field) if type(field) is set else field for field in fields])


def take_step(module, tracker, name, *args):
    time.time = (time.time() + 1.0).conjugate  # a native function, as the real clock
    kwargs = args[-1] if args and isinstance(args[-1], dict) else {}
    answer = result(getattr, module if name in NAMES else tracker, name)
    if callable(answer):
        answer = result(answer, *args[: len(args) - bool(kwargs)], **kwargs)
    if name == "ToolHealthTracker":
        answer = remembered(answer)
    return f"{name} {shown(args):.99}: {shown(answer)}\n  then {remembered(tracker)}\n"


def tour_twice(change, module, tracker):
    database = tracker._repo
    steps = [take_step(module, tracker, *step) for step in TOUR]
    changed = result(change, module, tracker)
    tracker = changed if hasattr(type(changed), "_load") else tracker
    steps += [take_step(module, tracker, *step) for step in TOUR]
    calls = changed if isinstance(changed, tuple) else result(getattr, changed, "mock_calls")
    return f"{''.join(steps)}{shown(calls)}\n{shown(result(getattr, changed, 'notes'))}\n{shown(database.calls)}"


def put(owner, name, value):
    """Put the value in a name's place."""
    setattr(owner, name, value)
    return value


class Looking:
    """Stands for something of the host: asked for an attribute or called, it notes what the tracker remembers; then it
    raises, or answers as what it stands for."""

    def __init__(self, real, tracker, raises):
        self.real, self.tracker, self.raises, self.notes = real, tracker, raises, []

    def look(self, what):
        self.notes.append(f"{what}: {remembered(self.tracker)}\n")
        if self.raises:
            raise ZeroDivisionError(what)

    def __getattr__(self, name):
        self.look(name)
        return getattr(self.real, name)

    def __call__(self, *args):
        self.look("call")
        return self.real(*args)

    def __repr__(self):
        return "Looking"


def watched(value, tracker):
    """The mapping or set, as one that notes whether the lock is held whenever it is touched."""

    def watch(name):
        def call(self, *args):
            notes.add(("read" if name in READS else name, tracker._lock.locked()))
            return getattr(kind, name)(self, *args)

        return call

    kind, notes = type(value), set()
    names = [name for name in dir(kind) if name not in dir(object) and callable(getattr(kind, name))]
    members = {"notes": property(lambda self: sorted(notes)), "__repr__": lambda self: "Watched", **{name: watch(name) for name in names}}
    return type("Watched", (kind,), members)(value)


def manager(leave, bind=staticmethod):
    """A lock that can be entered and left only, and notes what it is told."""

    def __exit__(*told):
        notes.append(told)
        return leave()

    notes = []
    return type("Manager", (), {"__enter__": bind(notes.copy), "__exit__": bind(__exit__), "notes": notes})()


class Unbound:
    """A descriptor that gives a function as it is."""

    def __init__(self, function):
        self.function = function

    def __get__(self, owner, cls):
        return self.function


def fail():
    raise ZeroDivisionError


LOCKS = {
    "RLock": lambda: threading.RLock(),
    "mock": lambda: mock.MagicMock(),
    "static methods": lambda: manager(bool),
    "descriptors": lambda: manager(bool, Unbound),
    "properties": lambda: manager(bool, lambda function: property(lambda self: function)),
    "swallows": lambda: manager(object),
    "cannot be left": lambda: manager(fail),
    "cannot be told whether it swallows": lambda: manager(lambda: mock.MagicMock(__bool__=lambda self: fail())),
    "no __exit__": lambda: type("Half", (), {"__enter__": fail})(),
    "nothing": lambda: None,
}
CONTAINERS = (
    ("_state", OrderedDict), ("_state", UserDict), ("_state", functools.partial(defaultdict, fail)),
    ("_usage", OrderedDict), ("_usage", UserDict), ("_usage", functools.partial(defaultdict, fail)),
    ("_dirty", frozenset), ("_dirty", list), ("_dirty", dict.fromkeys), ("_usage_dirty", str),
)  # fmt: skip
REPLACED = {
    "_SQLITE_TIMESTAMP": "%H",
    "_TOOL_HEALTH_COLUMNS": "columns",
    "TOOL_USAGE_KEY": "key",
    "TOOLS": {"a": SimpleNamespace(action=int)},
    "datetime": type("Later", (datetime,), {}),
    "timezone": SimpleNamespace(utc=timezone(timedelta(hours=1))),
    "is_slow_call": operator.eq,
    "time": SimpleNamespace(time=int),
    "json": SimpleNamespace(dumps=json.dumps, loads=lambda text: [json.loads(ENTRY % "c")]),
}




def own_tracker(module, tracker, **members):
    """A tracker of a host's own class with the same history."""
    return type("Own", (module.ToolHealthTracker,), members)(tracker._repo, tracker._limits)


def note_setting(self, name, value):
    object.__setattr__(self, name, value)
    object.__setattr__(self, "mock_calls", [*getattr(self, "mock_calls", []), name])


def get_with_state(self, name):
    return {} if name == "_usage" else object.__getattribute__(self, name)


def set_first(self, *args):
    self.first = 1
    super(type(self), self).__init__(*args)


def circular(name):
    """A module that is being imported further up."""
    module = types.ModuleType(name)
    module.__spec__ = SimpleNamespace(_initializing=True, name=name)
    return module


STAND_INS = circular, types.ModuleType, {}.get


def import_beside(name, stand_in, module, tracker):
    """The module imported once more, with a stand-in for one that it imports."""
    with mock.patch.dict(sys.modules, {name: stand_in}):
        other = load(module.__file__)
    return "".join(take_step(other, other.ToolHealthTracker(tracker._repo), *step) for step in TOUR)


TRACKERS = {
    "asked for its __dict__": lambda m, t: vars(t),
    "__dict__ written": lambda m, t: vars(t).update(_limits=ToolsConfig(1, 0)),
    "__dict__ replaced": lambda m, t: put(t, "__dict__", {**vars(t), "_state": {}}),
    "__dict__ patched": lambda m, t: mock.patch.dict(vars(t), _usage={}).start(),
    "copied": lambda m, t: copy.copy(t),
    "not initialised": lambda m, t: object.__new__(m.ToolHealthTracker),
    "of another class": lambda m, t: put(t, "__class__", type("Own", (m.ToolHealthTracker,), {"cooldown_s": 0})),
    "subclass": lambda m, t: own_tracker(m, t),
    "subclass with slots": lambda m, t: own_tracker(m, t, __slots__=("_state", "_lock")),
    "subclass with __setattr__": lambda m, t: own_tracker(m, t, __setattr__=note_setting),
    "subclass with __getattribute__": lambda m, t: own_tracker(m, t, __getattribute__=get_with_state),
    "subclass with a property": lambda m, t: own_tracker(m, t, _limits=property(lambda self: 0, lambda self, value: None)),
    "subclass with more fields": lambda m, t: own_tracker(m, t, __init__=set_first),
    "__setattr__ of the class": lambda m, t: put(m.ToolHealthTracker, "__setattr__", note_setting),
    "__getattribute__ of the class": lambda m, t: put(m.ToolHealthTracker, "__getattribute__", get_with_state),
}
RECORD_CHANGES = (  # of a record's class, or a record
    lambda cls, record: vars(record),
    lambda cls, record: vars(record).clear(),
    lambda cls, record: put(record, "__dict__", dict.fromkeys(cls.__match_args__, 1)),
    lambda cls, record: put(record, "note", 1),
    lambda cls, record: put(record, "__class__", type("Own", (cls,), {"__getattribute__": lambda self, name: 3})),
    lambda cls, record: put(cls, "__setattr__", note_setting),
    lambda cls, record: put(cls, "__getattribute__", lambda self, name: 3),
    lambda cls, record: put(cls, "__init__", lambda self, *args, **kwargs: None),
    lambda cls, record: put(cls, "__new__", lambda cls, *args, **kwargs: "no record"),
)


def function(module, name):
    """The function of the module, or of its tracker, under that name; a property's getter."""
    found = vars(module)[name] if name in NAMES else vars(module.ToolHealthTracker)[name]
    return getattr(found, "fget", found)


def described(function):
    """All that tools read off a function."""
    parts = "__name__ __qualname__ __module__ __doc__ __annotations__ __defaults__ __kwdefaults__ __closure__ __dict__"
    code = [getattr(function.__code__, f"co_{name}") for name in ("name", "argcount", "kwonlyargcount", "flags", "freevars")]
    ways = [result(lambda way=way: way(function) is function) for way in COPIES.values()]
    read = [getattr(function, name) for name in parts.split()], inspect.signature(function), inspect.getdoc(function)
    return function, inspect.isfunction(function), read, code, ways, result(typing.get_type_hints, function)


def calls_of_all_kinds(function, tracker):
    """Every number of arguments in order with every few by name, fitting or not."""
    values = {"self": tracker, "repository": tracker._repo, "budget": 10**6}
    names = list(inspect.signature(function).parameters)
    most = [*map(values.get, names), None, None]
    for given, few in itertools.product(range(len(most) + 1), range(5)):
        for keywords in itertools.combinations([*names, "other"], few):
            yield given, keywords, result(function, *most[:given], **{name: values.get(name) for name in keywords})


COPIES = {"copy": copy.copy, "deepcopy": copy.deepcopy}
for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
    COPIES[protocol] = lambda value, protocol=protocol: pickle.loads(pickle.dumps(value, protocol))


def copied(module, tracker):
    record = module._ToolState([1], "text")
    record.note = "more"
    del record.updated_at
    made = [way(record) for way in COPIES.values()]
    return [(type(other), vars(other), other.call_count is record.call_count, other == record) for other in made]


def members_of(cls):
    return list(vars(cls)), inspect.getmembers(cls, inspect.isfunction), cls.__mro__, pydoc.plain(pydoc.render_doc(cls))


QUESTIONS = {
    "names": lambda m, t: [(name, value) for name, value in vars(m).items() if name in NAMES or name[:2] != "__" and name not in HELPERS],
    "documentation": lambda m, t: m.__doc__,
    "members": lambda m, t: [members_of(getattr(m, name)) for name in ("ToolHealthTracker", *RECORDS)],
    "fields": lambda m, t: (vars(t), dir(t), t.__reduce_ex__(2), weakref.ref(t)() is t),
    "dataclasses": lambda m, t: [[dataclasses.fields(getattr(m, name)), str(getattr(m, name).__dataclass_params__)] for name in RECORDS],
    "copies": copied,
    "a pickled tracker": lambda m, t: pickle.dumps(t),
    "dumped": lambda m, t: json.dumps([t._state, list(t._usage.values())], default=vars),
    "compared": lambda m, t: (m._Usage() == m._Usage(0, 0), m._Usage(1) == m._Usage(2), m._Usage() == 0, m._Usage.calls),
    "replaced": lambda m, t: (dataclasses.replace(m._Usage(1), calls=2), dataclasses.asdict(m._Usage(1))),
    "hashed": lambda m, t: hash(m._Usage()),
    "ordered": lambda m, t: m._Usage() < m._Usage(),
    "set": lambda m, t: [result(setattr, t, name, 1) for name in MEMBERS],
    "deleted": lambda m, t: [result(delattr, t, name) for name in MEMBERS],
    "autospec": lambda m, t: mock.create_autospec(m.ToolHealthTracker, instance=True).record_error(),
    "autospec of a function": lambda m, t: mock.create_autospec(m._epoch)(1, 2),
}


REAL_CLOCK = time.time


class Method(ctypes.Structure):
    """How the runtime defines a native function: its name, and what is called."""

    _fields_ = (("name", ctypes.c_char_p), ("call", ctypes.c_void_p))


def method_of(function):
    return ctypes.cast(ctypes.c_void_p.from_address(id(function) + object.__basicsize__), ctypes.POINTER(Method)).contents


class Python(TrackerTest):
    def observe(self, path, case):
        """What the case gives, and the warnings, line by line."""
        self.warning.reset_mock()
        with mock.patch("time.time", NOW.conjugate):
            module = load(path)
            tracker = module.ToolHealthTracker(FakeDatabase(ROWS, DOCUMENT), ToolsConfig())
            with mock.patch.dict(sys.modules, {health.__name__: module}):
                seen = shown(result(case, module, tracker)), shown(self.warning.call_args_list)
            mock.patch.stopall()
        return "\n".join(seen).split("\\n")

    def check(self, case, *names):
        with self.subTest(names):
            ours, plain = (self.observe(path, case) for path in (health.__file__, baseline.__file__))
            if ours != plain:
                self.fail("\n".join(difflib.unified_diff(plain, ours, "plain", "native", n=0))[:3000])

    def check_tour(self, change, *names):
        self.check(functools.partial(tour_twice, change), *names)

    def test_names_are_looked_up_at_each_use(self):
        for name in NAMES:
            self.check_tour(lambda m, t: delattr(m, name), name, "deleted")
        for name in set(NAMES) - {"json"}:
            self.check_tour(lambda m, t: put(m, name, mock.MagicMock(name=name)), name, "mock")
        for name, value in REPLACED.items():
            self.check_tour(lambda m, t: put(m, name, value), name)
        for target in "json.dumps", "threading.Lock", "quorl_dendra.config.ToolsConfig":
            self.check_tour(lambda m, t: mock.patch(target).start(), target)

    def test_members_are_looked_up_at_each_use(self):
        for name in MEMBERS:
            self.check_tour(lambda m, t: mock.patch.object(m.ToolHealthTracker, name, autospec=True).start(), name, "mock")
            self.check_tour(lambda m, t: put(t, name, mock.MagicMock(name=name)), name, "of the tracker")
            self.check_tour(lambda m, t: delattr(m.ToolHealthTracker, name), name, "deleted")

    def test_fields_are_instance_attributes(self):
        for name in FIELDS:
            self.check_tour(lambda m, t: delattr(t, name), name, "deleted")
            self.check_tour(lambda m, t: vars(t).pop(name), name, "popped")
        for name in set(FIELDS) - {"_repo", "_state", "_usage"}:
            self.check_tour(lambda m, t: put(t, name, mock.MagicMock(name=name)), name, "mock")
            self.check_tour(lambda m, t: put(m.ToolHealthTracker, name, property(lambda self: t)), name, "property")
        for name, change in TRACKERS.items():
            self.check_tour(change, name)

    def test_records_are_plain_dataclasses(self):
        for name, field in RECORDS.items():
            for change in RECORD_CHANGES:
                self.check_tour(lambda m, t: change(getattr(m, name), next(iter(getattr(t, field).values()))), name, change)
            for part in getattr(health, name).__match_args__:
                self.check_tour(lambda m, t: delattr(next(iter(getattr(t, field).values())), part), name, part, "deleted")
                self.check_tour(lambda m, t: delattr(getattr(m, name), part), name, part, "default deleted")
                self.check_tour(lambda m, t: put(getattr(m, name), part, property(lambda self: 7)), name, part, "property")

    def test_functions_are_python_functions(self):
        for name in [*OWN[:2], "_known", *OWN[-2:], *MEMBERS]:
            if name != "cooldown_s":
                self.check_tour(lambda m, t: put(function(m, name), "__code__", (lambda *a, **k: (a, k)).__code__), name, "code")
            self.check_tour(lambda m, t: put(function(m, name), "__defaults__", ("a", "b", "c")), name, "defaults")
            self.check_tour(lambda m, t: put(function(m, name), "__kwdefaults__", TIMED), name, "defaults by name")
            self.check(lambda m, t: described(function(m, name)), name)
            self.check(lambda m, t: list(calls_of_all_kinds(function(m, name), t)), name, "arguments")

    def test_questions(self):
        for name, question in QUESTIONS.items():
            self.check(question, name)

    def test_any_mapping_set_and_lock(self):
        for name, make in CONTAINERS:
            self.check_tour(lambda m, t: put(t, name, make(getattr(t, name))), name, make)
        for name in "_state", "_usage", "_dirty":
            self.check_tour(lambda m, t: put(t, name, watched(getattr(t, name), t)), name, "watched")
        for name, make in LOCKS.items():
            self.check_tour(lambda m, t: put(t, "_lock", make()), name)

    def test_steps_take_effect_in_their_order(self):
        for name, raises in itertools.product([*(set(NAMES) - {"datetime", "timezone", "_sqlite_time"}), "_repo", "_limits", "_lock", "_dirty"], (True, False)):
            owner = operator.itemgetter(name not in NAMES)
            self.check_tour(lambda *of: put(owner(of), name, Looking(getattr(owner(of), name), of[1], raises)), name, raises)

    def test_an_import_fails_as_its_statements_do(self):
        for name, make in itertools.product(IMPORTED, STAND_INS):
            self.check(functools.partial(import_beside, name, make(name)), name, make)
        for lock_type in None, type("Odd", (), {"locked": dict.items, "acquire": dict.get}), threading.RLock:
            stand_in = types.ModuleType("_thread")
            stand_in.LockType = lock_type
            self.check(functools.partial(import_beside, "_thread", stand_in), lock_type)

    def test_a_clock_that_is_stopped_in_native_code_is_heard(self):
        clock, other = map(method_of, (REAL_CLOCK, time.process_time))
        self.addCleanup(setattr, clock, "call", clock.call)
        time.time = REAL_CLOCK
        tracker = self.make()
        tracker.record_success("a")
        clock.call = other.call
        tracker.record_success("a")
        self.assertLess(tracker._state["a"].updated_at, NOW)

    def test_only_trackers_are_served(self):
        stranger = SimpleNamespace(**vars(self.make()))
        for name in MEMBERS:
            with self.subTest(name), self.assertRaisesRegex(TypeError, "doesn't apply to a 'types.SimpleNamespace' object"):
                function(health, name)(**dict.fromkeys(inspect.signature(function(health, name)).parameters) | {"self": stranger})
        self.assertEqual(self.db.calls, [])
