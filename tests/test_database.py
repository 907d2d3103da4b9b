"""A real database that fails: nothing that was recorded is lost, and the next flush writes all of it."""

import contextlib
import sqlite3
import tempfile
from pathlib import Path

from quorl_dendra.repository import Database
from support import PlainTest, TrackerTest, count, health

NAMES = [f"tool-{number}" for number in range(80)]


def change(tracker, text):
    for name in NAMES:
        tracker.record_error(name, text * 99)
    count(tracker, NAMES[0], None, text)


class DatabaseTests:
    def test_a_locked_database(self):
        """Both writes fail and both reads are warned about; all is written once it is free."""
        health.TOOLS.update(dict.fromkeys(NAMES, health.TOOLS["a"]))
        path = Path(self.enterContext(tempfile.TemporaryDirectory()), "locked")
        db = Database(path, busy_timeout_s=0.05)
        self.addCleanup(db.close)
        db.db = db  # it is its own repository
        db.execute("PRAGMA journal_mode = DELETE")  # in which a writer locks readers out
        tracker = self.module.ToolHealthTracker(db)
        change(tracker, "old")
        tracker.flush()
        change(tracker, "newer")
        with contextlib.closing(sqlite3.connect(path, isolation_level=None)) as other:
            other.execute("BEGIN EXCLUSIVE")
            for _ in range(2):
                self.assertRaises(sqlite3.Error, tracker.flush)
            self.assertEqual((tracker._dirty, tracker._usage_dirty), ({*NAMES}, True))
            unread = self.module.ToolHealthTracker(db)
            self.assertEqual((unread._state, unread._usage, unread.has_unsaved_changes), ({}, {}, False))
            origins = [(record.module, record.funcName) for (record,), _ in self.warning.call_args_list]
            name = self.module.__name__.rpartition(".")[2]
            self.assertEqual(origins, [(name, "_load"), (name, "_load_usage")])
            tracker.record_success(NAMES[0])
        tracker.flush()
        self.assertFalse(tracker.has_unsaved_changes)
        restarted = self.module.ToolHealthTracker(db)
        for state in tracker._state.values():
            state.consecutive_errors = 0
        self.assertEqual((restarted._state, restarted._usage), (tracker._state, tracker._usage))
        self.assertFalse(restarted.has_unsaved_changes)


class NativeDatabase(DatabaseTests, TrackerTest): ...


class PlainDatabase(DatabaseTests, PlainTest): ...
