"""A host that looks closely sees a module written in Python."""
# Each case is done to the module and to its plain version, both loaded afresh under one name over one host: what can be
# seen must be the same. A case is a function of such a module and of a tracker with a history. Changes are made between
# two tours through all operations, the second of which is compared step by step; a tracker that a change returns takes
# the first one's place, and of what else it returns the `notes` or the `mock_calls` are compared. What a case does to
# its module needs no undoing.

import contextlib
import copy
import ctypes
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
from collections import OrderedDict, UserDict, defaultdict
from datetime import datetime, timedelta, timezone
from functools import partial
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.config import ToolsConfig
from harness import CENSUS, FIELDS, KEY, OPERATIONS, REAL_CLOCK, World, load, remembered, shown
from support import TrackerTest, baseline, count, health, result

NAMES = [name for name in vars(health) if name[:2] != "__"]
MEMBERS = [name for name in vars(health.ToolHealthTracker) if name == "__init__" or name[:2] != "__"]
FUNCTIONS = ["_sqlite_time", "_epoch", "_known", *NAMES[-2:], *MEMBERS]
RECORDS = {"_ToolState": "_state", "_Usage": "_usage"}
IMPORTED = "quorl_dendra.config", "quorl_dendra.utils.process", "json", "threading", "time", "dataclasses", "datetime"
UNDO = contextlib.ExitStack()
HELPERS = {"annotations", "Iterable", "_entries", "_rows", "_worst_first", "_record"}  # the plain version's own


def walk(world):
    # Do all operations one after another; their names, each once it is done.
    for name, operation in OPERATIONS.items():
        world.repair()
        result(operation.begin, world)
        world.outcome = shown(result(operation.call, world))
        yield name


def tour(world):
    # What all operations come to, one after another.
    return {f"{name}: {part}": text for name in walk(world) for part, text in world.account().items()}


def tour_twice(change, world):
    for _ in walk(world):
        pass
    changed = result(change, world.module, world.tracker)
    if hasattr(type(changed), "_load"):
        world.tracker = changed
    account = tour(world)
    seen = {name: shown(result(getattr, changed, name)) for name in ("notes", "mock_calls")}
    return account | {name: re.sub(r"__le__\(.*?\)", "__le__(seconds)", text) for name, text in seen.items()}


def assign(owner, name, value):
    # Put the value in a name's place.
    setattr(owner, name, value)
    return value


def assign_for_now(owner, name, value):
    # The same of what all modules share.
    UNDO.callback(setattr, owner, name, getattr(owner, name))
    return assign(owner, name, value)


def manager(leave, bind=staticmethod):
    # A lock that can be entered and left only, and notes what it is told.

    def __exit__(*told):
        notes.append((*told, sys.exc_info()[1]))
        return leave()

    notes = []
    return type("Manager", (), {"__enter__": bind(notes.copy), "__exit__": bind(__exit__), "notes": notes})()


def bound_to_nothing(function):
    return property(lambda self: function)


def fail():
    raise ZeroDivisionError


# Keeps values as they are when they are put in.
Copying = type("Copying", (dict,), {"__setitem__": lambda self, key, value: self.update({key: copy.copy(value)})})
OTHER_FIELDS = (  # and what is put in their places, made of what was there
    *itertools.product(["_state", "_usage"], [OrderedDict, UserDict, lambda _: Copying(), partial(defaultdict, fail)]),
    *itertools.product(["_dirty"], [frozenset, list, dict.fromkeys]),
    ("_dirty", type("Forgetful", (set,), {"update": set.intersection_update})),
    ("_lock", lambda lock: threading.RLock()),
    ("_lock", lambda lock: mock.MagicMock()),
    ("_lock", lambda lock: manager(bool)),
    ("_lock", lambda lock: manager(bool, bound_to_nothing)),
    ("_lock", lambda lock: manager(object)),  # which swallows
    ("_lock", lambda lock: manager(fail)),
    ("_lock", lambda lock: manager(type("Torn", (), {"__bool__": fail}))),
    ("_lock", lambda lock: type("Half", (), {"__enter__": fail})()),
    ("_lock", lambda lock: None),
)


