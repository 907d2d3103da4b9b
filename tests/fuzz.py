"""Random operations on the module and on its plain-Python version, compared step by step."""
# Both trackers have a database of their own with the same contents, and one host and one clock between them. After each
# step the two must agree on what was returned or raised, on every field of the tracker, on each call that reached the
# database, on the warnings and on how often the clock was read.
#
# A run is a series of episodes; each is made from a seed of its own, which a failure prints with the step that it
# failed at. With odd seeds the clock is the runtime's own, which the module reads on a path of its own; what it shows is
# then left out.

import argparse
import itertools
import json
import os
import random
import sys
import time
from collections import defaultdict
from decimal import Decimal
from fractions import Fraction
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.config import ToolsConfig
from quorl_dendra.tool_registry import Action, ToolSpec
from quorl_dendra.utils.process import ThreadCensus
from harness import NATIVE, PLAIN, PRESENT, REAL_CLOCK
from support import FakeDatabase, difference, limit_time


class Text(str):
    """Text of a type of its own."""

    def __repr__(self):
        return f"Text({super().__repr__()})"


NAN, INF = float("nan"), float("inf")
# fmt: off
NUMBERS = (
    0, 1, -2, 2.5, -0.0, True, None, NAN, INF, 2**70, 10**400, 1e16, "3", " 7 ", "x", "", b"12", Decimal("3.7"),
    Fraction(7, 2), [], [1], "1" * 5000, 1j,
)
STATS = [dict.fromkeys(("errors", "more", *"name count avg_ms p95_ms min_ms max_ms".split()), n / 7) for n in (2, 1)]
# By kind, the ordinary values and the odd ones.
VALUES = {
    "tool": (("a", "b", "c", "search"), (
        "", "é", "工具", "\ud800", '\x00"\\\n\x7f', Text("a"), Text("t"), None, 0, True, (1, 2), b"a", [],
    )),
    "action": (("x", "y", None), ("", "None", "Zed", "0", "é", "\udfff", Text("x"), 5, NAN, [])),
    "outcome": (("ok", "error"), ("", "Ω", "\U0001f600", Text("ok"), None, 3)),
    "alias": ((False, True), (0, 1, None, "yes", 2.0)),
    "duration": ((None, 1.5, 12.34567, 0.0005, 0.065, 0.215), (*NUMBERS, -1.0, 1e300, 0.1 + 0.2, 2.675)),
    "error": (("boom", "e" * 600), (
        "", None, "x" * 500, "é" * 501, "\ud800" * 501, "\U0001f600" * 501, Text("t" * 600), Text("s"), b"x" * 900,
        0, 5, ["list"] * 501,
    )),
    "disable_after_errors": ((3, 3, 1), (0, -1, 2.5, True, None, "3", NAN, 10**30)),
    "disable_cooldown_s": ((60.0, 5.0), (0, -1, NAN, INF, None, "x", Fraction(121, 2), 10**30, Decimal(1))),
    "count": ((0, 3, 12), NUMBERS),
    "epoch": ((0.0, 1.7e9, 1700000000.999, None), (
        *NUMBERS, 1700000000.9999996, -0.5, 5e-7, 1.5e-6, -62135596800, -62135596800.1, -3e10, 253402300799,
        253402300799.9, 253402300799.9999999, 253402300800, 1e18, -1e18,
    )),
    "stamp": (("2023-11-14 22:13:20", None), (
        "2023-1-4 2:3:4", "0999-01-01 00:00:00", "2024-02-30 00:00:00", "2023-11-14 24:00:00", "2023-11-14T22:13:20",
        "２０２３-11-14\u2003٢:1٣:20", "\ud800", 5, 2.5, b"", b"x", Text("x"), "2023-11-14 22:13:20.5",
        "9999-12-31 23:59:60", "0000-01-01 00:00:00", "", 0, [], Text("2023-11-14 22:13:20"),
    )),
    "clock": ((1.7e9, 1.7e9 + 30.25), (0, 17 * 10**8, -5.5, NAN, 1e18, Fraction(17, 3), 10**30, "now")),
    "slow": ((False, True), (None, "yes", [], ValueError("slow"))),
    "json": ((1, "a", None), (True, 0, -2, 1.9, "12", " 7 ", "1.5", "x", "", [], [1], {}, INF, NAN, 2**70)),
    "document": (("[]", None), (
        "{}", "", "{", "5", '"a"', '{"a":1}', "null", "[1]", "[" * 99999, b"[]", 5, Text("[]"),
    )),
    "budget": ((0, 9, 40), (-2, 2.5, False, "8", None)),
    "census": (
        (ThreadCensus(40, 9, {"pool": [8]}), ThreadCensus(None, 40, [("a", 1), ("a", 3)]), ThreadCensus(0, 9, {})),
        (ThreadCensus(10**30, 1, None), ThreadCensus("9", True, [1]), ThreadCensus(9, None, ["ab"]), 5),
    ),
    "stats": ((STATS, []), (tuple(STATS), None, STATS[0], [{"name": 1}], [*STATS, {}], ["text"], [None])),
    "failure": ((None,), (ValueError("database"), KeyboardInterrupt("key"), SystemExit(3), MemoryError(), OSError(5))),
}
# The tracker's mappings, their records, and the kinds of their fields.
COUNTS = dict.fromkeys(("call_count", "error_count", "consecutive_errors"), "count")
RECORDS = (
    ("_state", "_ToolState", {**COUNTS, "last_error": "error", "disabled_at": "epoch", "updated_at": "epoch"}),
    ("_usage", "_Usage", dict.fromkeys(("calls", "timed_calls", "total_ms"), "count")),
)
# A member of the tracker, and the kinds of its arguments.
CALLS = (
    ("is_disabled", "tool"), ("is_disabled", "tool"), ("is_disabled", "tool"), ("record_success", "tool"),
    ("record_success", "tool"), ("record_error", "tool", "error"), ("record_error", "tool", "error"),
    ("record_error", "tool", "error"), ("record_error", "tool", "error"), ("_usage_rows", "tool"),
    *[("record_call", "tool", "action", "outcome", "alias", "duration")] * 5, ("flush",), ("flush",),
    ("_flush_health",), ("_flush_usage",), ("get_health_summary",), ("limits",), ("cooldown_s",),
    ("has_unsaved_changes",), ("thread_census_report", "budget", "census"), ("handle_get_tool_performance_stats",),
)
# fmt: on
# They walk over several things. Where more than one raises they fail, but which of them they name is left open.
WHOLE = ("flush", "_flush", "get_health_summary", "_usage_rows")
# Each operation that was tried so often succeeds at least so often (today, the rarest: 3 in 4).
ENOUGH, LEAST_SUCCESS = 200, 0.6
STEPS = 300  # of an episode


