"""Stored times, held against the runtime's own ``datetime``, and the registry check."""

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
KNOWN = {
    ("gone", None): False, ("gone", "x"): False, ("a", None): True, ("a", "x"): True,
    ("a", "z"): False, ("a", ""): False, ("b", None): True, ("b", "x"): False,
    ("odd", "empty"): True, ("odd", "none"): False, ("odd", ""): True,
}
# fmt: on


class Times(TrackerTest):
    def test_tables(self):
        health.TOOLS["odd"] = mock.Mock(action={"empty": "", "none": None, "": 0}.get)
        for name, table in ("_sqlite_time", MOMENTS), ("_epoch", TEXTS), ("_known", KNOWN):
            for given, expected in table.items():
                with self.subTest(name, given=given):
                    args = given if name == "_known" else [given]
                    self.assertEqual(getattr(health, name)(*args), expected)
