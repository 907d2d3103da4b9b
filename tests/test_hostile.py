"""Hostile values: objects that raise, call back, or change the tracker under its feet wherever it uses them.

What could crash runs in other processes, so that it is one failed case; the last line of their output names it.
"""

import functools
import gc
import itertools
import json
import os
import threading
import unittest
from types import SimpleNamespace
from unittest import mock

from support import NOW_TEXT, PATIENCE_S, FakeDatabase, TrackerTest, count, health, result, run_child

SPECIAL = """eq ne lt le gt ge bool index int float str repr format hash len iter getitem contains neg round add radd
 iadd sub rsub truediv rtruediv enter exit getattr""".split()
FIELDS = "_repo", "_limits", "_lock", "_state", "_dirty", "_usage", "_usage_dirty"
RECORD_FIELDS = *health._ToolState.__annotations__, *health._Usage.__annotations__
ROW = "a", 5, 3, "bad", NOW_TEXT, NOW_TEXT
ENTRY = {"tool": "a", "action": "x", "outcome": "ok", "alias_hit": True, "calls": 3, "timed_calls": 2, "total_ms": 2.5}
LIMITS = {"disable_after_errors": 2, "disable_cooldown_s": 60}
MANY = 20_000 if os.environ.get("PYTHONMALLOC") == "malloc" else 160_000  # a sanitizer takes its time


class Odd:
    """Does ``Odd.act()`` at each use while that is set, and else what its value does; but it equals nothing."""

    act = None

    def __init__(self, value=3):
        self.value = value

    def __del__(self):
        strike()


class OddText(str):
    """The same for a text."""

    value = "a"


def strike():
    act, Odd.act = Odd.act, None  # it does not act on itself
    try:
        if act:
            act()
    finally:
        Odd.act = act


def use(name, self, *args):
    strike()
    if name in ("__eq__", "__ne__"):
        return name == "__ne__"
    return getattr(type(self.value), name)(self.value, *args)  # no __getattr__: an AttributeError


for odd_type, special in itertools.product((Odd, OddText), SPECIAL):
    name = f"__{special}__"
    setattr(odd_type, name, lambda self, *args, _name=name: use(_name, self, *args))


class World:
    """A tracker with a history, and all that odd values do to it."""

    def __init__(self, make_lock=threading.Lock):
        document = json.dumps([ENTRY, ENTRY | {"tool": "b", "action": None}])
        self.db = FakeDatabase([ROW, ("b", 1, 0, None, None, NOW_TEXT)], document)
        self.tracker = health.ToolHealthTracker(self.db, SimpleNamespace(**LIMITS))
        self.lock = self.tracker._lock = make_lock()
        for tool in "ab":
            self.tracker.record_success(tool)
            count(self.tracker, tool, duration_ms=1.5)

    def records(self):
        return [*self.tracker._state.values(), *self.tracker._usage.values()]

    def fail(self):
        raise OSError("hostile")

    def clear(self):
        for name in ("_state", "_usage", "_dirty"):
            getattr(self.tracker, name, set()).clear()

    def rebind(self):
        for name, value in zip(FIELDS, (None, None, threading.Lock(), {}, set(), {}, False), strict=True):
            setattr(self.tracker, name, value)

    def delete(self):
        for name in FIELDS:
            result(delattr, self.tracker, name)

    def unfit(self):
        for name in FIELDS:
            setattr(self.tracker, name, 5)

    def grow(self):
        for number in range(40):
            self.tracker._state[f"more{number}"] = health._ToolState()
            self.tracker._usage[f"more{number}", None, "ok", False] = health._Usage()
            self.tracker._dirty.add(f"more{number}")

    def spoil(self):
        for record in self.records():
            for name in RECORD_FIELDS:
                result(delattr, record, name)
            record.__class__ = type("Other", (type(record),), {"calls": property(len), "call_count": 7})

    def re_enter(self):
        """Needs a lock that lets its holder in again."""
        for operate in (*OPERATIONS.values(), *OPERATIONS.values()):
            result(operate, self.tracker)


ACTS = "fail", "clear", "rebind", "delete", "unfit", "grow", "spoil", "re_enter"


def put_in_keys(world, odd):
    tracker = world.tracker
    tracker._state = {odd: health._ToolState()} | tracker._state
    tracker._usage = {(odd, None, "ok", False): health._Usage(1)} | tracker._usage
    tracker._dirty = {odd, *tracker._dirty}


def put_as_key(world, odd):
    odd.value = "a", None, "ok", False
    world.tracker._usage = {odd: health._Usage(1)} | world.tracker._usage


def put_in_records(names, world, odd):
    for record, name in itertools.product(world.records(), names):
        setattr(record, name, odd)


