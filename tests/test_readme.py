"""The documents are true: their commands and programs run, and what they quote is what appears."""

import itertools
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.config import ToolsConfig
from quorl_dendra.daemon import Daemon
from support import FakeDatabase, health

SOURCES, BUILD = Path(os.environ["HEALTH_SOURCE_DIR"]), Path(os.environ["HEALTH_BUILD_DIR"])
PATHS = *SOURCES.glob("*.md"), *SOURCES.glob("docs/*.md")
DOCUMENTS = {str(path.relative_to(SOURCES)): path.read_text() for path in PATHS}
# Not run: what builds or tests the whole tree (that it exists is checked), and what another test runs.
DRY = {"make": "make -n", "ctest": "ctest -N", "scripts/build": "test -x scripts/build #", "pip install": "#"}
DRY['(.*)"[$].scripts/find-python."'] = r"\1python3.12"  # which loads what a sanitizer build needs
NEW_DAEMON = "cp -r --no-preserve=mode standalone/. build/daemon"  # the sources may be read-only
PRELOAD = os.environ.get("LD_PRELOAD", "")  # a sanitizer build needs the machine's C++ library


def blocks(document: str) -> list[tuple[str, str]]:
    # The fenced blocks of a document: their languages and texts, in their order.
    return re.findall(r"^```(\w+)\n(.*?)^```$", DOCUMENTS[document], re.MULTILINE | re.DOTALL)


class Documents(unittest.TestCase):
    def setUp(self) -> None:
        # A directory like the top of the tree after a build, and python3.12 on the path.
        self.top = Path(self.enterContext(tempfile.TemporaryDirectory()))
        for path in SOURCES.iterdir():
            if path.name not in ("build", ".git"):
                (self.top / path.name).symlink_to(path)
        for preset, path in itertools.product(("release", "debug"), BUILD.iterdir()):
            (self.top / "build" / preset).mkdir(parents=True, exist_ok=True)
            if path.name != "Testing":  # a ctest has its log here, and leaves that of this run alone
                (self.top / "build" / preset / path.name).symlink_to(path)
        python = self.top / "bin/python3.12"
        python.parent.mkdir()
        python.write_text(f'#!/bin/sh\nLD_PRELOAD={PRELOAD} exec "$PYTHON" "$@"\n')
        python.chmod(0o755)
        unwanted = ("LD_PRELOAD", "MAKEFLAGS", "MFLAGS", "MAKELEVEL", "PYTHONPATH")
        self.variables = {name: value for name, value in os.environ.items() if name not in unwanted}
        self.variables |= {"PATH": f"{self.top}/bin:{os.environ['PATH']}", "PYTHON": sys.executable, "LC_ALL": "C"}
        self.run_there(NEW_DAEMON)

    def run_there(self, command: str) -> subprocess.CompletedProcess[str]:
        kept = {"capture_output": True, "text": True, "env": self.variables, "timeout": 300}
        return subprocess.run(["bash", "-ec", command], cwd=self.top, **kept)

    def test_commands(self) -> None:
        commands = [text for name in DOCUMENTS for language, text in blocks(name) if language == "sh"]
        for command in "".join(commands).splitlines():
            with self.subTest(command):
                for begin, instead in DRY.items():
                    command = re.sub(f"^{begin}", instead, command)
                if not (PRELOAD and "check-symbols" in command):
                    done = self.run_there(command)
                    self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertFalse((self.top / "build/daemon/standalone").exists(), "copied into the copy")

    def test_demonstration(self) -> None:
        """It ends with an error where something is not as it tells."""
        done = self.run_there("build/release/python -X dev -W error -m quorl_dendra.demo --calls 9 --threads 2")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("a new process finds the 40 flushed calls", done.stdout)

    def test_an_installation_adds_two_files_to_a_daemon(self) -> None:
        daemon = self.top / "build/daemon"
        before = {path: path.read_bytes() for path in daemon.rglob("*") if path.is_file()}
        self.run_there("cmake --install build/release --prefix build/daemon")
        added = {path for path in daemon.rglob("*") if path.is_file()} - before.keys()
        handlers = daemon / "quorl_dendra/tool_handlers"
        self.assertEqual(added, {handlers / Path(health.__file__).name, handlers / "health.pyi"})
        self.assertEqual(before, {path: path.read_bytes() for path in before})

    def test_programs(self) -> None:
        for document in DOCUMENTS:
            found = [*blocks(document), ("", "")]
            for (language, program), (_, result) in itertools.pairwise(found):
                if language == "python":
                    with self.subTest(document, program=program[:60]):
                        (self.top / "program.py").write_text(program)
                        done = self.run_there(" && ".join(["build/release/python -X dev -W error program.py"] * 2))
                        self.assertEqual((done.stdout, done.stderr), (result * 2, ""))

    def test_the_stand_in_flushes_again_after_any_error(self) -> None:
        flushed, given = threading.Event(), {"threads": 1, "thread_budget": 9, "flush_every_s": 0.01}
        with Daemon(self.top / "db", self.top, ToolsConfig(), on_flush=lambda rows: flushed.set(), **given) as daemon:
            failing = mock.patch.object(daemon.tracker, "flush", side_effect=[RuntimeError("odd"), 1])
            with failing, self.assertLogs("quorl_dendra.daemon"):
                daemon.tracker.record_success("fetch")
                self.assertTrue(flushed.wait(60))

    def test_what_is_missing_is_named(self) -> None:
        for program in "bash", "dirname", "head", "make":
            (self.top / "bin" / program).symlink_to(shutil.which(program))
        told = {"CXX='nosuch -g'": "there is no program nosuch", "CXX='bash -g' BOOTSTRAP=no": "BOOTSTRAP=no forbids"}
        for setting, reason in told.items():
            self.assertIn(reason, self.run_there(f"PATH={self.top}/bin {setting} scripts/bootstrap").stderr)

    def test_names(self) -> None:
        """Every test, target and file that a document names exists."""
        targets = re.findall(r"^(\w+):", (SOURCES / "Makefile").read_text(), re.MULTILINE)
        for document, text in DOCUMENTS.items():
            for file, tests in re.findall(r"`(test_\w+)`: (`test_\w+`(?:, `test_\w+`)*)", text):
                for name in re.findall(r"\w+", tests):
                    self.assertIn(f"def {name}(", (SOURCES / f"tests/{file}.py").read_text(), document)
            self.assertLessEqual(set(re.findall(r"`make (\w+)", text)), set(targets), document)
            for link in re.findall(r"\]\(([^)#:]+)\)", text):
                self.assertTrue((SOURCES / document).parent.joinpath(link).exists(), (document, link))

    def test_reports(self) -> None:
        told = [json.loads(text) for language, text in blocks("README.md") if language == "json"]
        tracker = health.ToolHealthTracker(FakeDatabase())
        tracker.record_error("fetch", "timed out")
        tracker.record_call("fetch", "page", "ok", alias_hit=False, duration_ms=10.0)
        collector = SimpleNamespace(get_all_stats=lambda: told[1]["tools"])
        with mock.patch.object(health, "get_timing_collector", lambda: collector):
            self.assertEqual(health.handle_get_tool_performance_stats(), told[1])
        for ours, documented in zip(tracker.get_health_summary(), told[0], strict=True):
            self.assertEqual([*ours, *ours["usage"][0]], [*documented, *documented["usage"][0]])
        census = SimpleNamespace(os_threads=12, python_total=9, python_threads={"MainThread": 1, "worker": 8})
        self.assertEqual(health.thread_census_report(10, census), told[2])
