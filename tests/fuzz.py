"""Random operations on the module and on its plain-Python version, compared step by step.

Both trackers have a database of their own with the same contents, and one host and one clock
between them. After each step the two must agree on what was returned or raised, on every field of
the tracker, on each call that reached the database, on the warnings and on how often the clock was
read.

A run is a series of episodes; each is made from a seed of its own, which a failure prints with the
step that it failed at. Odd seeds leave the runtime's own clock in place, which the module reads on
a path of its own; what the two read a moment apart is then made equal.
"""

from __future__ import annotations

import argparse
import dataclasses
import itertools
import json
import logging
import os
import random
import sys
import time
from collections.abc import Callable, Sequence
from decimal import Decimal
from fractions import Fraction
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "benchmarks"))

import host  # first: it stands in for the daemon that the baseline imports from

import baseline


class Text(str):
    """Text of a type of its own."""


NAN, INF = float("nan"), float("inf")
# fmt: off
NUMBERS = (
    0, 1, -2, 2.5, -0.0, True, None, NAN, INF, 2**70, 10**400, 1e16, "3", " 7 ", "x", "", b"12",
    Decimal("3.7"), Fraction(7, 2), [], [1], "1" * 5000, 1j,
)
STATS = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors", "more")

# By kind, the ordinary values and the odd ones.
VALUES: dict[str, tuple[Sequence[Any], Sequence[Any]]] = {
    "tool": (("a", "b", "c", "search"), (
        "", "é", "工具", "\ud800", '\x00"\\\n\x7f', Text("a"), Text("t"), None, 0, True, (1, 2), b"a",
        [],
    )),
    "action": (("x", "y", None), ("", "None", "Zed", "0", "é", "\udfff", Text("x"), 5, NAN, [])),
    "outcome": (("ok", "error"), ("", "Ω", "\U0001f600", Text("ok"), None, 3)),
    "alias": ((False, True), (0, 1, None, "yes", 2.0)),
    "duration": ((None, 1.5, 12.34567, 0.0005), (*NUMBERS, -1.0, 1e300, 0.1 + 0.2, 2.675)),
    "error": (("boom", "e" * 600), (
        "", None, "é" * 501, "\ud800" * 501, Text("t" * 600), Text("s"), b"bytes", 0, 5, ["list"],
    )),
    "threshold": ((3, 3, 1), (0, -1, 2.5, True, None, "3", NAN, 10**30)),
    "cooldown": ((60.0, 5.0), (0, -1, NAN, INF, None, "x", Fraction(1, 2), 10**30, Decimal(1))),
    "count": ((0, 3, 12), NUMBERS),
    "epoch": ((0.0, 1.7e9, 1700000000.999, None), (
        *NUMBERS, 1700000000.9999996, -0.5, 5e-7, 1.5e-6, -62135596800, -62135596800.1, -3e10,
        253402300799, 253402300799.9, 253402300799.9999999, 253402300800, 1e18, -1e18,
    )),
    "stamp": (("2023-11-14 22:13:20", None), (
        "2023-1-4 2:3:4", "0999-01-01 00:00:00", "2024-02-30 00:00:00", "2023-11-14 24:00:00",
        "2023-11-14T22:13:20", "２０２３-11-14\u2003٢:1٣:20", "\ud800", 5, 2.5, b"", b"x", Text("x"),
        "2023-11-14 22:13:20.5", "9999-12-31 23:59:60", "", 0, [], Text("2023-11-14 22:13:20"),
    )),
    "clock": ((1.7e9, 1.7e9 + 30.25), (
        0, 17 * 10**8, -5.5, NAN, 1e18, Fraction(17, 3), 10**30, "now",
    )),
    "slow": ((False, True), (None, "yes", [], ValueError("slow"))),
    "json": ((1, "a", None), (
        True, 0, -2, 1.9, "12", " 7 ", "1.5", "x", "", [], [1], {}, INF, NAN, 2**70,
    )),
    "document": (("[]", None), (
        "{}", "", "{", "5", '"a"', '{"a":1}', "null", "[1]", "[" * 99999, b"[]", 5, Text("[]"),
    )),
    "failure": ((None,), (
        ValueError("database"), KeyboardInterrupt("key"), SystemExit(3), MemoryError(),
        OSError(5, "é"),
    )),
    "stats": ((dict.fromkeys(STATS, 1.5),), ({"name": "a"}, None, [], "text", {})),
    "pools": (({"pool": 8, "MainThread": 1}, {}), (
        [("a", 1), ("b", 2), ("a", 3)], None, [1], "ab", ["ab"],
    )),
}
KEYWORDS = (
    "tool_name", "action", "outcome", "alias_hit", "duration_ms", "error", "epoch", "text", "tool",
    "budget", "census", "repository", "limits", "self", "calls", "call_count", "other",
)
METHODS = (
    "is_disabled", "record_success", "record_error", "record_call", "flush", "get_health_summary",
)
FUNCTIONS = (
    "_sqlite_time", "_epoch", "_known", "_ToolState", "_Usage", "thread_census_report",
    "handle_get_tool_performance_stats", "ToolHealthTracker",
)
# fmt: on