def borrow(module, tracker):
    # The function of another import, which has other tools.
    other = load(module.__file__)
    other.TOOLS = {}
    module._known = other._known


def own(module, tracker, **members):
    # A tracker of a host's own class with the same history.
    return type("Own", (module.ToolHealthTracker,), members)(tracker._repo, tracker._limits)


def note_setting(self, name, value):
    object.__setattr__(self, name, value)
    object.__setattr__(self, "notes", [*getattr(self, "notes", []), name])


def hide_usage(self, name):
    return {} if name == "_usage" else object.__getattribute__(self, name)


def exhaust(*_):
    raise MemoryError


def make_descriptor_later(module, tracker):
    # Of what stands in a class of records, once it has been used.
    later = type("Later", (), {})
    module._ToolState.call_count = later()
    tracker.record_success("a")
    later.__get__, later.__set__ = (lambda self, record, cls: 41), (lambda self, record, value: None)


def set_first(self, *args):
    self.first = 1
    super(type(self), self).__init__(*args)


def read_in_order(module, tracker):
    # Reading the threshold ends the run of errors; there is no cooldown.
    threshold = property(lambda self: setattr(tracker._state["a"], "consecutive_errors", 0) or 1)
    tracker._limits = type("Limits", (), {"disable_after_errors": threshold})()


TRACKER_CHANGES = (
    lambda m, t: vars(t),
    lambda m, t: vars(t).update(_limits=ToolsConfig(1, 0)),
    lambda m, t: assign(t, "_limits", type("Exhausted", (), {"__getattr__": exhaust})()),
    lambda m, t: assign(t, "__dict__", {**vars(t), "_state": {}}),
    lambda m, t: mock.patch.dict(vars(t), _usage={}).start(),
    lambda m, t: copy.copy(t),
    lambda m, t: (delattr(m, "is_slow_call"), mock.patch("builtins.is_slow_call", operator.eq, create=True).start()),
    lambda m, t: m.ToolHealthTracker(t._repo, 0),
    lambda m, t: object.__new__(m.ToolHealthTracker),
    lambda m, t: assign(t, "__class__", type("Own", (m.ToolHealthTracker,), {"cooldown_s": 0})),
    lambda m, t: own(m, t, __slots__=("_state", "_lock")),
    lambda m, t: own(m, t, __setattr__=note_setting),
    lambda m, t: own(m, t, __getattribute__=hide_usage),
    lambda m, t: own(m, t, _limits=property(lambda self: 0, lambda self, value: None)),
    lambda m, t: own(m, t, __init__=set_first),
    lambda m, t: vars(m.ToolHealthTracker)["cooldown_s"].__init__(lambda self: 0),
    make_descriptor_later,
    read_in_order,
    lambda m, t: assign(m.ToolHealthTracker, "__setattr__", note_setting) and t,
    lambda m, t: assign(m.ToolHealthTracker, "__getattribute__", hide_usage),
)
RECORD_CHANGES = (  # of a class of records, or of a record
    lambda cls, record: vars(record),
    lambda cls, record: vars(record).clear(),
    lambda cls, record: assign(record, "__dict__", dict.fromkeys(cls.__match_args__, 1)),
    lambda cls, record: assign(record, "note", 1),
    lambda cls, record: assign(record, "__class__", type("Own", (cls,), {"__getattribute__": lambda self, name: 3})),
    lambda cls, record: assign(cls, "__setattr__", lambda self, name, value: None),
    lambda cls, record: assign(cls, "__getattribute__", lambda self, name: 3),
    lambda cls, record: assign(cls, "__init__", lambda self, *args, **kwargs: None),
    lambda cls, record: assign(cls.__init__, "__defaults__", (7,) * len(cls.__match_args__)),
    lambda cls, record: assign(cls, "__new__", lambda cls, *args, **kwargs: "no record"),
)


