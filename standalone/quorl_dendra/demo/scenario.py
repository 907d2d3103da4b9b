"""The story: tools at work in threads, a tool that fails and comes back, a restart and a kill."""

import json
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from collections.abc import Generator
from contextlib import contextmanager
from itertools import cycle, islice
from pathlib import Path
from subprocess import PIPE
from typing import Any

from quorl_dendra.config import ToolsConfig
from quorl_dendra.daemon import Daemon, ToolCall
from quorl_dendra.demo.console import BOLD, DIM, GREEN, RED, Console, printable
from quorl_dendra.demo.pages import PageServer
from quorl_dendra.repository import Repository
from quorl_dendra.tool_handlers.health import (
    ToolHealthTracker,
    handle_get_tool_performance_stats,
    thread_census_report,
)
from quorl_dendra.tool_pipeline import Outcome

_LIMITS = ToolsConfig(disable_after_errors=3, disable_cooldown_s=2.0)
_OTHER_THREADS = 3  # besides the workers: the main thread, the flush thread, the page server
_SPARE_THREADS = 2  # the operating system may still count a thread that is just ending
_OTHER_PROCESS = [sys.executable, "-m", "quorl_dendra.demo.killed"]


class StoryError(Exception):
    """The demonstration did not go as it must."""


class Story:
    """One run of the demonstration, told by the main thread."""

    def __init__(self, console: Console, database: Path, root: Path, threads: int) -> None:
        self._console = console
        self._database = database
        self._root = root
        self._threads = threads
        self._crew = f"{threads} threads" if threads > 1 else "1 thread"
        self._thread_budget = threads + _OTHER_THREADS + _SPARE_THREADS
        self._page = PageServer()
        self._calls_made = 0
        self._calls_refused = 0

    def run(self, calls: int) -> dict[str, Any]:
        """Tell it all, with so many calls in the first part; the reports at its end.

        Blocks some seconds. Raises StoryError, or sqlite3.Error for an unusable database.
        """
        try:
            self._serve_page()
            with self._daemon() as daemon:
                self._work_in_threads(daemon, calls)
                self._fail_and_recover(daemon)
                kept = _history(daemon.tracker)
            self._console.say("\n3. A restart", BOLD)
            self._console.tell("the daemon ends: its tracker is dropped, its database closed")
            with self._daemon() as daemon:
                self._compare_and_go_on(daemon, kept)
                reports = self._reports(daemon)
            self._kill()
            return reports
        finally:
            self._page.stop()

    def moral(self) -> str:
        """What the reader has seen, in a sentence."""
        return (
            f"You have seen {self._crew} make {self._calls_made} real tool calls, each one "
            f"counted: {self._calls_made - self._calls_refused} ran, {self._calls_refused} were "
            f"refused. You have seen fetch fail {_LIMITS.disable_after_errors} times in a row, be "
            "refused with its last error, and recover after its cooldown; a new tracker find every "
            f"count again in {printable(self._database)}; and a killed process lose nothing but "
            "what it had not flushed. Run this again, and the counts go on from there."
        )

    def _work_in_threads(self, daemon: Daemon, calls: int) -> None:
        self._console.say("1. Threads at work", BOLD)
        earlier = _calls_counted(daemon.tracker)
        self._console.tell(f"{earlier} calls counted so far in {printable(self._database)}")
        disabled, _ = daemon.tracker.is_disabled("fetch")
        if disabled:
            self._console.tell("fetch is still disabled by an earlier run: that is waited out")
            time.sleep(_LIMITS.disable_cooldown_s)
            disabled, _ = daemon.tracker.is_disabled("fetch")
            if disabled:
                raise StoryError("fetch was disabled in the future; take another --db")
        self._make_calls(daemon, calls, fetch=True)
        counted = _calls_counted(daemon.tracker) - earlier
        if counted != self._calls_made:
            raise StoryError(f"{self._calls_made} calls were made, but {counted} counted")

    def _fail_and_recover(self, daemon: Daemon) -> None:
        tell = self._console.tell
        self._console.say("\n2. A tool fails, is disabled, and comes back", BOLD)
        self._page.stop()
        tell("the page server is stopped")
        for run in range(1, _LIMITS.disable_after_errors + 1):
            tell(f"fetch fails, {run} in a row: {self._fetch(daemon, Outcome.ERROR)}", RED)
        cooldown_over = time.time() + _LIMITS.disable_cooldown_s
        tell(f"fetch is refused, last error: {self._fetch(daemon, Outcome.DISABLED)}", RED)
        self._serve_page()
        tell(f"the server is back, but a cooldown takes {_LIMITS.disable_cooldown_s} s")
        tell(f"fetch is refused, last error: {self._fetch(daemon, Outcome.DISABLED)}", RED)
        self._make_calls(daemon, 8 * self._threads)
        while (left := cooldown_over - time.time()) > 0:
            time.sleep(left)
        self._fetch(daemon, Outcome.OK)
        tell("the cooldown is over: fetch is tried again, and answers", GREEN)

    def _compare_and_go_on(self, daemon: Daemon, kept: dict[str, Any]) -> None:
        if _history(daemon.tracker) != kept:
            raise StoryError("the new tracker read other counts than the old one had")
        counted = _calls_counted(daemon.tracker)
        self._console.tell(f"a new tracker reads the file: all {counted} calls are there", GREEN)
        self._make_calls(daemon, 4 * self._threads, fetch=True)

    def _kill(self) -> None:
        """Kill a process that has flushed most of its calls; see that a new one finds those."""
        tell = self._console.tell
        self._console.say("\n4. A kill", BOLD)
        with tempfile.TemporaryDirectory() as folder:
            file = str(Path(folder, "killed.sqlite3"))
            made = _run_until_killed("work", file)
            tell(f"a process disables fetch, counts {made['flushed']} calls and flushes")
            tell(f"it counts {made['unsaved']} more, and is killed (kill -9)", RED)
            look = [*_OTHER_PROCESS, "look", file]
            found = subprocess.run(look, stdout=PIPE, start_new_session=True, check=False)
        kept = json.loads(found.stdout or "null")
        if kept != {"calls": made["flushed"], "error": made["error"]}:
            raise StoryError(f"after the kill, {kept} was found of {made}")
        tell(f"a new process finds the {kept['calls']} flushed calls, the others are lost", GREEN)
        tell(f"fetch is still disabled, last error: {kept['error']}", GREEN)

    def _reports(self, daemon: Daemon) -> dict[str, Any]:
        """The reports and the tracker's own time; not by tool calls, which would count in them."""
        threads = thread_census_report(self._thread_budget)
        with _idle_threads(self._thread_budget):
            threads_over_budget = thread_census_report(self._thread_budget)
        return {
            "health_summary": daemon.tracker.get_health_summary(),
            "performance": handle_get_tool_performance_stats(),
            "threads": threads,
            "threads_over_budget": threads_over_budget,
            "tracker_us_per_call": round(_tracker_us_per_call(), 3),
        }

    def _daemon(self) -> Daemon:
        return Daemon(
            self._database,
            self._root,
            _LIMITS,
            threads=self._threads,
            thread_budget=self._thread_budget,
            flush_every_s=0.5,
            on_flush=lambda rows: self._console.tell(f"  flush: {rows} rows written", DIM),
        )

    def _make_calls(self, daemon: Daemon, number: int, *, fetch: bool = False) -> None:
        """Make so many calls of real tools on the daemon's threads; tell how they ended."""
        fetches: list[ToolCall] = [
            ("fetch", {"url": self._page.url}),
            ("fetch", {"address": self._page.url}),  # a synonym, as are grep and pattern below
        ]
        kinds: list[ToolCall] = [
            ("index", {"action": "build"}),
            ("search", {"action": "text", "query": "import"}),
            *(fetches if fetch else ()),
            ("search", {"action": "files", "query": "*.py"}),
            ("status", {"action": "threads"}),
            ("search", {"action": "grep", "pattern": "lock"}),
            ("index", {"action": "common"}),
            ("status", {"action": "perf_stats"}),
            ("get_tool_performance_stats", {}),
        ]
        outcomes = Counter[str]()
        calls = islice(cycle(kinds), number)
        for done, answer in enumerate(daemon.call_in_threads(calls), start=1):
            outcomes[answer.outcome.value] += 1
            self._console.progress(done, number)
        self._calls_made += number
        ended = ", ".join(f"{times} {outcome}" for outcome, times in outcomes.items())
        self._console.tell(f"{self._crew} made {number} tool calls: {ended}")

    def _serve_page(self) -> None:
        try:
            self._page.start()
        except OSError as error:
            message = f"the loopback interface (127.0.0.1) cannot serve a page: {error}"
            raise StoryError(message) from error

    def _fetch(self, daemon: Daemon, expected: Outcome) -> str:
        """Fetch the page on this thread; the notice given, if it ends as the story needs it."""
        answer = daemon.call("fetch", {"url": self._page.url})
        self._calls_made += 1
        self._calls_refused += answer.outcome is Outcome.DISABLED
        if answer.outcome is not expected:
            raise StoryError(f"fetch ended as {answer.outcome.value}, not {expected.value}")
        return printable(answer.notice)


