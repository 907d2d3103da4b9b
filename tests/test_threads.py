"""Many threads on one tracker: every call is counted once, in memory and in the table, and who waits for what."""

import itertools
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from dataclasses import astuple
from unittest import mock

from harness import KEY, REAL_CLOCK, World, native_host
from support import NOW, FakeDatabase, PlainTest, TrackerTest, count, in_thread

ROUNDS, WORKERS = 200, 6


class ThreadsTests:
    def setUp(self):
        super().setUp()
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())

    def test_totals(self):
        """Beside summaries and flushes, every third of which fails and is made up for."""
        sys.setswitchinterval(1e-6)
        self.enterContext(native_host(self.module))
        db, writes, is_over = FakeDatabase(), itertools.count(), threading.Event()
        tracker = self.module.ToolHealthTracker(db)
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
                list(pool.map(work, range(WORKERS)))
            finally:
                is_over.set()
            helper.result()
        calls = WORKERS * ROUNDS
        states = {name: astuple(state)[:2] for name, state in tracker._state.items()}
        self.assertEqual([*map(sum, zip(*states.values()))], [2 * calls, calls])
        usage = map(astuple, tracker._usage.values())
        self.assertEqual([*map(sum, zip(*usage))], [2 * calls, calls, calls / 2])
        while tracker.has_unsaved_changes:
            with suppress(ZeroDivisionError):
                tracker.flush()
        rows = {row[0]: row[1:3] for call in db.calls if call[0] == "executemany" for row in call[2]}
        self.assertEqual(rows, states)

    def test_who_waits_for_the_lock_lets_others_run_and_then_reads_anew(self):
        sys.setswitchinterval(1000)  # only who waits lets another run
        operations = (  # and what each returns, and the two counts after it
            (lambda: tracker.record_success("a"), None, (9, 8)),
            (lambda: tracker.record_error("a", "bad"), None, (9, 8)),
            (lambda: count(tracker, *KEY), None, (8, 9)),
            (lambda: tracker.is_disabled("a"), (True, "new"), (8, 8)),
            (lambda: tracker.get_health_summary()[0]["call_count"], 8, (8, 8)),
        )
        for (operate, answer, counts), clock in itertools.product(operations, (self.clock, REAL_CLOCK)):
            with self.subTest(counts=counts, answer=answer, clock=clock), mock.patch("time.time", clock):
                tracker, started, answers = World(self.module).tracker, threading.Event(), []
                for known, _, _ in operations:
                    known()
                with tracker._lock:
                    thread = in_thread(lambda: (started.set(), answers.append(operate())))
                    started.wait()
                    self.assertEqual((answers, tracker.limits.disable_cooldown_s), ([], tracker.cooldown_s))
                    state = self.module._ToolState(8, 0, "new", time.time() - 1, NOW)
                    tracker._state, tracker._usage = {"a": state}, {KEY: self.module._Usage(8)}
                    tracker.limits.disable_after_errors, released = 1, time.time()
                thread.join()
                self.assertEqual((state.call_count, tracker._usage[KEY].calls), counts)
                self.assertEqual(answers, [answer])
                self.assertTrue(not state.error_count or state.disabled_at == state.updated_at)
                self.assertGreaterEqual(state.updated_at, released if state.call_count == 9 else NOW)

    def test_a_blocked_flush_holds_up_nobody(self):
        for blocked in ("executemany", "execute"):
            tracker, entered, release, written = self.make(), threading.Event(), threading.Event(), []
            tracker.record_success("a")
            count(tracker, "a")
            self.db.hook = lambda called: called != blocked or entered.set() or release.wait()
            thread = in_thread(lambda: written.append(tracker.flush()))
            entered.wait()
            tracker.record_success("a")
            count(tracker, "a")
            self.assertEqual((tracker.is_disabled("a")[0], len(tracker.get_health_summary())), (False, 1))
            self.assertEqual((written, tracker._dirty, tracker._usage_dirty), ([], {"a"}, True))
            release.set()
            thread.join()
            self.assertEqual(written, [2])
            self.assertEqual((tracker._dirty, tracker._usage_dirty), ({"a"}, blocked == "execute"))


class NativeThreads(ThreadsTests, TrackerTest): ...


class PlainThreads(ThreadsTests, PlainTest): ...