def function_of(module, name):
    # The function of the module, or of its tracker, under that name; a property's getter.
    found = vars(module)[name] if name in NAMES else vars(module.ToolHealthTracker)[name]
    return getattr(found, "fget", found)


OTHER_PARTS = {
    "__defaults__": ("a", "b", "c"),
    "__kwdefaults__": {"alias_hit": True, "duration_ms": 2.25},
    "__code__": (lambda *args, **kwargs: (args, kwargs)).__code__,
}


def described(function):
    # All that tools read off a function.
    names = {*dir(function)} - {"__builtins__", "__globals__", "__code__"}
    parts = [(name, getattr(function, name)) for name in sorted(names)]
    code = [getattr(function.__code__, f"co_{name}") for name in ("name", "argcount", "kwonlyargcount", "flags")]
    ways = inspect.isfunction, inspect.signature, typing.get_type_hints, copy.deepcopy, pickle.dumps
    return parts, code, [result(way, function) for way in ways]


def calls_of_all_kinds(function, tracker):
    # Every number of arguments in order with every few by name, fitting or not.
    values = {"self": tracker, "repository": tracker._repo, "budget": 10**6}
    names = list(inspect.signature(function).parameters)
    most = [*map(values.get, names), None, None]
    for given, few in itertools.product(range(len(most) + 1), range(5)):
        for named in itertools.combinations([*names, "other"], few):
            yield given, named, result(function, *most[:given], **{name: values.get(name) for name in named})


def copied(module, tracker):
    # Copies of a record with a field deleted and an attribute of a host's own.
    record = module._ToolState([1], "text")
    record.note = [2]
    del record.updated_at
    pickles = [pickle.dumps(record, protocol) for protocol in range(pickle.HIGHEST_PROTOCOL + 1)]
    others = copy.copy(record), copy.deepcopy(record), *map(pickle.loads, pickles)
    return [(type(other), vars(other)) for other in others]


def key_without_end(module, tracker):
    # Is told from one of the right length without being read on and on.
    tracker._usage[range(10**15)] = module._Usage()
    tracker._usage_dirty = True
    return result(tracker.get_health_summary), result(tracker.flush)


def lent(module, tracker):
    # The methods serve any object with the fields.
    stranger = mock.MagicMock(**vars(tracker))
    members = [function_of(module, name) for name in MEMBERS]
    given = [(), ("b",), ("b", "a")]
    return [result(member, stranger, *names) for member in members for names in given], remembered(stranger)


def stored_as_an_attribute(module, tracker):
    # That drops the old record before the dictionary has another version. A weak reference then calls the tracker.
    holder = type("Holder", (), {})()
    holder.__dict__ = tracker._state

    def store():
        holder.a = module._ToolState()

    for _ in range(30):  # until the interpreter does it its fast way
        store()
        tracker.record_success("a")
    reference = weakref.ref(tracker._state["a"], lambda _: tracker.record_success("a"))
    store()
    return reference(), tracker._state["a"].call_count


def rounded_once(module, tracker):
    # A total that rounds to a float of many digits.
    tracker._usage[KEY].total_ms = type("Rough", (float,), {"__round__": float.__truediv__})(1)
    tracker._usage_dirty = True
    tracker.flush()
    return tracker._repo.execute.__self__.items()


def described_class(cls):
    return list(vars(cls)), inspect.getmembers(cls, inspect.isfunction), cls.__mro__, pydoc.plain(pydoc.render_doc(cls))


QUESTIONS = (
    lambda m, t: [pair for pair in vars(m).items() if pair[0][:2] != "__" and pair[0] not in HELPERS],
    lambda m, t: [described_class(getattr(m, name)) for name in ("ToolHealthTracker", *RECORDS)],
    lambda m, t: (m.__doc__, vars(t), dir(t), t.__reduce_ex__(2)),
    lambda m, t: [(result(setattr, t, name, 1), result(delattr, t, name)) for name in MEMBERS],
    lambda m, t: mock.create_autospec(m.ToolHealthTracker, instance=True).record_error(),
    lambda m, t: [(count(t, tool), tool.mock_calls) for tool in [mock.MagicMock()] * 3],
    lambda m, t: m.thread_census_report(5, SimpleNamespace(**CENSUS))["python_by_name"] is CENSUS["python_threads"],
    key_without_end,
    stored_as_an_attribute,
    rounded_once,
    lent,
    copied,
)


