"""A real database that fails: nothing that was recorded is lost, and the next flush writes all of it."""

import contextlib
import itertools
import json
import signal
import sqlite3
import tempfile
from pathlib import Path

from quorl_dendra.repository import Database
from harness import shown
from support import TrackerTest, count, health, run_child

NAMES = [f"tool-{number}" for number in range(80)]
# A tracker whose second flush is killed: before its second statement (0), or by the database's progress so far on.
KILLED = """import os, signal, sys
from test_database import *
point = int(sys.argv[2])
def kill():
    os.kill(os.getpid(), signal.SIGKILL)
health.TOOLS.update(dict.fromkeys(NAMES, health.TOOLS["fetch"]))
db = Database(sys.argv[1])
db.db = db
tracker = health.ToolHealthTracker(db)
change(tracker, "old")
tracker.flush()
change(tracker, "newer")
steps = itertools.count(1)
if point:
    db._connection.set_progress_handler(lambda: kill() if next(steps) == point else 0, 50)
else:
    db.execute = lambda *args: kill()
tracker.flush()"""


def change(tracker, text):
    for name in NAMES:
        tracker.record_error(name, text * 99)
    count(tracker, NAMES[0], None, text)


def stored(db):
    """What the database holds: the rows and the entries of the document."""
    rows = db.fetchall(f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health ORDER BY tool_name")
    (document,) = db.fetchone("SELECT value FROM schema_info WHERE key = 'tool_usage'")
    return [[*row] for row in rows], [[*entry.values()] for entry in json.loads(document)]


class RealDatabase(TrackerTest):
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
        tracker = health.ToolHealthTracker(db)
        change(tracker, "old")
        tracker.flush()
        change(tracker, "newer")
        before = shown(tracker)
        with contextlib.closing(sqlite3.connect(path, isolation_level=None)) as other:
            other.execute("BEGIN EXCLUSIVE")
            for _ in range(2):
                self.assertRaises(sqlite3.Error, tracker.flush)
            self.assertEqual(shown(tracker), before)
            self.assertEqual(shown(health.ToolHealthTracker(db)), [[], [], [], False])
            self.assertEqual(self.warning.call_count, 2)
            tracker.record_success(NAMES[0])
        tracker.flush()
        self.assertFalse(tracker.has_unsaved_changes)
        states, usage, *_ = shown(tracker)
        rows, entries = stored(db)
        self.assertEqual([row[:4] for row in rows], sorted([name, *state[:3]] for name, state in states))
        restarted = shown(health.ToolHealthTracker(db))
        self.assertEqual(restarted, [sorted([name, [*state[:5], 0]] for name, state in states), usage, [], False])
        self.assertEqual(entries, [[*key, *counts] for key, counts in usage])

    def test_killed(self):
        """The file is sound, and each statement took place or did not."""
        point, outcomes = 0, set()
        while True:
            path = Path(self.folder, f"killed-{point}")
            child = run_child(KILLED, str(path), str(point))
            if child.returncode == 0:
                break
            self.assertEqual(child.returncode, -signal.SIGKILL, child.stderr)
            db = self.open(path)
            self.assertEqual(db.fetchall("PRAGMA integrity_check"), [("ok",)])
            rows, entries = stored(db)
            errors = {tuple(row[1:4]) for row in rows}
            self.assertIn(errors, [{(1, 1, "old" * 99)}, {(2, 2, "newer" * 99)}])
            self.assertEqual([entry[2] for entry in entries], ["old"])
            self.assertEqual(len(rows), len(NAMES))
            outcomes.add(min(errors))
            point = point * 2 or 1
        self.assertEqual(len(outcomes), 2)