class Database(host.Database):
    """A database that records its calls and raises on demand."""

    def __init__(self) -> None:
        super().__init__()
        self.calls: list[str] = []
        self.failure: BaseException | None = None
        self.answer: Any = None

    def _call(self, *call: Any) -> None:
        self.calls.append(render(call))
        if self.failure is not None:
            raise self.failure

    def fetchall(self, sql: str) -> Any:
        self._call("fetchall", sql)
        return self.rows

    def fetchone(self, sql: str, params: Any) -> Any:
        self._call("fetchone", sql, params)
        return self.answer

    def execute(self, sql: str, params: Any) -> None:
        self._call("execute", sql, params)
        self.answer = params[1:]

    def executemany(self, sql: str, rows: Any) -> None:
        self._call("executemany", sql, rows)


class Clock:
    """The wall clock of both sides."""

    now: Any = 1.7e9
    reads = 0

    def __call__(self) -> Any:
        self.reads += 1
        return self.now


class Side(logging.Handler):
    """One of the two modules with its tracker and database; it keeps the module's warnings."""

    def __init__(self, module: Any, script: Script) -> None:
        super().__init__()
        self.module = module
        self.db = Database()
        self._script = script
        self._warnings: list[str] = []
        module.logger.handlers = [self]
        module.logger.propagate = False
        self.set_slow(False)
        self.construct()

    def emit(self, record: logging.LogRecord) -> None:
        """Keep a warning."""
        self._warnings.append(render((record.levelname, record.msg, record.args)))

    def construct(self) -> None:
        """Make a tracker from what the database holds."""
        repository = host.Repository(self.db)
        self.tracker = self.module.ToolHealthTracker(repository, self._script.limits)

    def set_slow(self, answer: Any) -> None:
        """Let the host's ``is_slow_call`` give, or raise, ``answer`` for the action x."""

        def is_slow_call(tool: str, action: Any) -> Any:
            if isinstance(answer, Exception):
                raise answer
            return answer if action == "x" else False

        self.module.is_slow_call = is_slow_call

    def step(self, label: str, change: Callable[[Side], Any]) -> str:
        """Do one step; what it returned or raised, as text."""
        records = label.startswith("tracker.record_")
        undo = self._undo() if records and self.module is baseline else None
        self.db.calls.clear()
        self._warnings.clear()
        self._script.clock.reads = 0
        try:
            return render(change(self))
        except BaseException as error:
            if undo is not None:
                undo()
            return f"raised {render(error)}{' itself' if error is self.db.failure else ''}"

    def seen(self, result: str) -> dict[str, str]:
        """Everything that can be seen after a step, as text."""
        tracker = self.tracker
        return {
            "result": result,
            "_state": render(tracker._state),
            "_usage": render(tracker._usage),
            "_dirty": render(tracker._dirty),
            "_usage_dirty": render(tracker._usage_dirty),
            "lock held": str(tracker._lock.locked()),
            "database": "\n".join(self.db.calls),
            "warnings": "\n".join(self._warnings),
            "clock reads": str(self._script.clock.reads),
        }

    def adopt_times(self, other: Side) -> None:
        """Take over the times that the other side read from the running clock a moment earlier."""
        for name, state in self.tracker._state.items():
            theirs = other.tracker._state.get(name)
            for field in ("disabled_at", "updated_at"):
                earlier, later = getattr(theirs, field, None), getattr(state, field)
                if type(earlier) is type(later) is float and 0 < later - earlier < 1:
                    setattr(state, field, earlier)

    def _undo(self) -> Callable[[], None]:
        """What takes a recording back.

        One that values of odd types bring to fail half-way leaves its first changes behind
        in plain Python, and none in the module.
        """
        tracker = self.tracker
        states = {name: dataclasses.replace(state) for name, state in tracker._state.items()}
        usage = {key: dataclasses.replace(counts) for key, counts in tracker._usage.items()}
        dirty, usage_dirty = set(tracker._dirty), tracker._usage_dirty

        def undo() -> None:
            tracker._state, tracker._usage = states, usage
            tracker._dirty, tracker._usage_dirty = dirty, usage_dirty

        return undo