class Side:
    """One of the two modules with its tracker and database; it keeps the module's warnings."""

    def __init__(self, module, script):
        self.module, self.script = module, script
        self.db, self.warnings, self.failure, self.slow, self.stats = FakeDatabase(), [], None, False, []
        self.db.hook = self.reach_database
        module.logger = SimpleNamespace(warning=lambda *args: self.warnings.append(render(args)))
        module.is_slow_call = self.is_slow_call
        module.get_timing_collector = lambda: SimpleNamespace(get_all_stats=lambda: self.stats)
        self.construct()

    def construct(self):
        # Make a tracker from what the database holds.
        self.tracker = self.module.ToolHealthTracker(self.db, self.script.limits)

    def reach_database(self, operation):
        if self.failure is not None:
            raise self.failure
        if operation == "execute":
            self.db.answer = self.db.calls[-1][2][1:]  # the document that was written

    def is_slow_call(self, tool, action):
        if isinstance(self.slow, Exception):
            raise self.slow
        return self.slow if action == "x" else False

    def step(self, change):
        # Do one step; what it returned or raised.
        self.db.calls.clear()
        self.warnings.clear()
        self.script.clock_reads = 0
        try:
            return change(self)
        except BaseException as error:
            return "raised", error, error is self.failure
        finally:
            self.clock_reads = self.script.clock_reads

    def seen(self, result):
        # Everything that can be seen after a step, as text.
        things = {name: getattr(self.tracker, name) for name in ("_state", "_usage", "_dirty", "_usage_dirty")}
        things |= {"result": result, "lock held": self.tracker._lock.locked(), "database": self.db.calls}
        things |= {"warnings": self.warnings, "clock reads": self.clock_reads}
        return {name: render(thing) for name, thing in things.items()}


def render(value):
    # A value as text, without what the time is; the texts tell all types in use here apart.
    return PRESENT.sub("now", repr(sorted(value, key=repr) if isinstance(value, set) else value))


