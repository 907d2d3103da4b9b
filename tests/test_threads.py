"""Many threads on one tracker: every call is counted once, in memory and in the table, and nobody waits for ever."""

import faulthandler
import itertools
import json
import sys
import threading
import time
import unittest
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from types import SimpleNamespace
from unittest import mock

from harness import native_host
from support import PATIENCE_S, health, memory

NAMES = ("a", "b")
ROUNDS = 120
WORKERS = 6


class Database:
    """Keeps the mirror; every third write fails."""

    def __init__(self):
        self.db = self
        self.rows, self.document = {}, "[]"
        self.writes = itertools.count()

    def fetchall(self, sql):
        return list(self.rows.values())

    def fetchone(self, sql, params):
        return (self.document,)

    def executemany(self, sql, rows):
        if next(self.writes) % 3 == 1:
            raise OSError
        self.rows.update({row[0]: row for row in rows})

    def execute(self, sql, params):
        self.executemany(sql, [])
        self.document = params[1]


def let_others_run():
    """A thread that sleeps, however short, gives the interpreter away."""
    time.sleep(1e-9)


class OddSettings:
    """Python code runs at each reading, and some readings fail."""

    readings = itertools.count()
    disable_cooldown_s = property(lambda self: self.disable_after_errors / 1e9)

    @property
    def disable_after_errors(self):
        let_others_run()
        if next(self.readings) % 7 == 3:
            raise OSError
        return 2


class OddDuration:
    """Half a millisecond, as Python code adds it up."""

    def __radd__(self, total):
        let_others_run()
        return total + 0.5


def python_clock():
    let_others_run()
    return now()


def failing_answer(tool, action, answers=itertools.count()):
    if next(answers) % 50 == 7:
        raise OSError
    return False


now = time.time
plain_settings = SimpleNamespace(disable_after_errors=2, disable_cooldown_s=0)
# The settings, the clocks between which another thread switches, and what tells slow calls.
HOSTS = {
    "that is plain": (plain_settings, [now], lambda tool, action: False),
    "with a clock in Python": (plain_settings, [python_clock], failing_answer),
    "that changes": (plain_settings, [now, python_clock], failing_answer),
    "that fails": (OddSettings(), [now, python_clock], failing_answer),
}


class Threads(unittest.TestCase):
    def setUp(self):
        faulthandler.dump_traceback_later(PATIENCE_S, exit=True)
        self.addCleanup(faulthandler.cancel_dump_traceback_later)
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-6)

    def test_totals(self):
        for name, (settings, clocks, is_slow_call) in HOSTS.items():
            host = native_host(is_slow_call=is_slow_call)
            with self.subTest(f"host {name}"), host, mock.patch("time.time", clocks[0]):
                self.check(health.ToolHealthTracker(Database(), settings), clocks)

    def check(self, tracker, clocks):
        attempt, is_over, start = self.attempt, threading.Event(), threading.Barrier(WORKERS + 3)
        switch = itertools.cycle(clocks)

        def work(worker):
            done = Counter()
            start.wait()
            for number in range(ROUNDS):
                name = NAMES[(worker + number) % len(NAMES)]
                own = f"{worker} {number % 9}"  # a new key, and then known ones
                attempt(tracker.is_disabled, name)
                done["success"] += attempt(tracker.record_success, name)
                done["error"] += attempt(tracker.record_error, name, "e" * number)
                for took, key in itertools.product((None, 0.5, OddDuration()), ((name, None), (own, own))):
                    done[took is None] += attempt(tracker.record_call, *key, "ok", alias_hit=True, duration_ms=took)
            return done

        def repeat(call):
            start.wait()
            while not is_over.is_set():
                attempt(call)
                attempt(lambda: tracker.has_unsaved_changes)

        with ThreadPoolExecutor(WORKERS + 3) as pool:
            calls = tracker.flush, tracker.get_health_summary, lambda: setattr(time, "time", next(switch))
            helpers = [pool.submit(repeat, call) for call in calls]
            try:
                done = sum(pool.map(work, range(WORKERS)), Counter())
            finally:
                is_over.set()
            for helper in helpers:
                helper.result()
        self.check_totals(tracker, done)

    def attempt(self, call, *args, **kwargs):
        """Whether the call went well; no more than an OSError may come of it."""
        try:
            call(*args, **kwargs)
        except OSError:
            return False
        return True

    def check_totals(self, tracker, done):
        states, usage, *_ = memory(tracker)
        self.assertEqual(sum(state[0] for _, state in states), done["success"] + done["error"])
        self.assertEqual(sum(state[1] for _, state in states), done["error"])
        counts = [sum(column) for column in zip(*(counts for _, counts in usage), strict=True)]
        self.assertEqual(counts, [done[True] + done[False], done[False], done[False] / 2])
        while not self.attempt(tracker.flush):
            pass
        time = health._sqlite_time
        rows = {name: (name, *state[:3], time(state[3]), time(state[4])) for name, state in states}
        self.assertEqual(tracker._repo.rows, rows)
        entries = [tuple(entry.values()) for entry in json.loads(tracker._repo.document)]
        self.assertEqual(entries, [(*key, *counts) for key, counts in usage])
        self.assertFalse(tracker.has_unsaved_changes or tracker._lock.locked())
