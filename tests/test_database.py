"""A real database that fails: nothing that was recorded is lost, and the next flush writes all of it."""

import contextlib
import itertools
import json
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
from pathlib import Path

from quorl_dendra.repository import Database
from support import TrackerTest, count, health, memory, run_child

NAMES = [f"tool-{number}" for number in range(80)]
HOLD = """import sqlite3, sys
connection = sqlite3.connect(sys.argv[1], isolation_level=None)
connection.execute("BEGIN EXCLUSIVE")
print("locked", flush=True)
sys.stdin.read()"""
# Values that a column can hold, as SQL.
GARBAGE = (
    "NULL", "x''", "x'00ff'", "CAST(x'ff' AS TEXT)", "''", "'garbage'", "char(0)", "'12'", "' 7 '", "1e300", "9e999",
    "-9223372036854775808", "2.5", "'[]'", "'{}'", "'[{}]'", "'[[]]'", "x'5b5d'", "'9' || hex(zeroblob(3000))",
)  # fmt: skip
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
    """What the database holds, in the form of ``remembered``."""
    rows = db.fetchall(f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health ORDER BY tool_name")
    (document,) = db.fetchone("SELECT value FROM schema_info WHERE key = 'tool_usage'")
    return [tuple(row) for row in rows], [tuple(entry.values()) for entry in json.loads(document)]


def remembered(tracker):
    states, usage, *_ = memory(tracker)
    time = health._sqlite_time
    rows = [(name, *state[:3], time(state[3]), time(state[4])) for name, state in states]
    return sorted(rows), [(*key, *counts) for key, counts in usage]


@contextlib.contextmanager
def locked(db, path):
    """By another process, for longer than the database waits."""
    command = [sys.executable, "-c", HOLD, str(path)]
    pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
    with subprocess.Popen(command, **pipes) as holder:
        holder.stdout.readline()
        yield
        holder.stdin.close()


@contextlib.contextmanager
def read_only(db, path):
    kept, db._connection = db._connection, sqlite3.connect(f"file:{path}?mode=ro", uri=True)
    yield
    db.close()
    db._connection = kept


@contextlib.contextmanager
def full(db, path):
    db.execute("PRAGMA max_page_count = 1")  # it is as large as it can be already
    yield
    db.execute("PRAGMA max_page_count = 99999")


@contextlib.contextmanager
def closed(db, path):
    db.close()
    yield
    db._connection = sqlite3.connect(path)


@contextlib.contextmanager
def corrupt(db, path):
    db.close()
    shutil.copy(path, copy := path.with_suffix(".copy"))
    with path.open("r+b") as file:
        file.seek(100)
        file.write(b"garbage " * (path.stat().st_size // 8))
    with closed(db, path):
        db._connection = sqlite3.connect(path)
        yield
        db.close()
        shutil.copy(copy, path)


def without(table):
    @contextlib.contextmanager
    def fault(db, path):
        db.execute(f"ALTER TABLE {table} RENAME TO away")
        yield
        db.execute(f"ALTER TABLE away RENAME TO {table}")

    return fault


# Each with the parts of the history that can still be read, and whether the rows can still be written.
FAULTS = {
    "locked": (locked, (), False),
    "read-only": (read_only, (0, 1), False),
    "full": (full, (0, 1), False),
    "closed": (closed, (), False),
    "corrupt": (corrupt, (), False),
    "without the first table": (without("tool_health"), (1,), False),
    "without the second table": (without("schema_info"), (0,), True),
}


class RealDatabase(TrackerTest):
    def setUp(self):
        super().setUp()
        health.TOOLS.update(dict.fromkeys(NAMES, health.TOOLS["a"]))
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.paths = (Path(folder, f"{number}.sqlite3") for number in itertools.count())

    def open(self):
        self.path = next(self.paths)
        db = Database(self.path, busy_timeout_s=0.05)
        self.addCleanup(db.close)
        db.db = db  # it is its own repository
        db.execute("PRAGMA journal_mode = DELETE")  # in which a writer locks readers out
        return db

    def test_faults(self):
        for name, case in FAULTS.items():
            with self.subTest(name):
                self.check(self.open(), *case)

    def check(self, db, fault, readable, is_half_written):
        tracker = health.ToolHealthTracker(db)
        change(tracker, "old")
        tracker.flush()
        change(tracker, "newer")
        before = memory(tracker)
        with fault(db, self.path):
            for _ in range(2):
                self.assertRaises(sqlite3.Error, tracker.flush)
            after = memory(tracker)
            self.assertEqual(after[:2], before[:2])
            self.assertEqual(after[2], set() if is_half_written else before[2])
            self.warning.reset_mock()
            other = memory(health.ToolHealthTracker(db))
            self.assertEqual([part for part in (0, 1) if other[part]], list(readable))
            self.assertEqual(self.warning.call_count, 2 - len(readable))
            tracker.record_success(NAMES[0])
        self.assertTrue(tracker.has_unsaved_changes)
        tracker.flush()
        self.assertFalse(tracker.has_unsaved_changes)
        self.assertEqual(stored(db), remembered(tracker))

    def test_garbage_in_columns(self):
        """As the plain version takes it."""
        db = self.open()
        db.execute("PRAGMA synchronous = OFF")
        change(tracker := health.ToolHealthTracker(db), "old")
        tracker.flush()
        tables = {"tool_health": health._TOOL_HEALTH_COLUMNS.split(", "), "schema_info": ["value"]}
        kept = {table: db.fetchall(f"SELECT * FROM {table}") for table in tables}

        def read(module, table, column, value):
            for name, rows in kept.items():
                db.execute(f"DELETE FROM {name}")
                db.executemany(f"INSERT INTO {name} VALUES ({', '.join('?' * len(rows[0]))})", rows)
            db.execute(f"UPDATE {table} SET {column} = {value}")
            return memory(module.ToolHealthTracker(db))

        for table, columns in tables.items():
            for case in itertools.product([table], columns, GARBAGE):
                self.check_same(read, *case)

    def test_killed(self):
        """The file is sound, and each statement took place or did not."""
        point, outcomes = 0, set()
        while True:
            path = next(self.paths)
            child = run_child(KILLED, str(path), str(point))
            if child.returncode == 0:
                break
            self.assertEqual(child.returncode, -signal.SIGKILL, child.stderr)
            db = Database(path)
            self.addCleanup(db.close)
            self.assertEqual(db.fetchall("PRAGMA integrity_check"), [("ok",)])
            rows, entries = stored(db)
            errors = {row[1:4] for row in rows}
            self.assertIn(errors, [{(1, 1, "old" * 99)}, {(2, 2, "newer" * 99)}])
            self.assertEqual([entry[2] for entry in entries], ["old"])
            self.assertEqual(len(rows), len(NAMES))
            outcomes.add(min(errors))
            point = point * 2 or 1
        self.assertEqual(len(outcomes), 2)