class Script:
    """The source of an episode's steps; what the two sides share is changed as a step is made."""

    def __init__(self, seed):
        self.now, self.clock_reads = 1.7e9, 0  # of the wall clock of both sides
        self.limits = ToolsConfig()
        self._chance = random.Random(seed)
        self.clock = REAL_CLOCK if seed % 2 else self.read_clock
        NATIVE.TOOLS.clear()
        NATIVE.TOOLS.update(a=spec("xy"), b=spec(""), c=spec("x"))

    def read_clock(self):
        self.clock_reads += 1
        return self.now

    def step(self):
        # The next step: its description, and what it does to a side.
        makers = (  # and how often each comes
            (self._call, 60), (self._pass_time, 10), (self._set_limits, 2), (self._register, 2), (self._host, 3),
            (self._construct, 5), (self._poke, 6), (self._time, 15),
        )  # fmt: skip
        return self._chance.choices([maker for maker, _ in makers], [weight for _, weight in makers])[0]()

    def _value(self, kind, odd=0.08):
        # A value of a kind, an odd one with the chance ``odd``.
        return self._chance.choice(VALUES[kind][self._chance.random() < odd])

    def _seldom(self, share):
        return self._chance.random() < share

    def _call(self):
        name, *kinds = self._chance.choice(CALLS)
        args = [self._value(kind, 0.2 if kind in ("error", "duration") else 0.08) for kind in kinds]
        named = {"alias_hit": args.pop(3), "duration_ms": args.pop()} if name == "record_call" else {}
        return call(name, *args, **named)

    def _pass_time(self):
        now = self.now
        if self._seldom(0.1) or not isinstance(now, float) or not abs(now) < 1e10:
            self.now = self._value("clock", 0.3)
        else:
            self.now += self._chance.choice((0, 0.5, 20, 60, -30, self._chance.random()))
        return f"the clock shows {self.now!r}", nothing

    def _set_limits(self):
        vars(self.limits).update({name: self._value(name, 0.15) for name in vars(self.limits)})
        return repr(self.limits), nothing

    def _register(self):
        name, actions = self._chance.choice("abcé"), self._chance.choice((None, "", "x", "xy"))
        NATIVE.TOOLS[name] = spec(actions or "")
        if actions is None:
            del NATIVE.TOOLS[name]
        return f"the registry has {name!r} with the actions {actions!r}", nothing

    def _host(self):
        name = self._chance.choice(("slow", "stats", "failure"))
        value = self._value(name, 0.4)
        return f"{name}: {value!r}", lambda side: setattr(side, name, value)

    def _construct(self):
        if self._seldom(0.3):
            return "construct anew", Side.construct
        rows, answer = [self._row() for _ in range(self._chance.randrange(5))], (self._document(),)
        if self._seldom(0.05):
            rows = self._chance.choice((None, 5, "ab", tuple(rows)))
            answer = self._chance.choice((list(answer), (), None, 5, (*answer, "more"), *answer))

        def construct(side):
            side.db.rows, side.db.answer = rows, answer
            side.construct()

        return f"construct from {rows!r} and {answer!r}", construct

    def _stamp(self):
        # A stored time: one of the list, or one with a character added, dropped or changed.
        text = self._value("stamp", 0.3)
        if not isinstance(text, str) or self._seldom(0.5):
            return text
        at = self._chance.randrange(len(text) + 1)
        added = self._chance.choice(("", *" \t:-0129a٣\n\u2003"))
        return text[:at] + added + text[at + self._chance.randrange(2) :]

    def _row(self):
        # A row of ``tool_health``.
        kinds = {"tool": 0.05, "count": 0.02, "count ": 0.02, "error": 0.2}
        row = *(self._value(kind.strip(), odd) for kind, odd in kinds.items()), self._stamp(), self._stamp()
        odd = list(row), row[:5], (*row, 1), dict(enumerate(row)), "abcdef", None, ()
        return self._chance.choice(odd) if self._seldom(0.02) else row

    def _document(self):
        # A stored usage document.
        if self._seldom(0.2):
            return self._value("document", 0.7)
        entries = []
        for _ in range(self._chance.randrange(6)):
            entry = {"tool": self._chance.choice("abcz"), "action": self._chance.choice(("x", "y", None, "gone"))}
            entry |= {"outcome": self._chance.choice(("ok", "é")), "alias_hit": self._value("json", 0.1)}
            entry |= {"calls": self._chance.randrange(9), "timed_calls": self._chance.randrange(9)}
            entry |= {"total_ms": self._chance.choice((0, 1.5, 2.0005, 1e16, 5e-324, "2.5"))}
            if self._seldom(0.1):
                entry[self._chance.choice(list(entry))] = self._value("json", 0.8)
            if self._seldom(0.02):
                del entry[self._chance.choice(list(entry))]
            entries.append(self._value("json", 0.5) if self._seldom(0.01) else entry)
        return json.dumps(entries, separators=self._chance.choice((None, (",", ":"))))  # the latter as a flush does

    def _poke(self):
        # A change of the tracker's memory from outside.
        mapping, record, kinds = self._chance.choice(RECORDS)
        key = self._chance.choice("abq"), self._value("action"), "ok", False
        key = key if record == "_Usage" else self._value("tool")
        field, kind = self._chance.choice(list(kinds.items()))
        action, value = self._chance.choice(("set", "new", "drop", "mark")), self._value(kind)
        place = self._chance.randrange(9)

        def poke(side):
            records = getattr(side.tracker, mapping)
            if action == "new":
                records[key] = getattr(side.module, record)(**{field: value})
            if action == "mark" and record == "_Usage":
                side.tracker._usage_dirty = not side.tracker._usage_dirty
            elif action == "mark":
                side.tracker._dirty.add(key)
            for name in list(records)[place : place + 1]:
                if action == "set":
                    setattr(records[name], field, value)
                if action == "drop":
                    del records[name]

        return f"{action} {mapping} {key!r} or {place}: {field}={value!r}", poke

    def _time(self):
        if self._seldom(0.5):
            return call("_epoch", self._stamp())
        tie = self._chance.choice((0, 1e6, 1.7e9, -1.7e9)) + self._chance.randrange(-9, 9) / 2e6  # of microseconds
        odd = self._chance.choice((self._chance.uniform(-7e10, 2.6e11), tie, self._value("epoch", 0.8)))
        return call("_sqlite_time", odd)