def import_beside(name, stand_in, world):
    # The module imported once more, with a stand-in for one that it imports.
    with mock.patch.dict(sys.modules, {name: stand_in}):
        other = load(world.module.__file__)
    return tour(World(other))


class Python(TrackerTest):
    def observe(self, path, act):
        # What the case gives, and the warnings.
        self.warning.reset_mock()
        with mock.patch("time.time", REAL_CLOCK), UNDO:
            world = World(load(path))
            with mock.patch.dict(sys.modules, {health.__name__: world.module}):
                found = result(act, world)
            mock.patch.stopall()
        account = found if isinstance(found, dict) else {"answer": shown(found)}
        warnings = [(record.funcName, record.msg, record.args) for (record,), _ in self.warning.call_args_list]
        return account | {"warnings": shown(warnings)}

    def check(self, act, *names):
        self.check_same(self.observe(health.__file__, act), self.observe(baseline.__file__, act), *names)

    def ask(self, question, *names):
        self.check(lambda world: question(world.module, world.tracker), *names)

    def check_tour(self, change, *names):
        self.check(partial(tour_twice, change), *names)

    def test_names_are_looked_up_at_each_use(self):
        self.check_tour(lambda m, t: None)
        encoder = "json.JSONEncoder", "json.JSONEncoder.encode", "json.encoder.encode_basestring_ascii"
        for target in "json.dumps", *encoder, "threading.Lock":
            self.check_tour(lambda m, t: mock.patch(target).start(), target)
        self.check_tour(lambda m, t: mock.patch("json.dumps.__kwdefaults__", {}).start())
        self.check_tour(lambda m, t: mock.patch.dict(json.dumps.__kwdefaults__, ensure_ascii=False).start())
        for function in json.dumps, json.loads:
            code = (lambda *args, **kwargs: []).__code__
            self.check_tour(lambda m, t: assign_for_now(function, "__code__", code), function)
        loud = type("Loud", (types.ModuleType,), {"time": property(lambda self: lambda: 7.0, lambda self, value: None)})
        self.check_tour(lambda m, t: assign_for_now(time, "__class__", loud))
        for target in "json.loads", "json.JSONDecoder.decode", "json._default_decoder.decode":
            self.check_tour(lambda m, t: mock.patch(target, lambda *_: []).start(), target)
        self.check_tour(lambda m, t: assign(m, "_SQLITE_TIMESTAMP", "%H"))
        self.check_tour(lambda m, t: assign(m, "time", sys.modules["datetime"]))  # which has a class of that name
        self.check_tour(borrow)
        self.check_tour(lambda m, t: assign(m, "datetime", type("Later", (datetime,), {})))
        self.check_tour(lambda m, t: assign(m, "timezone", SimpleNamespace(utc=timezone(timedelta(hours=1)))))

    def test_members_are_looked_up_at_each_use(self):
        for name in MEMBERS:
            self.check_tour(lambda m, t: mock.patch.object(m.ToolHealthTracker, name, autospec=True).start(), name)
            self.check_tour(lambda m, t: assign(t, name, mock.MagicMock(name=name)), name, "of the tracker")
            self.check_tour(lambda m, t: delattr(m.ToolHealthTracker, name), name, "deleted")

    def test_fields_are_instance_attributes(self):
        for name in set(FIELDS) - {"_repo", "_state", "_usage"}:  # which are walked over by other methods
            self.check_tour(lambda m, t: assign(m.ToolHealthTracker, name, property(lambda self: t)), name, "property")
        for number, change in enumerate(TRACKER_CHANGES):
            self.check_tour(change, number)

    def test_any_mapping_set_and_lock_will_do(self):
        for number, (name, make) in enumerate(OTHER_FIELDS):
            self.check_tour(lambda m, t: assign(t, name, make(getattr(t, name))), name, number)

    def test_records_are_plain_dataclasses(self):
        for name, field in RECORDS.items():

            def check(change, *names, name=name, field=field):
                def of_first(module, tracker):
                    return change(getattr(module, name), next(iter(getattr(tracker, field).values())))

                self.check_tour(of_first, name, *names)

            for number, change in enumerate(RECORD_CHANGES):
                check(change, number)
            for part in getattr(health, name).__match_args__:
                check(lambda cls, record, part=part: delattr(cls, part), part, "default deleted")
                check(lambda cls, record, part=part: assign(cls, part, property(lambda self: 7)), part, "property")

    def test_functions_are_python_functions(self):
        for name in FUNCTIONS:
            self.ask(lambda m, t: described(function_of(m, name)), name)
            self.ask(lambda m, t: list(calls_of_all_kinds(function_of(m, name), t)), name, "arguments")
            for part, value in OTHER_PARTS.items():
                self.check_tour(lambda m, t: assign(function_of(m, name), part, value), name, part)

    def test_code_that_a_tool_has_rewritten_runs(self):
        known = load(health.__file__)._known
        known.__code__ = known.__code__.replace(co_code=(lambda tool, action: tool).__code__.co_code)
        self.assertEqual(known("a", None), "a")
        self.assertRaises(TypeError, known.__code__.co_consts[1].call, "a")  # of two arguments

    def test_code_that_is_replaced_while_it_runs_comes_to_its_end(self):
        """Although nothing else holds what it works with."""

        def replace(name):
            for other in FUNCTIONS:
                function_of(module, other).__code__ = (lambda: None).__code__
            return SimpleNamespace(action={"x": 1}.get)

        module = load(health.__file__)
        module.TOOLS = SimpleNamespace(get=replace)
        self.assertIs(module._known("a", "x"), True)

    def test_questions_have_the_same_answers(self):
        for number, question in enumerate(QUESTIONS):
            self.ask(question, number)

    def test_an_import_fails_as_its_statements_do(self):
        for name in IMPORTED:
            for stand_in in None, types.ModuleType(name):
                self.check(partial(import_beside, name, stand_in), name, stand_in)
        odd = type("Odd", (), {"locked": dict.items, "acquire": dict.get})
        for lock_type in None, dict, odd, type(threading.RLock()):
            stand_in = SimpleNamespace(LockType=lock_type)
            self.check(partial(import_beside, "_thread", stand_in), lock_type)

    def test_an_import_does_nothing_but_import(self):
        """It opens no file and no database, and starts no thread; and it binds no `__all__`."""
        heard, is_heard = set(), False
        sys.addaudithook(lambda event, args: heard.add(event) if is_heard else None)
        for path in health.__file__, baseline.__file__:
            is_heard = True
            module = load(path)
            is_heard = False
            self.assertFalse(hasattr(module, "__all__"))
        self.assertLessEqual(heard, {*"import exec compile marshal.loads code.__new__ object.__setattr__".split()})

    def test_a_clock_that_is_stopped_in_native_code_takes_effect(self):
        """And runs under the lock, as any that is not the runtime's own, also where it was there at import."""

        @ctypes.PYFUNCTYPE(ctypes.py_object, *[ctypes.c_void_p] * 2)
        def stopped(*_):
            held.append(tracker._lock.locked())
            return 7.0

        time.time = REAL_CLOCK
        definition = ctypes.c_void_p.from_address(id(REAL_CLOCK) + object.__basicsize__).value
        code = ctypes.c_void_p.from_address(definition + ctypes.sizeof(ctypes.c_char_p))
        self.addCleanup(setattr, code, "value", code.value)
        trackers = [self.make()]
        for _ in range(3):
            trackers[0].record_success("a")
        code.value = ctypes.cast(stopped, ctypes.c_void_p).value
        trackers.append(World(load()).tracker)
        for tracker in trackers:
            held = []
            for _ in range(3):
                tracker.record_success("a")
            self.assertEqual((held, tracker._state["a"].updated_at), ([True] * 3, 7.0))
