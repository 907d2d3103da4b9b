"""A real database that fails: nothing that was recorded is lost, and the next flush writes all of it."""

import contextlib
import itertools
import json
import shutil
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
    def setUp(self):
        super().setUp()
        health.TOOLS.update(dict.fromkeys(NAMES, health.TOOLS["a"]))
        self.folder = self.enterContext(tempfile.TemporaryDirectory())

    def open(self, path):
        db = Database(path, busy_timeout_s=0.05)
        self.addCleanup(db.close)
        db.db = db  # it is its own repository
        return db

    def test_a_locked_database(self):
        """Both writes fail and both reads are warned about; all is written once it is free."""
        db = self.open(path := Path(self.folder, "locked"))
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

    def test_killed(self):
        """At any moment: the file is sound, and each statement took place or did not."""
        # What the folder holds at that moment is what a kill would leave.

        def copy(*_):
            copies.append(Path(self.folder, f"copy {len(copies)}"))
            shutil.copytree(live, copies[-1])

        live, copies, outcomes = Path(self.folder, "live"), [], set()
        live.mkdir()
        db = self.open(live / "db")
        tracker = self.module.ToolHealthTracker(db)
        change(tracker, "old")
        tracker.flush()
        change(tracker, "newer")
        db._connection.set_progress_handler(copy, 200)  # while a statement runs
        db.execute = lambda *args: (copy(), Database.execute(db, *args), copy())
        tracker.flush()
        for folder in copies:
            db = self.open(folder / "db")
            self.assertEqual(db.fetchall("PRAGMA integrity_check"), [("ok",)])
            rows = db.fetchall("SELECT call_count, count(*) FROM tool_health GROUP BY call_count")
            (document,) = db.fetchone("SELECT value FROM schema_info WHERE key = 'tool_usage'")
            outcomes.add((*rows, len(json.loads(document))))
        self.assertEqual(outcomes, {((1, 80), 1), ((2, 80), 1), ((2, 80), 2)})


class NativeDatabase(DatabaseTests, TrackerTest): ...


class PlainDatabase(DatabaseTests, PlainTest): ...
