"""Many threads on one tracker: every call is counted once, in memory and in the table, and nobody waits for ever."""

import faulthandler
import itertools
import json
import sys
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from types import SimpleNamespace

from harness import native_host
from support import PATIENCE_S, FakeDatabase, count, health, memory

ROUNDS, WORKERS = 120, 6


class Settings:
    """Python code runs at each reading, which lets others run, and some readings fail."""

    readings = itertools.count()

    @property
    def disable_after_errors(self):
        time.sleep(1e-9)
        if next(self.readings) % 7 == 3:
            raise OSError
        return 2

    disable_cooldown_s = disable_after_errors


class Threads(unittest.TestCase):
    def test_totals(self):
        """An error counts although the settings fail then; a write that fails is made up for."""
        faulthandler.dump_traceback_later(PATIENCE_S, exit=True)
        self.addCleanup(faulthandler.cancel_dump_traceback_later)
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-6)
        self.enterContext(native_host())
        for settings in (SimpleNamespace(disable_after_errors=2, disable_cooldown_s=0), Settings()):
            self.check(settings)

    def check(self, settings):
        db, writes, is_over = FakeDatabase(), itertools.count(), threading.Event()
        tracker = health.ToolHealthTracker(db, settings)
        db.hook = lambda operation: 1 // (next(writes) % 3)

        def work(worker):
            for number in range(ROUNDS):
                tool, own = "ab"[number % 2], f"{worker} {number % 9}"  # a new key, and then known ones
                attempt(tracker.is_disabled, tool)
                tracker.record_success(tool)
                attempt(tracker.record_error, tool, "bad")
                count(tracker, tool)
                count(tracker, own, duration_ms=0.5)

        def repeat(call):
            while not is_over.is_set():
                attempt(call)

        with ThreadPoolExecutor(WORKERS + 2) as pool:
            helpers = [pool.submit(repeat, call) for call in (tracker.flush, tracker.get_health_summary)]
            try:
                list(pool.map(work, range(WORKERS)))
            finally:
                is_over.set()
            for helper in helpers:
                helper.result()
        states, usage, *_ = memory(tracker)
        calls = WORKERS * ROUNDS
        self.assertEqual(totals(state[:2] for _, state in states), [2 * calls, calls])
        self.assertEqual(totals(counts for _, counts in usage), [2 * calls, calls, calls / 2])
        for _ in range(3):
            attempt(tracker.flush)
        self.assertFalse(tracker.has_unsaved_changes or tracker._lock.locked())
        rows = {row[0]: row[1:3] for call in db.calls if call[0] == "executemany" for row in call[2]}
        self.assertEqual(rows, {name: state[:2] for name, state in states})
        *_, (_, document) = [call[2] for call in db.calls if call[0] == "execute"]
        entries = [tuple(entry.values()) for entry in json.loads(document)]
        self.assertEqual(entries, [(*key, *counts) for key, counts in usage])


def totals(rows):
    return [sum(column) for column in zip(*rows, strict=True)]


def attempt(call, *args):
    """Nothing but the host's own error may come of it."""
    try:
        call(*args)
    except (OSError, ZeroDivisionError):
        pass