def spec(actions):
    return ToolSpec("", tuple(map(Action, actions)))


def nothing(side):
    """What a step does to a side when all it changes is shared."""


def call(name, *args, **kwargs):
    # A use of a member of the tracker, or of a function of the module.

    def change(side):
        found = getattr(side.module if hasattr(side.module, name) else side.tracker, name)
        return found(*args, **kwargs) if callable(found) else found

    return f"{name}: {args!r} {kwargs or ''}", change


def episode(seed, succeeded):
    # Run one episode; None, or where the sides differ. ``succeeded`` gets, by operation, whether it raised nothing.
    script = Script(seed)
    sides = [Side(module, script) for module in (NATIVE, PLAIN)]
    for number in range(STEPS):
        label, change = script.step()
        with mock.patch("time.time", script.clock):
            results = [side.step(change) for side in sides]
        succeeded[label.split()[0].rstrip(":")].append(not is_error(results[0]))
        if label.startswith(WHOLE) and all(is_error(result) and not result[2] for result in results):
            results = [None, None]
        if told := difference(*map(Side.seen, sides, results)):
            return f"seed {seed}, step {number}: {label[:2000]}\n{told}"
    return None


def is_error(result):
    return isinstance(result, tuple) and result[:1] == ("raised",)


def main():
    """Run episodes until the time is up or one fails."""
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10**6), help="of the first episode")
    parser.add_argument("--seconds", type=float, default=20, help="when no more episodes are begun")
    parser.add_argument("--episodes", type=int, help="so many instead, however long they take")
    options = parser.parse_args()
    end, succeeded = time.monotonic() + options.seconds, defaultdict(list)
    for done in itertools.count(1):
        seed = options.seed + done - 1
        limit_time()
        if told := episode(seed, succeeded):
            sys.exit(f"{told}\nagain with: make fuzz SEED={seed}")
        if done == options.episodes or options.episodes is None and time.monotonic() >= end:
            break
    for operation, tries in succeeded.items():
        if len(tries) >= ENOUGH and sum(tries) / len(tries) < LEAST_SUCCESS:
            sys.exit(f"{operation} fails too often, on both sides: little is compared")
    print(f"seeds {options.seed} to {seed}: {done * STEPS} steps, no difference")


if __name__ == "__main__":
    main()