def render(value: Any) -> str:
    """A value as text that tells types apart, at every depth."""
    kind = type(value).__name__
    if dataclasses.is_dataclass(value) and not isinstance(value, type):
        names = [field.name for field in dataclasses.fields(value)]
        return f"{kind}({', '.join(f'{name}={render(getattr(value, name))}' for name in names)})"
    if isinstance(value, dict):
        return f"{kind}{{{', '.join(f'{render(k)}: {render(v)}' for k, v in value.items())}}}"
    if isinstance(value, (list, tuple)):
        return f"{kind}[{', '.join(map(render, value))}]"
    if isinstance(value, (set, frozenset)):
        return f"{kind}[{', '.join(sorted(map(render, value)))}]"
    if type(value).__repr__ is object.__repr__:
        return kind
    return f"{kind} {value!r}" if kind != "str" else repr(value)


# Operations that walk over everything the tracker has. Where they meet several values that cannot be
# shown or stored, they agree on failing, but not on which of them to name.
WHOLE = ("tracker.flush", "tracker._flush", "tracker.get_health_summary", "tracker._usage_rows")

# A step: its description, and what it does to a side.
Step = tuple[str, Callable[[Side], Any]]


class Script:
    """The source of an episode's steps; what the two sides share is changed as a step is made."""

    def __init__(self, seed: int) -> None:
        self.clock = Clock()
        self.limits = host.ToolsConfig()
        self._chance = random.Random(seed)
        host.TOOLS.clear()
        host.TOOLS.update(a=host.ToolSpec(("x", "y")), b=host.ToolSpec(), c=host.ToolSpec(("x",)))

    def step(self) -> Step:
        """The next step."""
        makers = (  # and how often each comes
            (self._tool, 20), (self._error, 14), (self._count, 20), (self._whole, 13),
            (self._property, 3), (self._pass_time, 10), (self._set_limits, 2), (self._register, 2),
            (self._slow, 1), (self._fail, 2), (self._construct, 4), (self._poke, 3),
            (self._poke_usage, 3), (self._misuse, 4), (self._time, 12), (self._report, 3),
            (self._record, 3),
        )  # fmt: skip
        return self._chance.choices([m for m, _ in makers], [w for _, w in makers])[0]()

    def _value(self, kind: str, odd: float = 0.08) -> Any:
        """A value of a kind, an odd one with the chance ``odd``."""
        return self._chance.choice(VALUES[kind][self._chance.random() < odd])

    def _seldom(self, share: float) -> bool:
        return self._chance.random() < share

    def _tool(self) -> Step:
        name = self._chance.choice(("is_disabled", "is_disabled", "record_success", "_usage_rows"))
        return method(name, self._value("tool"))

    def _error(self) -> Step:
        return method("record_error", self._value("tool"), self._value("error", 0.2))

    def _count(self) -> Step:
        positional = (self._value(kind) for kind in ("tool", "action", "outcome"))
        took = self._value("duration", 0.2)
        return method("record_call", *positional, alias_hit=self._value("alias"), duration_ms=took)

    def _whole(self) -> Step:
        names = ("flush", "flush", "_flush_health", "_flush_usage", "get_health_summary")
        return method(self._chance.choice(names))

    def _property(self) -> Step:
        name = self._chance.choice(("limits", "cooldown_s", "has_unsaved_changes"))
        return name, lambda side: getattr(side.tracker, name)

    def _pass_time(self) -> Step:
        now = self.clock.now
        if self._seldom(0.1) or not isinstance(now, float) or not abs(now) < 1e10:
            self.clock.now = self._value("clock", 0.3)
        else:
            self.clock.now += self._chance.choice((0, 0.5, 20, 60, -30, self._chance.random()))
        return f"the clock shows {self.clock.now!r}", nothing

    def _set_limits(self) -> Step:
        self.limits.disable_after_errors = self._value("threshold", 0.15)
        self.limits.disable_cooldown_s = self._value("cooldown", 0.15)
        return repr(self.limits), nothing

    def _register(self) -> Step:
        name = self._chance.choice(("a", "b", "c", "é"))
        actions = self._chance.choice((None, "", "x", "xy"))
        if actions is None:
            host.TOOLS.pop(name, None)
        else:
            host.TOOLS[name] = host.ToolSpec(actions)
        return f"the registry has {name!r} with the actions {actions!r}", nothing

    def _slow(self) -> Step:
        answer = self._value("slow", 0.3)
        return f"is_slow_call gives {answer!r}", lambda side: side.set_slow(answer)

    def _fail(self) -> Step:
        failure = self._value("failure", 0.4)
        return f"the database raises {failure!r}", lambda side: setattr(side.db, "failure", failure)

    def _construct(self) -> Step:
        if self._seldom(0.3):
            return "construct anew", Side.construct
        rows = [self._row() for _ in range(self._chance.randrange(5))]
        answer: Any = (self._document(),)
        if self._seldom(0.05):
            rows = self._chance.choice((None, 5, "ab", tuple(rows)))
            answer = self._chance.choice((list(answer), (), None, 5, (*answer, "more"), *answer))

        def construct(side: Side) -> None:
            side.db.rows, side.db.answer = rows, answer
            side.construct()

        return f"construct from {rows!r} and {answer!r}", construct

    def _stamp(self) -> Any:
        """A stored time: one of the list, or one with a character added, dropped or changed."""
        text = self._value("stamp", 0.3)
        if not isinstance(text, str) or self._seldom(0.5):
            return text
        at = self._chance.randrange(len(text) + 1)
        added = self._chance.choice(("", *" \t:-0129a٣\n\u2003"))
        return text[:at] + added + text[at + self._chance.randrange(2) :]

    def _row(self) -> Any:
        """A row of ``tool_health``."""
        counts = self._value("count", 0.02), self._value("count", 0.02)
        row = (self._value("tool", 0.05), *counts, self._value("error", 0.2))
        row += (self._stamp(), self._stamp())
        odd = list(row), row[:5], (*row, 1), dict(enumerate(row)), "abcdef", None, ()
        return self._chance.choice(odd) if self._seldom(0.02) else row

    def _document(self) -> Any:
        """A stored usage document."""
        if self._seldom(0.2):
            return self._value("document", 0.7)
        entries: list[Any] = []
        for _ in range(self._chance.randrange(6)):
            entry: dict[str, Any] = {
                "tool": self._chance.choice("abcz"),
                "action": self._chance.choice(("x", "y", None, "gone")),
                "outcome": self._chance.choice(("ok", "é")),
                "alias_hit": self._value("json", 0.1),
                "calls": self._chance.randrange(9),
                "timed_calls": self._chance.randrange(9),
                "total_ms": self._chance.choice((0, 1.5, 2.0005, 1e16, 5e-324, "2.5")),
            }
            if self._seldom(0.1):
                entry[self._chance.choice(list(entry))] = self._value("json", 0.8)
            if self._seldom(0.02):
                del entry[self._chance.choice(list(entry))]
            entries.append(self._value("json", 0.5) if self._seldom(0.01) else entry)
        return json.dumps(entries)

    def _poke(self) -> Step:
        """A change of the health state from outside."""
        kinds = {"call_count": "count", "error_count": "count", "last_error": "error"}
        kinds |= {"disabled_at": "epoch", "updated_at": "epoch", "consecutive_errors": "count"}
        field = self._chance.choice(list(kinds))
        value, tool = self._value(kinds[field], 0.1), self._value("tool")
        place, action = self._chance.randrange(6), self._chance.choice(
            ("set", "new", "drop", "mark")
        )

        def poke(side: Side) -> None:
            states = side.tracker._state
            names = list(states)[place : place + 1]
            if action == "mark":
                side.tracker._dirty.add(tool)
            elif action == "new":
                states[tool] = side.module._ToolState(**{field: value})
            for name in names:
                if action == "set":
                    setattr(states[name], field, value)
                elif action == "drop":
                    del states[name]

        return f"{action} state {tool!r} or {place}: {field}={value!r}", poke

    def _poke_usage(self) -> Step:
        """A change of the usage counts from outside."""
        field, value = self._chance.choice(("calls", "timed_calls", "total_ms")), self._value(
            "count"
        )
        key = self._chance.choice("abq"), self._value("action"), "ok", False
        place, action = self._chance.randrange(9), self._chance.choice(
            ("set", "new", "drop", "mark")
        )

        def poke(side: Side) -> None:
            usage = side.tracker._usage
            if action == "mark":
                side.tracker._usage_dirty = not side.tracker._usage_dirty
            elif action == "new":
                usage[key] = side.module._Usage(**{field: value})
            for name in list(usage)[place : place + 1]:
                if action == "set":
                    setattr(usage[name], field, value)
                elif action == "drop":
                    del usage[name]

        return f"{action} usage {key!r} or {place}: {field}={value!r}", poke

    def _misuse(self) -> Step:
        """A call with arguments that seldom fit."""
        kinds = self._chance.choices(list(VALUES), k=self._chance.randrange(6))
        args = [self._value(kind, 0.3) for kind in kinds]
        names = self._chance.sample(KEYWORDS, self._chance.randrange(4))
        kwargs = {name: self._value("count") for name in names}
        call, known = self._chance.choice(((method, METHODS), (function, FUNCTIONS)))
        return call(self._chance.choice(known), *args, **kwargs)

    def _time(self) -> Step:
        if self._seldom(0.5):
            return function("_epoch", self._stamp())
        anywhere, tie = self._chance.uniform(-7e10, 2.6e11), self._chance.randrange(-9, 9) / 2e6
        return function(
            "_sqlite_time", self._chance.choice((anywhere, tie, self._value("epoch", 0.8)))
        )

    def _report(self) -> Step:
        if self._seldom(0.3):
            host.COLLECTOR.stats = [self._value("stats") for _ in range(self._chance.randrange(4))]
            return function("handle_get_tool_performance_stats")
        counts = (self._value("count", 0.15) for _ in range(3))
        census = host.ThreadCensus(next(counts), next(counts), self._value("pools", 0.2))
        return function("thread_census_report", next(counts), None if self._seldom(0.2) else census)

    def _record(self) -> Step:
        if self._seldom(0.5):
            return function("_known", self._value("tool", 0.2), self._value("action", 0.2))
        fields = (self._value("count", 0.5) for _ in range(self._chance.randrange(4)))
        return function(self._chance.choice(("_ToolState", "_Usage")), *fields)


