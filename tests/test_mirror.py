"""The mirror in the database: what is read at construction, and what a flush writes."""

import itertools
import json
from unittest import mock

from support import NOW_TEXT, TrackerTest, count, health

COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
READ_HEALTH = ("fetchall", f"SELECT {COLUMNS} FROM tool_health")
READ_USAGE = ("fetchone", "SELECT value FROM schema_info WHERE key = ?", ("tool_usage",))
DELETE = "DELETE FROM tool_health WHERE tool_name = ?"
UPSERT = f"""INSERT INTO tool_health ({COLUMNS})
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at"""
REPLACE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"
ROW, GONE = ("a", 5, 2, "bad", None, NOW_TEXT), ("gone", 1, 0, None, None, NOW_TEXT)
FIELDS = ("tool", "action", "outcome", "alias_hit", "calls", "timed_calls", "total_ms")


def element(*values):
    """One element of a usage document."""
    return json.dumps(dict(zip(FIELDS, values, strict=True)), separators=(",", ":"))


class Mirror(TrackerTest):
    def test_statements(self):
        """To the letter, in their order, and none while the lock is held."""
        tracker = health.ToolHealthTracker.__new__(health.ToolHealthTracker)
        self.db.rows = [GONE, ROW, ("lost", *ROW[1:])]
        self.db.hook = lambda operation: self.assertFalse(tracker._lock.locked())
        tracker.__init__(self.db)
        deletion = ("executemany", DELETE, [("gone",), ("lost",)])
        self.assertEqual(self.db.calls, [READ_HEALTH, deletion, READ_USAGE])
        self.db.calls.clear()
        tracker.record_error("b", "bad")
        tracker.record_success("a")
        count(tracker, "a")
        self.assertEqual(tracker.flush(), 3)
        rows = [("a", 6, 2, "bad", None, NOW_TEXT), ("b", 1, 1, "bad", None, NOW_TEXT)]
        write = ("execute", REPLACE, ("tool_usage", f"[{element('a', None, 'ok', False, 1, 0, 0.0)}]"))
        self.assertEqual(self.db.calls, [("executemany", UPSERT, rows), write])
        self.db.calls.clear()
        self.db.rows = [ROW]
        tracker.__init__(self.db)
        self.assertEqual(self.db.calls, [READ_HEALTH, READ_USAGE])

    def test_every_changed_character_of_a_document(self):
        """What the module writes is read natively; with a blank before it, by the runtime's parser."""
        entries = element("a", "x", "ok", True, 3, 2, 2.5), element("a", None, "ok", True, -120, 2, -0.5)
        document = f"[{','.join(entries)}]"
        self.enterContext(mock.patch.object(health, "_known", lambda tool, action: True))
        tracker = self.make()
        self.assertNotEqual(self.read(tracker, document), ("{}", 0))
        for place, new in itertools.product(range(len(document) + 1), ["", *'019-.eE"\\,:{}[] n\0\x7f\x80é\ud800']):
            for rest in (place, place + 1):
                text = document[:place] + new + document[rest:]
                self.assertEqual(self.read(tracker, text), self.read(tracker, " " + text), text)

    def read(self, tracker, document):
        """What a tracker reads from the document, as text, and how many warnings there were."""
        tracker._usage, self.db.answer = {}, (document,)
        self.warning.reset_mock()
        tracker._load_usage()
        return repr(tracker._usage), self.warning.call_count
