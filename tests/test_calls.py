"""Calls between the module, its host and other threads: what fails, what is heard, who waits."""

import contextlib
import itertools
import json
import sys
import threading
import time
from types import SimpleNamespace
from unittest import mock

from support import NOW, NOW_TEXT, PATIENCE_S, TrackerTest, count, health, in_thread, memory, result

REAL_CLOCK = time.time
TRACKER = health.ToolHealthTracker
KEY, ROWS = ("a", "x", "ok", False), [("a", 5, 2, "bad", None, NOW_TEXT)]
DOCUMENT = """[{"tool": "a", "action": "x", "outcome": "é", "alias_hit": true,
    "calls": 3, "timed_calls": 2, "total_ms": 2.5}]"""
DELETED = "deleted"
FIELDS = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
# Each with how often it enters the lock and reads the clock.
OPERATIONS = {
    "record_success": (lambda t, tool="a": t.record_success(tool), 1, 1),
    "record_error": (lambda t, tool="a", error="bad": t.record_error(tool, error), 1, 1),
    "record_call": (lambda t, tool="a", took=1: count(t, tool, "x", duration_ms=took), 1, 0),
    "is_disabled": (lambda t, tool="a": t.is_disabled(tool), 1, 1),
    "is_enabled": (lambda t: t.is_disabled("b"), 1, 0),
    "summary": (lambda t: t.get_health_summary(), 1, 0),
    "has_unsaved_changes": (lambda t: t.has_unsaved_changes, 1, 0),
    "flush": (lambda t: t.flush(), 2, 0),
    "_flush_health": (lambda t: t._flush_health(), 1, 0),
    "_flush_usage": (lambda t: t._flush_usage(), 1, 0),
    "_load": (lambda t: t._load(), 1, 0),
    "_load_usage": (lambda t: t._load_usage(), 1, 0),
    "_usage_rows": (lambda t, tool="a": t._usage_rows(tool), 0, 0),
    "cooldown_s": (lambda t: t.cooldown_s, 0, 0),
    "limits": (lambda t: t.limits, 0, 0),
    "construct": (lambda t, kind=TRACKER: kind(t._repo), 0, 0),
    "stats": (lambda t: health.handle_get_tool_performance_stats(), 0, 0),
    "census": (lambda t, census=None: health.thread_census_report(0, census), 0, 0),
}
LOCKING = " ".join(name for name, (_, entries, _) in OPERATIONS.items() if entries)
RECORDING, FLUSHING = "record_success record_error record_call is_disabled", "flush _flush_health _flush_usage"
on, into = mock.patch.object, mock.patch.dict


def odd(boom, *names, **more):
    """An object whose methods of these names are ``boom``."""
    return type("Odd", (), dict.fromkeys(names, boom) | more)()


def lacking(boom, *names, **more):
    """An object whose attributes of these names raise."""
    return type("Lacking", (), {name: property(boom) for name in names} | more)()


def collecting(stats):
    return on(health, "get_timing_collector", lambda: SimpleNamespace(get_all_stats=lambda: stats))


