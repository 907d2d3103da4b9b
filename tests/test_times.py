"""Stored times, held against the runtime's own ``datetime``, and the registry check."""

import itertools
import random
from decimal import Decimal
from fractions import Fraction
from unittest import mock

from support import TrackerTest, health

FIRST, END = -62_135_596_800, 253_402_300_800  # the years 1 to 9999 in epoch seconds
THOUSAND = -30_610_224_000  # the year 1000, from which on years are padded
# fmt: off
MOMENTS = {
    None: None, 0: "1970-01-01 00:00:00", -0.5: "1969-12-31 23:59:59",
    1700000000: "2023-11-14 22:13:20", 1700000000.999: "2023-11-14 22:13:20",
    1700000000.9999996: "2023-11-14 22:13:21", 951782400: "2000-02-29 00:00:00",
    FIRST: "1-01-01 00:00:00", THOUSAND: "1000-01-01 00:00:00", END - 1: "9999-12-31 23:59:59",
}
ODD_NUMBERS = (
    END, FIRST - 1, END - 1e-7, FIRST - 0.4, float("nan"), float("inf"), -float("inf"), 1e18, -1e308,
    2**62, 2**63, -(2**63), 10**400, -(10**400), True, type("Real", (float,), {})(0.75), 1j, "0", "",
    b"0", [], Decimal("1.5"), Fraction(7, 2), Decimal("nan"), 0.0, -0.0, 5e-324, object,
)
TEXTS = {
    None: None, "": None, 0: None, b"": None, "2023-11-14 22:13:20": 1700000000.0,
    "2023-1-4 2:3:4": 1672797784.0, "2023-11-14\t22:13:20": 1700000000.0,
    "2０2٣-11-1٤ 1٣:1٣:2٠": 1699967600.0, "2023-11-14\u2003\u00a022:13:20": 1700000000.0,
    "0001-01-01 00:00:00": float(FIRST), "9999-12-31 23:59:59": END - 1.0,
    "2023-11-14 22:13:20.5": None, "2023-11-14T22:13:20": None, "2023-11-14 22:13:20+00:00": None,
    "2023-11-14": None, " 2023-11-14 22:13:20": None, "2023-11-14 22:13:20 ": None,
    "2023-11-14 24:00:00": None, "2023-11-14 22:13:60": None, "2023-02-30 00:00:00": None,
    "1900-02-29 00:00:00": None, "2024-02-29 00:00:00": 1709164800.0, "0000-01-01 00:00:00": None,
}
ODD_TEXTS = (
    5, 2.5, b"2023-11-14 22:13:20", ["2023"], True, type("Text", (str,), {})("2023-11-14 22:13:20"),
    "\ud800", "2023-11- 4 22:13:20", "2023-11-14 22:13:20\x00", "10000-01-01 00:00:00",
)
KNOWN = {
    ("gone", None): False, ("gone", "x"): False, ("a", None): True, ("a", "x"): True,
    ("a", "z"): False, ("a", ""): False, ("b", None): True, ("b", "x"): False,
    ("odd", "empty"): True, ("odd", "none"): False, ("odd", ""): True,
}
# fmt: on


class Times(TrackerTest):
    def check_function(self, name, values):
        for value in values:
            self.check_same(lambda module, value: getattr(module, name)(value), value)

    def test_tables(self):
        health.TOOLS["odd"] = mock.Mock(action={"empty": "", "none": None, "": 0}.get)
        for name, table in ("_sqlite_time", MOMENTS), ("_epoch", TEXTS), ("_known", KNOWN):
            for given, expected in table.items():
                with self.subTest(name, given=given):
                    args = given if name == "_known" else [given]
                    self.assertEqual(getattr(health, name)(*args), expected)

    def test_numbers(self):
        chance = random.Random(7)
        spread = [chance.uniform(FIRST, END) for _ in range(2000)]
        bases = (0, 1, -1, 1.7e9, -1.7e9, 1e6, THOUSAND, FIRST, END - 1, END)
        # Halves of a microsecond: ties, where a double can tell them apart.
        ties = (base + half / 2e6 for base in bases for half in (*range(-5, 6), 999999, 1999999))
        numbers = [*MOMENTS, *ODD_NUMBERS, *spread, *map(int, spread), *ties]
        self.check_function("_sqlite_time", numbers)
        for moment in spread:  # and read back to the second, in the years of four digits
            text = health._sqlite_time(moment)
            whole = health._epoch(text)
            self.assertEqual(health._sqlite_time(whole), text if moment >= THOUSAND else None)

    def test_texts(self):
        """Also good texts with one place replaced or added to, and another dropped."""
        chance, texts = random.Random(7), [*TEXTS, *ODD_TEXTS]
        for good in ("2023-11-14 22:13:20", "2024-02-29 23:59:59", "0999-1-1 0:00:00"):
            places, news = range(len(good) + 1), " \t\n:-+09٣T.\u2003²"
            for at, cut, new in itertools.product(places, (0, 1), news):
                text = good[:at] + new + good[at + cut :]
                other = chance.randrange(len(text))
                texts += [text, text[:other] + text[other + 1 :]]
        self.check_function("_epoch", texts)
