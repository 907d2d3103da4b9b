"""Many threads on one tracker: every call is counted once, in memory and in the table, and nobody waits for ever."""

import itertools
import json
import sys
import threading
import unittest
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress

from harness import native_host, shown
from support import PATIENCE_S, FakeDatabase, count, health

ROUNDS, WORKERS = 200, 6


class Threads(unittest.TestCase):
    def test_totals(self):
        """Beside summaries and flushes, every third of which fails and is made up for."""
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-6)
        self.enterContext(native_host())
        db, writes, is_over = FakeDatabase(), itertools.count(), threading.Event()
        tracker = health.ToolHealthTracker(db)
        db.hook = lambda operation: 1 // (next(writes) % 3)

        def work(worker):
            for number in range(ROUNDS):
                tool = "ab"[number % 2]
                tracker.is_disabled(tool)
                tracker.record_success(tool)
                tracker.record_error(tool, "bad")
                count(tracker, tool)
                count(tracker, f"{worker} {number % 9}", duration_ms=0.5)  # a new key, and then known ones

        def read_and_write():
            while not is_over.is_set():
                tracker.get_health_summary()
                with suppress(ZeroDivisionError):  # nothing but the database's own error
                    tracker.flush()

        with ThreadPoolExecutor(WORKERS + 1) as pool:
            helper = pool.submit(read_and_write)
            try:
                list(pool.map(work, range(WORKERS), timeout=PATIENCE_S))
            finally:
                is_over.set()
            helper.result(PATIENCE_S)
        states, usage, *_ = shown(tracker)
        calls = WORKERS * ROUNDS
        self.assertEqual(totals(state[:2] for _, state in states), [2 * calls, calls])
        self.assertEqual(totals(counts for _, counts in usage), [2 * calls, calls, calls / 2])
        while tracker.has_unsaved_changes:
            with suppress(ZeroDivisionError):
                tracker.flush()
        rows = {row[0]: [*row[1:3]] for call in db.calls if call[0] == "executemany" for row in call[2]}
        self.assertEqual(rows, {name: state[:2] for name, state in states})
        *_, (_, document) = [call[2] for call in db.calls if call[0] == "execute"]
        entries = [[*entry.values()] for entry in json.loads(document)]
        self.assertEqual(entries, [[*key, *counts] for key, counts in usage])


def totals(rows):
    return [sum(column) for column in zip(*rows, strict=True)]
