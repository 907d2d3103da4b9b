"""The documents are true: their commands and programs run, and what they quote is what appears."""

import itertools
import json
import os
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import traceback
import unittest
from collections.abc import Callable, Iterator
from pathlib import Path
from types import SimpleNamespace
from typing import Any
from unittest import mock

from support import FakeDatabase, health, in_thread

SOURCES, BUILD = Path(os.environ["HEALTH_SOURCE_DIR"]), Path(os.environ["HEALTH_BUILD_DIR"])
DOCUMENTS = {
    name: (SOURCES / name).read_text()
    for name in ("README.md", "CONTRIBUTING.md", "ARCHITECTURE.md", "docs/embedding.md")
}
# Not run: what builds or tests the whole tree (that it exists is checked), and what another test runs.
DRY = {"make": "make -n", "ctest": "ctest -N", "scripts/build": "test -x scripts/build #", "pip install": "#"}
PRELOAD = os.environ.get("LD_PRELOAD", "")  # a sanitizer build needs the machine's C++ library
IMPORT = "from quorl_dendra.tool_handlers.health import thread_census_report"
# What makes the import fail: as commands that spoil a daemon with the extension in it.
SPOILERS = {
    "no extension": "rm $extension",
    "cut off": "truncate -s 0 $extension",
    "another library": "cp build/release/bench/*.so $extension",
    "an older machine": "sed -i s/GLIBC_2/GLIBC_9/ $extension",
    "stale": "sed -i s/thread_census_report/xxxxxxxxxxxxxxxxxxxx/ $extension",
    "a host without a name": "sed -i s/is_slow_call/is_slow/ daemon/quorl_dendra/tool_schemas.py",
    "a host without a module": "rm daemon/quorl_dendra/config.py",
}


def blocks(document: str) -> list[tuple[str, str]]:
    """The fenced blocks of a document: their languages and texts, in their order."""
    return re.findall(r"^```(\w+)\n(.*?)^```$", DOCUMENTS[document], re.MULTILINE | re.DOTALL)


def shape(value: Any) -> Any:
    """A report without its values: keys in their order, and types."""
    if isinstance(value, dict):
        return [(key, shape(item)) for key, item in value.items()]
    return [shape(item) for item in value] if isinstance(value, list) else type(value)