# What fails, the operations that meet it, and how the failure ``boom`` is put before the tracker.
# After a "!" the operation takes an Exception for a failed read; only an interruption goes on.
# fmt: off
FAILURES = (
    ("clock", "record_success record_error is_disabled", lambda t, boom: on(time, "time", boom)),
    ("threshold", "record_error", lambda t, boom: on(t, "_limits", lacking(boom, "disable_after_errors"))),
    ("cooldown", "is_disabled cooldown_s", lambda t, boom: on(t, "_limits", lacking(boom, "disable_cooldown_s"))),
    ("lock", LOCKING, lambda t, boom: on(t, "_lock", odd(boom, "__enter__", "__exit__"))),
    ("state", "record_success record_error is_disabled summary flush _flush_health",
     lambda t, boom: into(t._state, a=odd(boom, "__getattribute__"))),
    ("counts", "record_call summary _usage_rows _flush_usage",
     lambda t, boom: into(t._usage, {KEY: odd(boom, "__getattribute__")})),
    ("new state", "_load summary construct", lambda t, boom: on(health, "_ToolState", boom)),
    ("marks", "flush _flush_health", lambda t, boom: on(t, "_dirty", {"a", odd(boom, "__lt__", "__gt__")})),
    ("usage mark", "flush _flush_usage", lambda t, boom: on(t, "_usage_dirty", odd(boom, "__bool__"))),
    ("slowness", "summary _usage_rows", lambda t, boom: on(health, "is_slow_call", boom)),
    ("rows", "summary", lambda t, boom: on(t, "_usage_rows", boom)),
    ("time text", "summary flush _flush_health", lambda t, boom: on(health, "_sqlite_time", boom)),
    ("stored time", "_load construct", lambda t, boom: on(health, "_epoch", boom)),
    ("registry", "_load_usage construct", lambda t, boom: on(health, "_known", boom)),
    ("action", "_load_usage construct", lambda t, boom: into(health.TOOLS, a=SimpleNamespace(action=boom))),
    ("database", FLUSHING, lambda t, boom: on(t, "_repo", lacking(boom, "db"))),
    ("write", FLUSHING, lambda t, boom: on(t._repo, "hook", boom)),
    ("escape", "flush _flush_usage", lambda t, boom: on(json.encoder, "encode_basestring_ascii", boom)),
    ("part", "flush", lambda t, boom: on(t, "_flush_health", boom)),
    ("settings", "construct", lambda t, boom: on(health, "ToolsConfig", boom)),
    ("new lock", "construct", lambda t, boom: on(threading, "Lock", boom)),
    ("loading", "construct", lambda t, boom: on(TRACKER, "_load_usage", boom)),
    ("collector", "stats", lambda t, boom: on(health, "get_timing_collector", boom)),
    ("statistics", "stats", lambda t, boom: collecting(odd(boom, "__iter__"))),
    ("iteration", "stats", lambda t, boom: collecting(odd(boom, "__next__", __iter__=lambda self: self))),
    ("figures", "stats", lambda t, boom: collecting([odd(boom, "__getitem__")])),
    ("census", "census", lambda t, boom: on(health, "thread_census", boom)),
    ("read", "!_load _load_usage construct", lambda t, boom: on(t._repo, "hook", boom)),
    ("reader", "!_load _load_usage construct", lambda t, boom: on(t, "_repo", lacking(boom, "db"))),
    ("tools", "!_load construct", lambda t, boom: on(health, "TOOLS", odd(boom, "get"))),
    ("json", "!_load_usage construct", lambda t, boom: on(json, "loads", boom)),
    ("new counts", "!_load_usage construct", lambda t, boom: on(health, "_Usage", boom)),
)
ARGUMENTS = (
    ("hash", RECORDING, lambda boom: {"tool": odd(boom, "__hash__")}),
    ("equality", RECORDING + " _usage_rows",
     lambda boom: {"tool": odd(boom, "__eq__", __hash__=lambda self: hash("a"))}),
    ("truth", "record_error", lambda boom: {"error": odd(boom, "__bool__")}),
    ("slice", "record_error", lambda boom: {"error": odd(boom, "__getitem__")}),
    ("sum", "record_call", lambda boom: {"took": odd(boom, "__radd__")}),
    ("count", "census", lambda boom: {"census": lacking(boom, "os_threads")}),
    ("total", "census", lambda boom: {"census": lacking(boom, "python_total", os_threads=1)}),
    ("names", "census", lambda boom: {"census": lacking(boom, "python_threads", os_threads=1, python_total=1)}),
    ("excess", "census", lambda boom: {"census": lacking(
        boom, os_threads=odd(boom, "__gt__"), python_total=1, python_threads={})}),
)
# Whose attribute, its name, and what takes its place; what shows it, and what is shown.
REPLACEMENTS = (
    (health, "_sqlite_time", str, lambda t: t.get_health_summary()[0]["updated_at"], str(NOW)),
    (health, "_epoch", lambda text: 19.0, lambda t: TRACKER(t._repo)._state["a"].updated_at, 19.0),
    (health, "_known", lambda *key: False, lambda t: TRACKER(t._repo)._usage, {}),
    (health, "TOOLS", {}, lambda t: TRACKER(t._repo)._state, {}),
    (health, "ToolsConfig", lambda: 7, lambda t: TRACKER(t._repo).limits, 7),
    (health, "_ToolState", dict, lambda t: type(TRACKER(t._repo)._state["a"]), dict),
    (health, "_Usage", lambda *counts: counts, lambda t: [*TRACKER(t._repo)._usage.values()], [(3, 2, 2.5)]),
    (health, "json", SimpleNamespace(loads=lambda text: []), lambda t: TRACKER(t._repo)._usage, {}),
    (health, "time", SimpleNamespace(time=lambda: 5.0), lambda t: stamp(t), 5.0),
    (time, "time", lambda: 6.0, lambda t: stamp(t), 6.0), (time, "time", REAL_CLOCK, lambda t: stamp(t) > NOW, True),
    (threading, "Lock", threading.RLock, lambda t: "RLock" in str(TRACKER(t._repo)._lock), True),
    (health, "thread_census", lambda: SimpleNamespace(os_threads=1, python_total=2, python_threads={}),
     lambda t: list(health.thread_census_report(1).values()), [1, 2, {}, 1]),
    (TRACKER, "cooldown_s", 0.0, lambda t: t.is_disabled("a"), (False, None)),
    (TRACKER, "_load", lambda self: None, lambda t: TRACKER(t._repo)._state, {}),
    (TRACKER, "_load_usage", lambda self: None, lambda t: TRACKER(t._repo)._usage, {}),
    (TRACKER, "_flush_health", lambda self: 40, lambda t: t.flush(), 43),
    (None, "_flush_usage", lambda: 4.5, lambda t: t.flush(), 6.5),
)
# fmt: on


