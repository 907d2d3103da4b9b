"""The records are dataclasses like any other, but for the memory that they live in."""

from __future__ import annotations

import copy
import dataclasses
import itertools
import operator
import pickle
import unittest
import weakref
from dataclasses import asdict, replace

from benchmarks import baseline
from support import health, result


class Special(health._Usage):
    """A host's own kind of record."""


def unprefixed(call, *args):
    """The runtime names a native type with its module."""
    return str(result(call, *args)).replace(f"{health.__name__}.", "")


ODD = [float("nan"), "text", None, 10**30]
# What can be asked of a record class; ours and the plain one give the same answers.
QUESTIONS = {
    "fields": lambda R: [(f.name, f.type, f.default, f.init) for f in dataclasses.fields(R)],
    "class": lambda R: (R.__match_args__, R.__annotations__, R.__hash__, R.__bases__, R.__doc__),
    "options": lambda R: (R.__name__, R.__qualname__, str(R.__dataclass_params__)),
    "defaults": lambda R: [(repr(v), type(v)) for v in asdict(R()).values()],
    "by position": lambda R: (repr(R(1, 2)), repr(R(*ODD[:3])), repr(R([1], R()))),
    "by name": lambda R: repr(R(**dict.fromkeys(R.__match_args__, "v"))),
    "too many": lambda R: R(*range(9)),
    "unknown": lambda R: R(other=1),
    "twice": lambda R: R(1, **{R.__match_args__[0]: 1}),
    "equal": lambda R: (R() == R(), R(1) == R(2), R(*ODD[:3]) == R(*ODD[:3]), R() == 0),
    "hash": lambda R: unprefixed(hash, R()),
    "order": lambda R: unprefixed(operator.lt, R(), R(1)),
    "replace": lambda R: (repr(replace(R(1), **{R.__match_args__[-1]: 7})), replace(R(1)) == R(1)),
}  # fmt: skip


class Records(unittest.TestCase):
    def test_they_are_what_plain_dataclasses_are(self):
        for name in ("_ToolState", "_Usage"):
            ours, plain = getattr(health, name), getattr(baseline, name)
            self.assertEqual(ours.__module__, health.__name__)
            for topic, question in QUESTIONS.items():
                with self.subTest(name, topic=topic):
                    self.assertEqual(result(question, ours), result(question, plain))
            for value, field in itertools.product((*ODD, []), ours.__match_args__):
                self.assertIs(getattr(ours(**{field: value}), field), value)

    def test_copies_keep_every_field_and_further_attributes(self):
        ways = {"copy": copy.copy, "deepcopy": copy.deepcopy}
        for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
            ways[f"pickle {protocol}"] = lambda r, p=protocol: pickle.loads(pickle.dumps(r, p))
        for name, way in ways.items():
            for kind in (health._ToolState, health._Usage, Special):
                with self.subTest(name, kind=kind):
                    record = kind([1], "b")
                    record.note = "further"
                    first, *_, last = kind.__match_args__
                    delattr(record, last)
                    made = way(record)
                    self.assertIs(type(made), kind)
                    self.assertEqual(vars(made), {"note": "further"})
                    self.assertRaises(AttributeError, getattr, made, last)
                    setattr(record, last, 5)
                    setattr(made, last, 5)
                    self.assertEqual(record, made)
                    shared = getattr(made, first) is getattr(record, first)
                    self.assertEqual(shared, name == "copy")
                    self.assertIs(weakref.ref(made)(), made)

    def test_a_deleted_field_is_missing_until_it_is_set(self):
        record = health._Usage(1)
        del record.calls
        for use in (lambda: record.calls, lambda: repr(record), lambda: delattr(record, "calls")):
            self.assertRaisesRegex(AttributeError, "calls", use)
        record.calls = 2
        self.assertEqual(record, health._Usage(2))