def nothing(side: Side) -> None:
    """What a step does to a side when all it changes is shared."""


def method(name: str, *args: Any, **kwargs: Any) -> Step:
    """A call of the tracker."""
    label = f"tracker.{name}: {args!r} {kwargs or ''}"
    return label, lambda side: getattr(side.tracker, name)(*args, **kwargs)


def function(name: str, *args: Any, **kwargs: Any) -> Step:
    """A call of the module."""
    label = f"{name}: {args!r} {kwargs or ''}"
    return label, lambda side: getattr(side.module, name)(*args, **kwargs)


def episode(subject: Any, seed: int, steps: int) -> str | None:
    """Run one episode; None, or an account of where ``subject`` differs from the baseline."""
    script = Script(seed)
    real = time.time
    if seed % 2 == 0:
        time.time = script.clock
    try:
        sides = plain, native = [Side(module, script) for module in (baseline, subject)]
        for number in range(steps):
            label, change = script.step()
            results = [side.step(label, change) for side in sides]
            if time.time is real:
                native.adopt_times(plain)
            if label.startswith(WHOLE) and all(map(is_own_error, results)):
                results[1] = results[0]
            expected, actual = map(Side.seen, sides, results)
            if expected != actual:
                parts = [difference(k, v, actual[k]) for k, v in expected.items() if v != actual[k]]
                return "\n".join([f"seed {seed}, step {number}: {label[:2000]}", *parts])
    finally:
        time.time = real
    return None