def _history(tracker: ToolHealthTracker) -> dict[str, Any]:
    """All that the tracker counted, by tool; without the times, which are stored rounded."""
    return {
        tool["tool_name"]: (
            tool["call_count"],
            tool["error_count"],
            tool["last_error"],
            [{**row, "avg_ms": None} for row in tool["usage"]],
        )
        for tool in tracker.get_health_summary()
    }


def _calls_counted(tracker: ToolHealthTracker) -> int:
    return sum(row["calls"] for tool in tracker.get_health_summary() for row in tool["usage"])


def _tracker_us_per_call(rounds: int = 5000, repeats: int = 7) -> float:
    """Microseconds that the three operations around one tool call take on one thread: a median."""

    def one_repeat(tracker: ToolHealthTracker) -> float:
        begun = time.perf_counter()
        for _ in range(rounds):
            tracker.is_disabled("search")
            tracker.record_success("search")
            tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=1.5)
        return (time.perf_counter() - begun) / rounds * 1e6

    with Repository(":memory:") as repository:
        tracker = ToolHealthTracker(repository, _LIMITS)
        return statistics.median(one_repeat(tracker) for _ in range(repeats))


def _run_until_killed(*arguments: str) -> dict[str, Any]:
    """Start a process, kill it when it has printed its line of JSON; what that says."""
    with subprocess.Popen(
        [*_OTHER_PROCESS, *arguments],
        stdin=PIPE,
        stdout=PIPE,
        start_new_session=True,  # Ctrl-C is not for it
    ) as process:
        try:
            line = process.stdout.readline() if process.stdout else b""
        finally:
            process.kill()
    if process.returncode != -signal.SIGKILL:
        raise StoryError(f"the process to be killed ended with status {process.returncode}")
    made: dict[str, Any] = json.loads(line)
    return made


@contextmanager
def _idle_threads(number: int) -> Generator[None, None, None]:
    """So many threads that do nothing but wait: a pile-up for the census to find."""
    release = threading.Event()
    threads = [threading.Thread(target=release.wait, name=f"embed-{n}") for n in range(number)]
    try:
        for thread in threads:
            thread.start()
        yield
    finally:
        release.set()