def stamp(tracker):
    tracker.record_success("a")
    return tracker._state["a"].updated_at


class LoudModule(type(time)):
    time = property(lambda self: lambda: 7.0)


class Calls(TrackerTest):
    def prepare(self):
        """A tracker with work for every operation: a is disabled and changed, and counted."""
        tracker = self.make(ROWS, DOCUMENT)
        for _ in range(3):
            tracker.record_error("a", "bad")
        tracker.record_success("b")
        count(tracker, "a", "x")
        count(tracker, "c")
        return tracker

    def test_an_error_of_the_host_comes_out_as_it_is(self):
        """The lock is then free, nothing has changed, and the operation works when it can."""
        errors = Exception("boom"), KeyboardInterrupt("boom")
        cases = [(what, names, patch, lambda boom: {}) for what, names, patch in FAILURES]
        cases += [(what, names, lambda *_: contextlib.nullcontext(), given) for what, names, given in ARGUMENTS]
        for what, names, patch, given in cases:
            for name, error in itertools.product(names.strip("!").split(), errors[names[0] == "!" :]):
                with self.subTest(what, operation=name, error=error):
                    self.check_failure(name, error, patch, given)

    def check_failure(self, name, error, patch, given):
        def boom(*args, **kwargs):
            raise error

        tracker, operation = self.prepare(), OPERATIONS[name][0]
        before = memory(tracker)
        with patch(tracker, boom), self.assertRaises(type(error)) as raised:
            operation(tracker, **given(boom))
        self.assertIs(raised.exception, error)
        self.assertFalse(tracker._lock.locked())
        if name != "flush":  # whose first part may have been done
            self.assertEqual(memory(tracker), before)
        operation(tracker)
        self.warning.assert_not_called()

    def test_what_is_replaced_is_heard(self):
        for target, name, value, show, expected in REPLACEMENTS:
            with self.subTest(name):
                tracker = self.prepare()
                with on(target or tracker, name, value):
                    shown = show(tracker)
                self.assertEqual(shown, expected)
                self.assertNotEqual(show(self.prepare()), expected)

    def test_what_the_clock_gives_dies_when_the_lock_is_free(self):
        class Moment(float):
            def __del__(self):
                held.append(tracker._lock.locked())

        tracker, held = self.make(), []
        self.clock.side_effect = lambda: Moment(NOW)
        for name in ("record_error", "record_error", "record_error", "is_disabled", "record_success"):
            OPERATIONS[name][0](tracker)
        del tracker._state["a"].updated_at
        self.assertEqual(held, [False] * 5)

    def test_a_module_of_another_type_is_heard(self):
        """Although the clock in its namespace is the runtime's own."""
        tracker = self.prepare()
        with into(vars(time), time=REAL_CLOCK):
            time.__class__ = LoudModule
            try:
                self.assertEqual(stamp(tracker), 7.0)
            finally:
                time.__class__ = type(sys)

    def test_the_lock_and_the_clock_are_used_as_promised(self):
        """The clock is read at most once, and only under the lock."""
        for name, (operation, entries, reads) in OPERATIONS.items():
            with self.subTest(name):
                tracker, held = self.prepare(), []
                self.clock.side_effect = lambda: held.append(tracker._lock.locked()) or NOW
                operation(tracker)
                self.assertEqual(held, [True] * reads)
                self.clock.side_effect = None
                tracker = self.prepare()
                with on(tracker, "_lock", mock.MagicMock()) as lock:
                    operation(tracker)
                used = lock.__enter__.call_count, lock.__exit__.call_count
                self.assertEqual(used, (entries, entries))

    def test_code_of_the_host_runs_under_the_lock(self):
        """Also by the runtime's own clock, where most calls need only see that the lock is free."""

        def watch(*args):
            held.append(tracker._lock.locked())
            return False

        settings = lacking(watch, "disable_after_errors"), odd(watch, "__getattribute__", disable_after_errors=3)
        cases = [("record_error", "_limits", limits, {}) for limits in settings]
        cases += [("record_error", field, odd(watch, "__add__"), {}) for field in ("error_count", "consecutive_errors")]
        cases += [("record_success", "call_count", odd(watch, "__add__"), {})]
        cases += [("record_call", field, odd(watch, "__add__"), {}) for field in ("calls", "timed_calls", "total_ms")]
        cases += [("record_error", "_repo", None, {"error": odd(watch, "__bool__")})]
        cases += [("record_call", "_repo", None, {"took": odd(watch, "__radd__")})]
        for (name, field, value, given), clock in itertools.product(cases, (self.clock, REAL_CLOCK)):
            with self.subTest(name, field=field, clock=clock), mock.patch("time.time", clock):
                tracker, held = self.prepare(), []
                for target in (tracker, tracker._state["a"], tracker._usage[KEY]):
                    if hasattr(target, field):
                        setattr(target, field, value)
                OPERATIONS[name][0](tracker, **given)
                self.assertEqual(held, [True])

    def test_unfit_fields_raise_and_do_no_harm(self):
        entered = []
        values = (DELETED, None, 5, "text", [1], {1: 2}, {1}, object(), odd(entered.append, "__enter__"))
        for name, field, unfit in itertools.product([*OPERATIONS][:15], FIELDS, values):
            with self.subTest(name, field=field, unfit=unfit):
                tracker = self.prepare()
                fit, before = getattr(tracker, field), memory(tracker)
                setattr(tracker, field, unfit) if unfit is not DELETED else delattr(tracker, field)
                outcome = result(OPERATIONS[name][0], tracker)
                setattr(tracker, field, fit)
                self.assertFalse(tracker._lock.locked())
                if type(outcome) is tuple and type(outcome[0]) is type:
                    if name != "flush":
                        self.assertEqual(memory(tracker), before)
                    self.assertEqual(entered, [])  # what cannot be left
                    if unfit is DELETED:
                        text = f"'ToolHealthTracker' object has no attribute '{field}'"
                        self.assertEqual(outcome, (AttributeError, text))
        for name in [*OPERATIONS][:15]:
            with self.subTest(name, field="all", unfit=DELETED):
                self.warning.reset_mock()
                outcome = result(OPERATIONS[name][0], TRACKER.__new__(TRACKER))
                warned = [type(error) for (_, error), _ in self.warning.call_args_list]
                self.assertIs([*warned, *(outcome or ())][0], AttributeError)

    def test_deleted_fields_of_records(self):
        """Only what is read must be there."""
        cases = [("record_call", "_usage", KEY, "")]
        cases += [("record_error", "_state", "a", "last_error disabled_at updated_at")]
        cases += [("record_success", "_state", "a", "error_count last_error disabled_at updated_at consecutive_errors")]
        for (name, mapping, key, unread), clock in itertools.product(cases, (self.clock, REAL_CLOCK)):
            for field in type(getattr(self.prepare(), mapping)[key]).__match_args__:
                with self.subTest(name, field=field, clock=clock), mock.patch("time.time", clock):
                    tracker = self.prepare()
                    record = getattr(tracker, mapping)[key]
                    delattr(record, field)
                    kept = {other: getattr(record, other) for other in record.__match_args__ if other != field}
                    outcome = result(OPERATIONS[name][0], tracker)
                    self.assertEqual(outcome and outcome[0], None if field in unread else AttributeError)
                    changed = [other for other, value in kept.items() if getattr(record, other) != value]
                    self.assertEqual(bool(changed), outcome is None)


