"""The copy in the database: one that fails loses nothing, and a damaged document is read as the runtime reads it."""

import contextlib
import itertools
import json
import sqlite3
import tempfile
from pathlib import Path
from unittest import mock

from quorl_dendra.repository import Database
from support import PlainTest, TrackerTest, count, health

ENTRY = {"tool": "a", "action": "x", "outcome": "ok", "alias_hit": True, "calls": 3, "timed_calls": 2, "total_ms": 2.5}
NAMES = [f"tool-{number}" for number in range(80)]


def change(tracker, text):
    for name in NAMES:
        tracker.record_error(name, text * 99)
    count(tracker, NAMES[0], None, text)


class MirrorTests:
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

    def test_every_changed_character_of_a_document(self):
        """What the module writes is read natively; with a blank before it, by the runtime's parser."""
        document = json.dumps([ENTRY, ENTRY | {"action": None, "calls": -120, "total_ms": -0.5}], separators=(",", ":"))
        self.enterContext(mock.patch.object(self.module, "_known", lambda tool, action: True))
        tracker = self.make()
        self.assertNotEqual(self.read(tracker, document), ("{}", 0))
        for place, new in itertools.product(range(len(document) + 1), ["", *'019-.eE"\\,:{}[] n\0\x7f\x80é\ud800']):
            for rest in (place, place + 1):
                text = document[:place] + new + document[rest:]
                self.assertEqual(self.read(tracker, text), self.read(tracker, " " + text), text)

    def read(self, tracker, document):
        # What a tracker reads from the document, as text, and how many warnings there were.
        tracker._usage, self.db.answer = {}, (document,)
        self.warning.reset_mock()
        tracker._load_usage()
        return repr(tracker._usage), self.warning.call_count


class NativeMirror(MirrorTests, TrackerTest): ...


class PlainMirror(MirrorTests, PlainTest): ...