class Documents(unittest.TestCase):
    def setUp(self) -> None:
        """A directory like the top of the tree after a build, and python3.12 on the path."""
        self.top = Path(self.enterContext(tempfile.TemporaryDirectory()))
        for path in SOURCES.iterdir():
            if path.name not in ("build", ".git"):
                (self.top / path.name).symlink_to(path)
        for folder in ("build", "bin"):
            (self.top / folder).mkdir()
        for preset in ("release", "debug"):
            (self.top / "build" / preset).symlink_to(BUILD)
        python = self.top / "bin/python3.12"
        python.write_text(f'#!/bin/sh\nLD_PRELOAD={PRELOAD} exec {sys.executable} "$@"\n')
        python.chmod(0o755)
        unwanted = ("LD_PRELOAD", "MAKEFLAGS", "MFLAGS", "MAKELEVEL", "PYTHONPATH")
        self.variables = {name: value for name, value in os.environ.items() if name not in unwanted}
        self.variables |= {"PATH": f"{self.top}/bin:{os.environ['PATH']}", "PYTHON": sys.executable, "LC_ALL": "C"}
        shutil.copytree(SOURCES / "standalone", self.top / "daemon", ignore=shutil.ignore_patterns("__pycache__"))

    def run_there(self, command: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            ["bash", "-ec", command], cwd=self.top, env=self.variables, capture_output=True, text=True, timeout=60
        )

    def assert_quoted(self, text: str) -> None:
        """That README quotes the text; paths and the version of the C library may differ."""
        text = re.sub(r"[^\s'(]*/[^\s'):]+", "…", text.strip())
        text = re.sub(r"GLIBC_[\d.]+", "GLIBC_2.32", text)
        self.assertTrue(text in DOCUMENTS["README.md"], text)

    def test_commands(self) -> None:
        for document in DOCUMENTS:
            for text in [text for language, text in blocks(document) if language == "sh"]:
                for command in text.splitlines():
                    with self.subTest(command):
                        for begin, instead in DRY.items():
                            command = re.sub(f"^{begin}", instead, command)
                        if not (PRELOAD and "check-symbols" in command):
                            done = self.run_there(command)
                            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_an_installation_adds_two_files_to_a_daemon(self) -> None:
        def files() -> dict[Path, bytes]:
            return {path.relative_to(daemon): path.read_bytes() for path in daemon.rglob("*") if path.is_file()}

        daemon = self.top / "daemon"
        before = files()
        self.run_there("cmake --install build/release --prefix daemon")
        after = files()
        folder = Path("quorl_dendra/tool_handlers")
        self.assertEqual(after.keys() - before.keys(), {folder / Path(health.__file__).name, folder / "health.pyi"})
        self.assertEqual(before, {path: after[path] for path in before})

    def test_programs(self) -> None:
        for document in DOCUMENTS:
            found = [*blocks(document), ("", "")]
            for (language, program), result in itertools.pairwise(found):
                if language == "python":
                    with self.subTest(document, program=program[:60]):
                        (self.top / "program.py").write_text(program)
                        done = self.run_there("build/release/python -X dev -W error program.py")
                        self.assertEqual((("text", done.stdout), done.stderr), (result, ""))
                        (self.top / "history.sqlite3").unlink(missing_ok=True)

    def test_names(self) -> None:
        """Every test, target and file that a document names exists."""
        tests = "\n".join(f"def {path.stem}(\n{path.read_text()}" for path in SOURCES.glob("tests/*.py"))
        targets = re.findall(r"^(\w+):", (SOURCES / "Makefile").read_text(), re.MULTILINE)
        for document, text in DOCUMENTS.items():
            for name in re.findall(r"\btest_\w+", text):
                self.assertIn(f"def {name}(", tests, document)
            self.assertLessEqual(set(re.findall(r"`make (\w+)", text)), set(targets), document)
            for link in re.findall(r"\]\(([^)#:]+)\)", text):
                self.assertTrue((SOURCES / document).parent.joinpath(link).exists(), (document, link))

    def test_reports(self) -> None:
        told = [json.loads(text) for language, text in blocks("README.md") if language == "json"]
        tracker = health.ToolHealthTracker(FakeDatabase())
        tracker.record_error("fetch", "timed out")
        tracker.record_call("fetch", "page", "ok", alias_hit=False, duration_ms=10.0)
        tracker.record_call("fetch", "page", "retried", alias_hit=True, duration_ms=None)
        collector = SimpleNamespace(get_all_stats=lambda: [told[1]["tools"][0] | {"more": 1}])
        with mock.patch.object(health, "get_timing_collector", lambda: collector):
            live = [tracker.get_health_summary(), health.handle_get_tool_performance_stats()]
        self.assertEqual(list(map(shape, live)), list(map(shape, told[:2])))
        census = SimpleNamespace(os_threads=12, python_total=9, python_threads={"MainThread": 1, "worker": 8})
        self.assertEqual(json.dumps(health.thread_census_report(10, census)), json.dumps(told[2]))

    def test_quoted_errors_of_imports(self) -> None:
        extension = f"daemon/quorl_dendra/tool_handlers/{Path(health.__file__).name}"
        for name, spoiler in SPOILERS.items():
            with self.subTest(name):
                begin = f"cp -r standalone/. daemon; cmake --install build/release --prefix daemon; extension={extension}"
                done = self.run_there(f'{begin}; {spoiler}; PYTHONPATH=daemon python3.12 -c "{IMPORT}"')
                self.assertEqual(done.returncode, 1, done.stdout)
                self.assert_quoted(done.stderr.splitlines()[-1])

    def test_quoted_errors_of_calls(self) -> None:
        for message in self.errors_of_calls():
            with self.subTest(message):
                self.assert_quoted(message.partition(". ")[0])

    def errors_of_calls(self) -> Iterator[str]:
        """What goes wrong when the module runs, one after another, in the words that appear."""

        class Database:
            def fetchall(self, sql: str) -> Any:
                return connection.execute(sql).fetchall()

            def fetchone(self, sql: str, params: Any) -> Any:
                return connection.execute(sql, params).fetchone()

            def executemany(self, sql: str, rows: Any) -> None:
                connection.executemany(sql, rows)

        def make() -> Any:
            return health.ToolHealthTracker(SimpleNamespace(db=Database()))

        def error_of(call: Callable[..., Any], *args: Any) -> str:
            with self.assertRaises(Exception) as caught:
                call(*args)
            return traceback.format_exception_only(caught.exception)[-1]

        connection, other = (sqlite3.connect(self.top / "db", timeout=0, isolation_level=None) for _ in range(2))
        self.addCleanup(other.close)
        self.addCleanup(connection.close)
        with self.assertLogs(health.logger) as log:
            tracker = make()
        yield log.records[0].getMessage()
        yield error_of(tracker.record_call, "search", "text", "ok")
        tracker.record_success("search")
        connection.execute(f"CREATE TABLE tool_health ({health._TOOL_HEALTH_COLUMNS})")
        yield error_of(tracker.flush)
        connection.execute("CREATE UNIQUE INDEX by_name ON tool_health (tool_name)")
        with_lock = other.execute("BEGIN IMMEDIATE")
        yield error_of(tracker.flush)
        with_lock.execute("ROLLBACK")
        messages: list[str] = []
        in_thread(lambda: messages.append(error_of(tracker.flush))).join()
        yield from messages
        connection.execute("INSERT INTO tool_health VALUES ('search', 'many', 0, NULL, NULL, NULL)")
        connection.execute("CREATE TABLE schema_info (key UNIQUE, value)")
        yield error_of(make)
        del Database.fetchall, Database.executemany
        yield error_of(tracker.flush)
        with self.assertLogs(health.logger) as log:
            make()
        yield log.records[0].getMessage()
