"""The records are dataclasses like any other, but for the memory that they live in."""

import copy
import dataclasses
import operator
import pickle
import weakref
from dataclasses import asdict, replace

from support import TrackerTest, health, result

ODD = [float("nan"), "text", None, 10**30]
# What can be asked of a record class R; ours and the plain one give the same answers.
# fmt: off
QUESTIONS = (
    lambda R: [(f.name, f.type, f.default, f.init) for f in dataclasses.fields(R)],
    lambda R: (R.__match_args__, R.__annotations__, R.__hash__, R.__bases__, R.__doc__),
    lambda R: (R.__name__, R.__qualname__, str(R.__dataclass_params__)),
    lambda R: (R(), asdict(R(1)), R(1, 2), R(*ODD[:3]), R([1], R())),
    lambda R: R(**dict.fromkeys(R.__match_args__, "v")),
    lambda R: R(*range(9)), lambda R: R(other=1), lambda R: R(1, **{R.__match_args__[0]: 1}),
    lambda R: (R() == R(), R(1) == R(2), R(*ODD[:3]) == R(*ODD[:3]), R() == 0),
    lambda R: (replace(R(1), **{R.__match_args__[-1]: 7}), replace(R(1)) == R(1)),
    lambda R: [R(**{f: v}) for f in R.__match_args__ for v in ODD],
    # In these the runtime names a native type with its module.
    lambda R: str(result(hash, R())).replace(f"{health.__name__}.", ""),
    lambda R: str(result(operator.lt, R(), R(1))).replace(f"{health.__name__}.", ""),
)
# fmt: on


class Special(health._Usage):
    """A host's own kind of record."""


class Records(TrackerTest):
    def test_they_are_what_plain_dataclasses_are(self):
        for name in ("_ToolState", "_Usage"):
            self.assertEqual(getattr(health, name).__module__, health.__name__)
            for number, question in enumerate(QUESTIONS):
                with self.subTest(name, question=number):
                    self.check_same(lambda module: question(getattr(module, name)))

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
                    self.assertEqual((type(made), vars(made)), (kind, {"note": "further"}))
                    self.assertRaisesRegex(AttributeError, last, getattr, made, last)
                    self.assertRaisesRegex(AttributeError, last, delattr, made, last)
                    setattr(record, last, 5)
                    setattr(made, last, 5)
                    self.assertEqual(record, made)
                    shared = getattr(made, first) is getattr(record, first)
                    self.assertEqual(shared, name == "copy")
                    self.assertIs(weakref.ref(made)(), made)
