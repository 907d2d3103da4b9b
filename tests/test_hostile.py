"""Hostile values: objects that raise, call back, or change the tracker under its feet wherever it uses them.

Most of it runs in other processes, so that a crash is one failed case: the last line of their output names it.
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

from support import NOW_TEXT, PATIENCE_S, FakeDatabase, TrackerTest, count, health, memory, result, run_child

ACTING = """eq ne lt le gt ge bool index int float str repr format hash len iter getitem contains neg round add radd iadd
 sub rsub truediv rtruediv get action enter exit disable_after_errors disable_cooldown_s getattr""".split()
FIELDS = "_repo", "_limits", "_lock", "_state", "_dirty", "_usage", "_usage_dirty"
FIELDS_OF_RECORDS = *health._ToolState.__annotations__, *health._Usage.__annotations__
ENTRY = {"tool": "a", "action": "x", "outcome": "ok", "alias_hit": True, "calls": 3, "timed_calls": 2, "total_ms": 2.5}
LONG = 1_000_000 if "malloc" not in os.environ.get("PYTHONMALLOC", "") else 100_000  # under a sanitizer all is slow
ROW = ("a", 5, 3, "bad", NOW_TEXT, NOW_TEXT)


class Odd:
    """Does ``act`` at each use while it is armed, and else as its value does. It equals nothing."""

    act = None  # of all of them; None where they are not armed

    def __init__(self, value=3):
        self.value = value

    def __del__(self):
        Odd.strike()

    @staticmethod
    def strike():
        act, Odd.act = Odd.act, None  # not while it acts
        try:
            if act:
                act()
        finally:
            Odd.act = act


class OddText(str):
    """The same for a text."""

    value = "a"


def special(name, self, *args):
    Odd.strike()
    if name in ("__eq__", "__ne__"):
        return name == "__ne__"
    if name == "__getattr__" or not name.startswith("__"):
        raise AttributeError(name)
    return getattr(type(self.value), name)(self.value, *args)


for short in ACTING:
    long = short if short in ("get", "action") or "_" in short else f"__{short}__"
    method = functools.partialmethod(functools.partial(special), long)
    for odd in (Odd, OddText):
        def attribute(self, *args, _name=long):
            return special(_name, self, *args)
        setattr(odd, long, property(attribute) if short.startswith("disable") else attribute)


class World:
    """A tracker with a history, and what can be done to it."""

    def __init__(self, make_lock=threading.Lock):
        document = json.dumps([ENTRY, ENTRY | {"tool": "b", "action": None}])
        self.db = FakeDatabase([ROW, ("b", 1, 0, None, None, NOW_TEXT)], document)
        self.tracker = health.ToolHealthTracker(self.db, SimpleNamespace(disable_after_errors=3, disable_cooldown_s=60))
        self.lock = self.tracker._lock = make_lock()
        for name in "ab":
            self.tracker.record_success(name)
            count(self.tracker, name, duration_ms=1.5)

    # What an odd value does.

    def fail(self):
        raise OSError("hostile")

    def clear(self):
        for name in ("_state", "_usage", "_dirty"):
            getattr(self.tracker, name, set()).clear()

    def rebind(self):
        vars(self.db).clear()
        for name, value in zip(FIELDS, (self.db, None, threading.Lock(), {}, set(), {}, False), strict=True):
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

    def spoil_records(self):
        for record in (*self.tracker._state.values(), *self.tracker._usage.values()):
            vars(record)["more"] = 1
            for name in FIELDS_OF_RECORDS:
                result(delattr, record, name)
            record.__class__ = type("Other", (type(record),), {"calls": property(len), "call_count": 7})

    def re_enter(self):
        """Needs a lock that lets the same thread in again."""
        for operate in (*OPERATIONS.values(), *OPERATIONS.values()):
            result(operate, self.tracker)


# Each takes the world and an odd value, and puts it somewhere.
def put_key(world, odd):
    state, usage = world.tracker._state, world.tracker._usage
    world.tracker._state = {odd: health._ToolState()} | state
    world.tracker._usage = {(odd, None, "ok", False): health._Usage(1)} | usage
    world.tracker._dirty = {odd, *world.tracker._dirty}


def put_whole_key(world, odd):
    odd.value = ("a", None, "ok", False)
    world.tracker._usage = {odd: health._Usage(1)} | world.tracker._usage


def put_fields(world, odd):
    for name in FIELDS_OF_RECORDS:
        put_field(name, world, odd)


def put_field(name, world, odd):
    for record in (*world.tracker._state.values(), *world.tracker._usage.values()):
        if name in type(record).__annotations__:
            setattr(record, name, odd)


PLACES = {
    "keys": put_key,
    "whole key": put_whole_key,
    "fields": put_fields,
    **{name: functools.partial(put_field, name) for name in FIELDS_OF_RECORDS},
    "settings": lambda world, odd: setattr(world.tracker, "_limits", odd),
    "a setting": lambda world, odd: vars(world.tracker._limits).update(disable_after_errors=odd, disable_cooldown_s=odd),
    "usage mark": lambda world, odd: setattr(world.tracker, "_usage_dirty", odd),
    "lock": lambda world, odd: setattr(world.tracker, "_lock", odd),
    "repository": lambda world, odd: setattr(world.tracker, "_repo", odd),
    "rows": lambda world, odd: vars(world.db).update(rows=[ROW, (odd, odd, odd, odd, odd, odd), odd], answer=(odd,)),
    "registry": lambda world, odd: setattr(health, "TOOLS", odd),
    "clock": lambda world, odd: setattr(health.time, "time", lambda: (Odd.strike(), odd)[1]),
    "slow": lambda world, odd: setattr(health, "is_slow_call", lambda *args: (Odd.strike(), odd)[1]),
    "types": lambda world, odd: vars(health).update(_ToolState=lambda **values: odd, _Usage=lambda *values: odd),
    "argument": lambda world, odd: ARGUMENTS.__setitem__(slice(None), [odd]),
}
ARGUMENTS = []


def argument(standard):
    return ARGUMENTS[0] if ARGUMENTS else standard


OPERATIONS = {
    "count": lambda tracker: count(tracker, argument("a"), None, argument("ok"), argument(False), 2.5),
    "count a duration": lambda tracker: count(tracker, "new", duration_ms=argument(2)),
    "succeed": lambda tracker: tracker.record_success(argument("a")),
    "err": lambda tracker: tracker.record_error(argument("b"), argument("text")),
    "ask": lambda tracker: tracker.is_disabled(argument("a")),
    "rows": lambda tracker: tracker._usage_rows(argument("a")),
    "summary": lambda tracker: tracker.get_health_summary(),
    "flush": lambda tracker: tracker.flush(),
    "changes": lambda tracker: tracker.has_unsaved_changes,
    "load": lambda tracker: tracker._load(),
    "load usage": lambda tracker: tracker._load_usage(),
    "known": lambda tracker: health._known(argument("a"), argument("x")),
    "times": lambda tracker: (result(health._epoch, argument("x")), health._sqlite_time(argument(5))),
    "census": lambda tracker: health.thread_census_report(argument(1)),
}
ACTS = [name for name, value in vars(World).items() if callable(value) and not name.startswith("_")]


def sweep(act):
    """Has odd values act in every place of every operation. For a process of its own."""
    make_lock = threading.RLock if act == "re_enter" else threading.Lock
    kinds = (Odd, lambda value="a": OddText(value))
    for (place, put), (operation, operate), kind in itertools.product(PLACES.items(), OPERATIONS.items(), kinds):
        print(act, place, operation, kind, flush=True)
        with mock.patch.multiple(health, TOOLS=health.TOOLS, is_slow_call=health.is_slow_call, _Usage=health._Usage,
                                 _ToolState=health._ToolState), mock.patch("time.time", health.time.time):
            world = World(make_lock)
            result(put, world, kind())
            Odd.act = getattr(world, act)
            outcome = result(operate, world.tracker)
            ARGUMENTS.clear()
            assert not (isinstance(outcome, tuple) and outcome and outcome[0] is SystemError), outcome
            Odd.act = outcome = None
        check_sound(world)
    gc.collect()
    print("done")


def check_sound(world):
    """The lock is free, and the tracker counts, once its fields are fit again."""
    assert world.lock.acquire(blocking=False), "the lock is held"
    world.lock.release()
    tracker = world.tracker
    tracker._lock = world.lock
    tracker._limits = SimpleNamespace(disable_after_errors=2, disable_cooldown_s=60)
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


class HostileTest(TrackerTest):
    def run_apart(self, code):
        """The code ends well in a process of its own."""
        prelude = f"import sys, faulthandler, test_hostile as t; faulthandler.dump_traceback_later({PATIENCE_S}, exit=True)\n"
        ended = run_child(prelude + "sys.unraisablehook = lambda unraisable: None\n" + code)
        lines = ended.stdout.splitlines() or ["nothing"]
        if ended.returncode or lines[-1] != "done":
            self.fail(f"status {ended.returncode} after {lines[-1]}: {ended.stderr[-3000:]}")

    def test_odd_values_everywhere(self):
        for act in ACTS:
            with self.subTest(act):
                self.run_apart(f"t.sweep({act!r})")

    def test_operations_that_call_themselves_end_in_an_error(self):
        for code in RECURSIONS:
            with self.subTest(code):
                self.run_apart(RECURSION.format(code=code))

    def test_a_key_that_a_callback_counts_first(self):
        self.run_apart(COUNTED_MEANWHILE)

    def test_chains_of_any_length(self):
        for chain in CHAINS:
            with self.subTest(chain):
                self.run_apart(CHAIN.format(chain=chain, length=LONG))

    def test_every_changed_character_of_a_document(self):
        """What the module writes is read natively; with a blank behind it by the runtime's parser."""
        document = json.dumps([ENTRY, ENTRY | {"action": None, "calls": -120, "total_ms": -0.5}], separators=(",", ":"))
        self.enterContext(mock.patch.object(health, "_known", lambda tool, action: True))
        tracker = self.make(document=document)
        self.assertEqual(len(tracker._usage), 2)
        for place, new in itertools.product(range(len(document)), ["", *'019-.eE"\\,:{}[] n\0\x7f\x80é\ud800']):
            for rest in (place, place + 1):
                text = document[:place] + new + document[rest:]
                self.assertEqual(self.read(tracker, text), self.read(tracker, text + " "), text)

    def read(self, tracker, document):
        """What a tracker reads from the document, as text, and how many warnings there were."""
        tracker._usage, tracker.db = {}, None
        self.db.answer = (document,)
        self.warning.reset_mock()
        tracker._load_usage()
        return repr(tracker._usage), self.warning.call_count

    def test_a_large_document(self):
        names = [str(number) for number in range(LONG // 6)]
        self.enterContext(mock.patch.object(health, "_known", lambda tool, action: True))
        document = json.dumps([ENTRY | {"tool": name} for name in names], separators=(",", ":"))
        for text in (document, document + " "):
            tracker = self.make(document=text)
            self.assertEqual([key[0] for key in tracker._usage], names)
            self.assertEqual((tracker._usage.popitem()[1].total_ms, tracker.has_unsaved_changes), (2.5, False))
            count(tracker, names[-1], "x", alias_hit=True)
            self.assertEqual(tracker.flush(), len(names))
            [(_, _, (_, written))] = self.db.calls
            self.assertTrue(written.startswith(document[:-100]))
            self.assertEqual(json.loads(written)[-1], ENTRY | {"tool": names[-1], "calls": 1, "timed_calls": 0, "total_ms": 0})

    def test_a_document_deeper_than_the_stack(self):
        for document in ("[" * 100_000, '[{"tool":' * 100_000, '{"a":' * 100_000 + "1" + "}" * 100_000):
            outcome = self.check_same(lambda module, text: memory(self.make(document=text, module=module)), document)
            self.assertIn("RecursionError", outcome)


# Each calls itself, by way of the runtime alone where it can.
RECURSIONS = """
    tracker._flush_health = tracker.flush; tracker.flush()
    Tracker.disable_cooldown_s = Tracker.cooldown_s; tracker._limits = tracker; tracker.cooldown_s
    Tracker._load = lambda self: self.__init__(None); Tracker(None)
    Tracker.__bool__ = health._epoch; health._epoch(tracker)
    health.TOOLS = types.SimpleNamespace(get=functools.partial(health._known, 1)); health._known(1, 2)
    Tracker.__hash__ = functools.partial(health._known, tracker, None); health._known(tracker, None)
    health.thread_census = functools.partial(health.thread_census_report, 1); health.thread_census_report(1)
    health.get_timing_collector = health.handle_get_tool_performance_stats; health.get_timing_collector()
    tracker._lock = threading.RLock(); tracker._usage_rows = lambda tool: tracker.get_health_summary(); tracker.get_health_summary()
""".strip().splitlines()
RECURSION = """
import functools, threading, types
from test_hostile import health, FakeDatabase
class Tracker(health.ToolHealthTracker):
    pass
tracker = Tracker(FakeDatabase())
tracker.record_success("a")
try:
    {code}
except RecursionError:
    print("done")
"""
COUNTED_MEANWHILE = """
import threading
from test_hostile import count, health, FakeDatabase
tracker = health.ToolHealthTracker(FakeDatabase())
class Duration:
    def __radd__(self, total):
        tracker._lock = threading.Lock()
        for _ in range(9):
            count(tracker, "".join(name), duration_ms=1)  # the same text, but other objects
        return total + 1
for name in [("new", str(number)) for number in range(50)]:
    count(tracker, "".join(name), duration_ms=Duration())
    for _ in range(9):
        count(tracker, "".join(name), duration_ms=1)
    assert tracker._usage["".join(name), None, "ok", False].calls == 10, tracker._usage
    assert len(tracker.get_health_summary()) == len(tracker._usage) == int(name[1]) + 1
print("done")
"""
CHAINS = """
    link = health._ToolState(last_error=link)
    link = health._Usage(calls=[link])
    link.more = link = Usage(1, link)
    link, link.more = health._Usage(), link
    link, link._repo = Tracker.__new__(Tracker), link
    link, link._limits = health.ToolHealthTracker.__new__(health.ToolHealthTracker), (link,)
    link, link.more = health.ToolHealthTracker.__new__(health.ToolHealthTracker), link
""".strip("\n").splitlines()
CHAIN = """
import gc
from test_hostile import health
class Usage(health._Usage):
    __slots__ = ("slot",)
    def __del__(self): pass
class Tracker(health.ToolHealthTracker):
    def __del__(self): pass
link = first = health._Usage()
for _ in range({length}):
{chain}
del link
gc.collect()
assert gc.get_referrers(first) == [] or globals() in gc.get_referrers(first)
print("done")
"""

if __name__ == "__main__":
    unittest.main()