# How an odd value gets into a place, by the place's name.
PLACES = {
    "keys": put_in_keys,
    "a key": put_as_key,
    **{name: functools.partial(put_in_records, [name]) for name in RECORD_FIELDS},
    "records": functools.partial(put_in_records, RECORD_FIELDS),
    "settings": lambda world, odd: setattr(world.tracker, "_limits", odd),
    "a setting": lambda world, odd: vars(world.tracker.limits).update(dict.fromkeys(LIMITS, odd)),
    "a mark": lambda world, odd: setattr(world.tracker, "_usage_dirty", odd),
    "the lock": lambda world, odd: setattr(world.tracker, "_lock", odd),
    "the repository": lambda world, odd: setattr(world.tracker, "_repo", odd),
    "rows": lambda world, odd: vars(world.db).update(rows=[ROW, (odd,) * 6, odd], answer=(odd,)),
    "the registry": lambda world, odd: setattr(health, "TOOLS", odd),
    "the clock": lambda world, odd: setattr(health.time, "time", lambda: (strike(), odd)[1]),
    "what is slow": lambda world, odd: setattr(health, "is_slow_call", lambda tool, action: (strike(), odd)[1]),
    "new records": lambda world, odd: vars(health).update(dict.fromkeys(("_ToolState", "_Usage"), lambda *args: odd)),
    "arguments": lambda world, odd: ARGUMENT.append(odd),
}
ARGUMENT = []  # what the operations take where it holds something


def given(standard):
    return ARGUMENT[0] if ARGUMENT else standard


OPERATIONS = {
    "count": lambda tracker: count(tracker, given("a"), None, given("ok"), given(False), 2.5),
    "count a duration": lambda tracker: count(tracker, "new", duration_ms=given(2)),
    "succeed": lambda tracker: tracker.record_success(given("a")),
    "err": lambda tracker: tracker.record_error(given("b"), given("text")),
    "ask": lambda tracker: tracker.is_disabled(given("a")),
    "rows": lambda tracker: tracker._usage_rows(given("a")),
    "summary": lambda tracker: tracker.get_health_summary(),
    "flush": lambda tracker: tracker.flush(),
    "changes": lambda tracker: tracker.has_unsaved_changes,
    "load": lambda tracker: tracker._load(),
    "load usage": lambda tracker: tracker._load_usage(),
    "known": lambda tracker: health._known(given("a"), given("x")),
    "times": lambda tracker: (result(health._epoch, given("x")), health._sqlite_time(given(5))),
    "census": lambda tracker: health.thread_census_report(given(1)),
}


def sweep(act):
    """An odd value acts in every place of every operation."""
    host = {name: getattr(health, name) for name in ("TOOLS", "is_slow_call", "_Usage", "_ToolState")}
    for place, operation, kind in itertools.product(PLACES, OPERATIONS, (Odd, OddText)):
        print(act, place, operation, kind.__name__, flush=True)
        with mock.patch.multiple(health, **host), mock.patch("time.time", health.time.time):
            world = World(threading.RLock if act == "re_enter" else threading.Lock)
            result(PLACES[place], world, kind("a") if kind is OddText else kind())
            Odd.act = getattr(world, act)
            outcome = result(OPERATIONS[operation], world.tracker)
            ARGUMENT.clear()
            assert not (isinstance(outcome, tuple) and outcome[0] is SystemError), outcome
            outcome = Odd.act = None
        check_sound(world)
    gc.collect()
    print("done")


def check_sound(world):
    """The lock is free, and the tracker counts, once its fields are fit again."""
    assert world.lock.acquire(blocking=False), "the lock is held"
    world.lock.release()
    tracker = world.tracker
    tracker._lock, tracker._limits = world.lock, SimpleNamespace(**LIMITS)
    for name, kind in {"_state": dict, "_usage": dict, "_dirty": set}.items():
        if not isinstance(getattr(tracker, name, None), kind):
            setattr(tracker, name, kind())
    for _ in range(2):
        count(tracker, "z", duration_ms=1.5)
        tracker.record_error("z", "bad")
    assert tracker._usage["z", None, "ok", False] == health._Usage(2, 2, 3.0)
    assert tracker.is_disabled("z") == (True, "bad") and "z" in tracker._dirty
    tracker.__init__(FakeDatabase())
    tracker.record_success("z")
    assert [record["call_count"] for record in tracker.get_health_summary()] == [1]
    assert tracker.flush() == 1