def is_own_error(result: str) -> bool:
    """Whether a step raised an error, and not the one that the database had for it."""
    return result.startswith("raised") and not result.endswith(" itself")


def difference(name: str, expected: str, actual: str) -> str:
    """Two texts from shortly before the place where they part."""
    start = max(0, len(os.path.commonprefix([expected, actual])) - 100)
    shown = [ascii(text[start : start + 400]) for text in (expected, actual)]
    return f"  {name}\n    baseline: {shown[0]}\n    module:   {shown[1]}"


def main() -> None:
    """Run episodes until the time is up or one fails."""
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument(
        "--seed", type=int, help="of the first episode; the next ones count up from it"
    )
    parser.add_argument("--steps", type=int, default=300, help="steps of an episode")
    parser.add_argument("--seconds", type=float, default=20, help="when no more episodes are begun")
    options = parser.parse_args()
    subject = host.extension()
    first = options.seed if options.seed is not None else random.SystemRandom().randrange(10**6)
    end = time.monotonic() + options.seconds
    for seed in itertools.count(first):
        failure = episode(subject, seed, options.steps)
        if failure is not None:
            sys.exit(f"{failure}\nagain with: make fuzz SEED={seed}")
        if time.monotonic() >= end:
            done = (seed - first + 1) * options.steps
            print(f"seeds {first} to {seed}: {done} steps, no difference")
            return


if __name__ == "__main__":
    main()
