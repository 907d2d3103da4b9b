"""The mirror in the database: what is read at construction, and what a flush writes."""

import json
import random

from support import NOW, NOW_TEXT, TrackerTest, count, health, memory

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


GOOD = element("a", "x", "ok", True, 3, 2, 2.5)


class Mirror(TrackerTest):
    def test_a_history_is_read(self):
        tracker = self.make([ROW, GONE], f"[{GOOD}]")
        states, usage = [("a", (5, 2, "bad", None, NOW, 0))], [(("a", "x", "ok", True), (3, 2, 2.5))]
        self.assertEqual(memory(tracker), (states, usage, set(), False))

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

    def test_the_document_is_what_json_dumps_writes(self):
        chance = random.Random(7)
        totals = [12.34567, 5.0, 1e16, 9999999999999998.0, 1e22, 123456789012.34567, 2.0005, 0.0005, 7, True, 10**30]
        totals += [-0.0, 5e-324, -1e300, float("nan"), float("inf"), -float("inf")]
        totals += [chance.uniform(-1, 1) * 10 ** chance.randrange(-5, 20) for _ in range(500)]
        texts = ["", "é", "\ud800", '"\\\n\0\x7f/', "\U0001f600 </a>", None]
        usage = {
            (chance.choice(texts), chance.choice(texts), str(number), chance.choice((True, False, 1))):
                (chance.choice((0, 1, -5, 2**62, 2**80, True)), number, total)
            for number, total in enumerate(totals)
        }  # fmt: skip
        tracker = self.make()
        tracker._usage = {key: health._Usage(*counts) for key, counts in usage.items()}
        tracker._usage_dirty = True
        entries = [element(*key, calls, timed, round(ms, 3)) for key, (calls, timed, ms) in usage.items()]
        self.assertEqual(tracker.flush(), len(totals))
        self.assertEqual(self.db.calls[-1][2][1], f"[{','.join(entries)}]")
        error = ValueError("not today")

    def test_what_changes_while_a_write_fails_is_kept(self):
        """Beside what the write had taken."""
        for operation, meanwhile in (("executemany", "c"), ("execute", "a")):
            with self.subTest(operation):
                tracker = self.make([ROW])
                tracker.record_success("a")
                count(tracker, "a")

                def fail(called):
                    if called == operation:
                        tracker.record_error(meanwhile, "new")
                        raise OSError

                self.db.hook = fail
                self.assertRaises(OSError, tracker.flush)
                self.assertEqual((tracker._dirty, tracker._usage_dirty), ({"a", meanwhile}, True))
                self.db.hook = lambda called: None
                self.assertEqual(tracker.flush(), len({"a", meanwhile}) + 1)
                self.assertEqual([row[0] for row in self.db.calls[-2][2]], sorted({"a", meanwhile}))
                self.assertFalse(tracker.has_unsaved_changes)
