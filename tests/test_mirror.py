"""The mirror in the database: what is read at construction, and what a flush writes."""

import json

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