class Threads(TrackerTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())

    def test_who_waits_for_the_lock_lets_others_run_and_then_reads_anew(self):
        sys.setswitchinterval(1000)  # only who waits lets another run
        counted = {"record_success": (9, 8), "record_error": (9, 8), "record_call": (8, 9), "_load": (5, 8)}
        for name, clock in itertools.product(LOCKING.split(), (self.clock, REAL_CLOCK)):
            with self.subTest(name, clock=clock), mock.patch("time.time", clock):
                tracker, started, results = self.make(ROWS, DOCUMENT), threading.Event(), []
                tracker.record_success("a")
                tracker.record_success("b")
                count(tracker, "a", "x")
                with tracker._lock:
                    thread = in_thread(lambda: (started.set(), results.append(OPERATIONS[name][0](tracker))))
                    self.assertTrue(started.wait(PATIENCE_S))
                    self.assertEqual((results, tracker.limits.disable_cooldown_s), ([], tracker.cooldown_s))
                    state = health._ToolState(8, 0, "new", time.time() - 1, NOW)
                    tracker._state, tracker._usage = {"a": state}, {KEY: health._Usage(8)}
                    tracker.limits.disable_after_errors = 1
                thread.join(PATIENCE_S)
                counts = tracker._state["a"].call_count, tracker._usage[KEY].calls
                self.assertEqual(counts, counted.get(name, (8, 8)))
                if name == "record_error":
                    self.assertEqual(state.disabled_at, state.updated_at)
                if name == "is_disabled":
                    self.assertEqual(results, [(True, "new")])
                if name == "summary":
                    self.assertEqual([record["call_count"] for record in results[0]], [8])

    def test_a_blocked_flush_holds_up_nobody(self):
        for blocked in ("executemany", "execute"):
            tracker, entered, release, written = self.make(), threading.Event(), threading.Event(), []
            tracker.record_success("a")
            count(tracker, "a")
            self.db.hook = lambda called: called != blocked or entered.set() or release.wait(PATIENCE_S)
            thread = in_thread(lambda: written.append(tracker.flush()))
            self.assertTrue(entered.wait(PATIENCE_S))
            for name in LOCKING.split()[:7]:
                OPERATIONS[name][0](tracker)
            self.assertEqual((written, tracker._dirty, tracker._usage_dirty), ([], {"a"}, True))
            release.set()
            thread.join(PATIENCE_S)
            self.assertEqual(written, [2 if blocked == "execute" else 3])
            self.assertEqual((tracker._dirty, tracker._usage_dirty), ({"a"}, blocked == "execute"))