# Each calls itself, by way of the runtime alone where it can.
RECURSIONS = """
tracker._flush_health = tracker.flush; tracker.flush()
Tracker.disable_cooldown_s = Tracker.cooldown_s; tracker._limits = tracker; tracker.cooldown_s
Tracker._load = lambda self: self.__init__(None); Tracker(None)
Tracker.__bool__ = health._epoch; health._epoch(tracker)
Tracker.__hash__ = functools.partial(health._known, tracker, None); hash(tracker)
health.TOOLS = SimpleNamespace(get=functools.partial(health._known, 1)); health._known(1, 2)
health.thread_census = functools.partial(health.thread_census_report, 1); health.thread_census()
health.get_timing_collector = health.handle_get_tool_performance_stats; health.get_timing_collector()
"""
RECURSION = """
class Tracker(health.ToolHealthTracker): pass
tracker = Tracker(FakeDatabase())
try:
    {}
except RecursionError:
    print("done")
"""
# Makes a chain longer by one link.
CHAINS = """
link = health._ToolState(last_error=link)
link = health._Usage(calls=[link])
link, link.more = Usage(), link
link, link._repo = Tracker.__new__(Tracker), link
link, link._limits = health.ToolHealthTracker.__new__(health.ToolHealthTracker), (link,)
link, link.more = health.ToolHealthTracker.__new__(health.ToolHealthTracker), link
"""
CHAIN = """
class Usage(health._Usage):
    __slots__ = "slot"
    def __del__(self): pass
class Tracker(health.ToolHealthTracker):
    def __del__(self): pass
link = None
for _ in range(200_000):
    {}
del link
print("done")
"""
# A callback counts the key first; what it counted is replaced then, and adds a key as it dies.
REPLACED_MEANWHILE = """
class Dying:
    def __init__(self, add):
        self.__class__.__del__ = lambda dying: add()
class Text(str):
    __hash__ = str.__hash__
    def __eq__(self, other):
        raise OSError
class Duration:
    def __radd__(self, total):
        tracker._lock = threading.Lock()
        count(tracker, "new")
        tracker._usage[KEY].total_ms = Dying(lambda: tracker._usage.update({("b", *KEY[1:]): health._Usage(7)}))
        return total + 1
def clock():
    health.time.time = own_clock
    tracker._lock = threading.Lock()
    tracker.record_success("new")
    tracker._state["new"].last_error = Dying(lambda: tracker._state.update({Text("odd"): health._ToolState()}))
    return 1.0
KEY, tracker, own_clock = ("new", None, "ok", False), health.ToolHealthTracker(FakeDatabase()), health.time.time
count(tracker, "".join(["n", "ew"]), duration_ms=Duration())
gc.collect()
count(tracker, "new")
count(tracker, "b")
assert [record.calls for record in tracker._usage.values()] == [2, 8], tracker._usage
health.time.time = clock
tracker.record_success("".join(["n", "ew"]))
assert result(tracker.is_disabled, "odd")[0] is OSError
print("done")
"""


class HostileTest(TrackerTest):
    def run_apart(self, code):
        """The code comes to its end in a process of its own."""
        prelude = f"""
import faulthandler, functools, sys
from test_hostile import *
faulthandler.dump_traceback_later({PATIENCE_S - 5}, exit=True)
sys.unraisablehook = lambda unraisable: None
"""
        ended = run_child(prelude + code)
        last = ended.stdout.splitlines()[-1:]
        if ended.returncode or last != ["done"]:
            self.fail(f"status {ended.returncode} after {last}: {ended.stderr[-3000:]}")

    def test_odd_values_everywhere(self):
        for act in ACTS:
            with self.subTest(act):
                self.run_apart(f"sweep({act!r})")

    def test_operations_that_call_themselves_end_in_an_error(self):
        for code in RECURSIONS.strip().splitlines():
            with self.subTest(code):
                self.run_apart(RECURSION.format(code))

    def test_chains_of_any_length_are_dropped(self):
        for code in CHAINS.strip().splitlines():
            with self.subTest(code):
                self.run_apart(CHAIN.format(code))

    def test_a_key_that_a_callback_counted_first(self):
        self.run_apart(REPLACED_MEANWHILE)

    def test_every_changed_character_of_a_document(self):
        """What the module writes is read natively; with a blank before it, by the runtime's parser."""
        document = json.dumps([ENTRY, ENTRY | {"action": None, "calls": -120, "total_ms": -0.5}], separators=(",", ":"))
        self.enterContext(mock.patch.object(health, "_known", lambda tool, action: True))
        tracker = self.make()
        self.assertNotEqual(self.read(tracker, document), ("{}", 0))
        for place, new in itertools.product(range(len(document) + 1), ["", *'019-.eE"\\,:{}[] n\0\x7f\x80é\ud800']):
            for rest in (place, place + 1):
                text = document[:place] + new + document[rest:]
                self.assertEqual(self.read(tracker, text), self.read(tracker, " " + text), text)

    def read(self, tracker, document):
        """What a tracker reads from the document, as text, and how many warnings there were."""
        tracker._usage, self.db.answer = {}, (document,)
        self.warning.reset_mock()
        tracker._load_usage()
        return repr(tracker._usage), self.warning.call_count

    def test_a_large_document(self):
        self.enterContext(mock.patch.object(health, "_known", lambda tool, action: True))
        entries = [ENTRY | {"tool": str(number)} for number in range(MANY)]
        document = json.dumps(entries, separators=(",", ":"))
        for text in (document, document + " "):
            tracker = self.make(document=text)
            self.assertEqual([key[0] for key in tracker._usage], [entry["tool"] for entry in entries])
            count(tracker, "0", "x", alias_hit=True)
            self.assertEqual(tracker.flush(), MANY)
            [(_, _, (_, written))] = self.db.calls
            self.assertEqual(written, document.replace('"calls":3', '"calls":4', 1))



if __name__ == "__main__":
    unittest.main()
