"""Stored times and the registry check, held against the runtime's own ``datetime``."""

from __future__ import annotations

import itertools
import random
from datetime import UTC, datetime
from decimal import Decimal
from fractions import Fraction
from unittest import mock

from support import TrackerTest, health, result

FORMAT = "%Y-%m-%d %H:%M:%S"
FIRST, END = -62_135_596_800, 253_402_300_800  # the years 1 to 9999 in epoch seconds


def sqlite_time(epoch):
    return None if epoch is None else datetime.fromtimestamp(epoch, UTC).strftime(FORMAT)


def epoch(text):
    if not text:
        return None
    try:
        return datetime.strptime(text, FORMAT).replace(tzinfo=UTC).timestamp()
    except ValueError:
        return None


class Text(str):
    """Text of a type of its own."""


class Real(float):
    """A number of a type of its own."""


MOMENTS = {  # what the runtime gives for them is known here without asking it
    None: None, 0: "1970-01-01 00:00:00", -0.5: "1969-12-31 23:59:59",
    1700000000: "2023-11-14 22:13:20", 1700000000.999: "2023-11-14 22:13:20",
    1700000000.9999996: "2023-11-14 22:13:21", FIRST: "1-01-01 00:00:00",
    -30610224000: "1000-01-01 00:00:00", -30610224001: "999-12-31 23:59:59",
    END - 1: "9999-12-31 23:59:59", 951782400: "2000-02-29 00:00:00",
}  # fmt: skip
ODD_NUMBERS = (
    END, FIRST - 1, END - 0.0000001, FIRST - 0.4, float("nan"), float("inf"), float("-inf"), 1e18,
    -1e18, 1e308, 2**62, 2**63, -(2**63), 2**64, 10**400, -(10**400), True, Real(0.75), 1j, "0", "",
    b"0", [], Decimal("1.5"), Fraction(7, 2), Decimal("nan"), 0.0, -0.0, 5e-324, object,
)  # fmt: skip
TEXTS = {
    None: None, "": None, 0: None, b"": None, "2023-11-14 22:13:20": 1700000000.0,
    "2023-1-4 2:3:4": 1672797784.0, "2023-11-14\t22:13:20": 1700000000.0,
    "0001-01-01 00:00:00": float(FIRST), "9999-12-31 23:59:59": END - 1.0,
    "２٠२3-11-1٤ 1٣:1٣:2٠": 1699967600.0, "2023-11-14\u2003\u00a022:13:20": 1700000000.0,
    "2023-11-14 22:13:20.5": None, "2023-11-14T22:13:20": None, "2023-11-14 22:13:20+00:00": None,
    "2023-11-14": None, " 2023-11-14 22:13:20": None, "2023-11-14 22:13:20 ": None,
    "2023-11-14 24:00:00": None, "2023-11-14 22:13:60": None, "2023-11-14 22:13:61": None,
    "2023-02-30 00:00:00": None, "2023-02-29 00:00:00": None, "2024-02-29 00:00:00": 1709164800.0,
    "1900-02-29 00:00:00": None, "0000-01-01 00:00:00": None, "2023-11-14 22:13:20\n": None,
}  # fmt: skip
ODD_TEXTS = (
    5, 2.5, b"2023-11-14 22:13:20", ["2023"], True, Text("2023-11-14 22:13:20"), Text(""), "\ud800",
    "2023-11- 4 22:13:20", "2023-11-  4 22:13:20", "2023-11-14 22:13:20\x00",
    "²023-11-14 22:13:20", "2023-11-14  \u3000 22:13:20", "10000-01-01 00:00:00",
)  # fmt: skip


class Times(TrackerTest):
    def check(self, ours, plain, value):
        """Same value of the same type, or the same error."""
        expected, actual = result(plain, value), result(ours, value)
        if (type(actual), actual) != (type(expected), expected):
            self.fail(f"{ours.__name__}({value!r}): {actual!r}, not {expected!r}")

    def test_known_moments_and_texts(self):
        for moment, text in MOMENTS.items():
            with self.subTest(moment):
                self.assertEqual(health._sqlite_time(moment), text)
        for text, moment in TEXTS.items():
            with self.subTest(text):
                self.assertEqual(health._epoch(text), moment)

    def test_every_number_is_formatted_as_the_runtime_does(self):
        chance = random.Random(7)
        spread = [chance.uniform(FIRST, END) for _ in range(2000)]
        near = (0, 1, -1, 1.7e9, -1.7e9, 1e6, -30610224000, FIRST, END - 1, END)
        # Halves of a microsecond: the ties, where a double can tell them apart.
        ties = (base + half / 2e6 for base in near for half in (*range(-5, 6), 1999999, 999999))
        seconds = (int(s) for s in spread[:300])
        for number in itertools.chain(MOMENTS, ODD_NUMBERS, spread, ties, seconds):
            self.check(health._sqlite_time, sqlite_time, number)

    def test_every_text_is_read_as_the_runtime_does(self):
        """A canonical text with one place, or two, replaced, dropped or added to."""
        for text in (*TEXTS, *ODD_TEXTS):
            self.check(health._epoch, epoch, text)
        chance = random.Random(7)
        for base in ("2023-11-14 22:13:20", "2024-02-29 23:59:59", "0999-1-1 0:00:00"):
            places, news = range(len(base) + 1), " \t\n:-+09٣T.\u2003²"
            for at, cut, new in itertools.product(places, (0, 1), news):
                text = base[:at] + new + base[at + cut :]
                self.check(health._epoch, epoch, text)
                other = chance.randrange(len(text))
                self.check(health._epoch, epoch, text[:other] + text[other + 1 :])

    def test_what_is_written_is_read_back_to_the_second(self):
        chance = random.Random(7)
        for moment in (chance.uniform(-30610224000, END - 1) for _ in range(1000)):
            whole = datetime.fromtimestamp(moment, UTC).replace(microsecond=0).timestamp()
            self.assertEqual(health._epoch(health._sqlite_time(moment)), whole)

    def test_a_tool_is_known_while_the_registry_has_it_and_its_action(self):
        spec = mock.Mock(action={"empty": "", "none": None, "": 0}.get)
        health.TOOLS["odd"] = spec
        table = {
            ("gone", None): False, ("gone", "x"): False, ("a", None): True, ("a", "x"): True,
            ("a", "z"): False, ("a", ""): False, ("b", None): True, ("b", "x"): False,
            ("odd", "empty"): True, ("odd", "none"): False, ("odd", ""): True,
        }  # fmt: skip
        for (tool, action), known in table.items():
            with self.subTest(tool=tool, action=action):
                self.assertIs(health._known(tool, action), known)
