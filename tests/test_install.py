"""What an installation puts where, and that the extension works from there inside a daemon's own package."""

import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import unittest
from pathlib import Path

from support import health

SOURCES, BUILD = Path(os.environ["HEALTH_SOURCE_DIR"]), Path(os.environ["HEALTH_BUILD_DIR"])
FOLDER = Path("quorl_dendra/tool_handlers")
INSTALLED = {FOLDER / ("health" + sysconfig.get_config_var("EXT_SUFFIX")), FOLDER / "health.pyi"}


def run(*command: str | Path, **variables: str) -> str:
    """What a command prints; AssertionError with its complaints when it fails."""
    # What preloads the sanitizers is meant for the interpreter alone.
    kept = {name: value for name, value in os.environ.items() if command[0] == sys.executable or name != "LD_PRELOAD"}
    done = subprocess.run(command, env=kept | variables, capture_output=True, text=True, timeout=100)
    if done.returncode:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def files_of(tree: Path) -> dict[Path, bytes]:
    return {path.relative_to(tree): path.read_bytes() for path in tree.rglob("*") if path.is_file()}


class InstallTest(unittest.TestCase):
    def setUp(self) -> None:
        self.prefix = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def test_cmake_installs_into_a_daemon(self) -> None:
        shutil.copytree(SOURCES / "standalone", self.prefix, dirs_exist_ok=True, ignore=lambda *_: {"__pycache__"})
        before = files_of(self.prefix)
        run("cmake", "--install", BUILD, "--prefix", self.prefix)
        after = files_of(self.prefix)
        self.assertEqual(after.keys() - before.keys(), INSTALLED)
        self.assertEqual({path: after[path] for path in before}, before)
        code = (
            "from quorl_dendra.repository import Repository\n"
            "from quorl_dendra.tool_handlers import health\n"
            "with Repository(':memory:') as repository:\n"
            "    tracker = health.ToolHealthTracker(repository)\n"
            "    tracker.record_success('search')\n"
            "    print(tracker.flush(), health.__file__)\n"
        )
        output = run(sys.executable, "-X", "dev", "-W", "error", "-B", "-c", code, PYTHONPATH=str(self.prefix))
        self.assertEqual(output, f"1 {self.prefix / FOLDER / Path(health.__file__).name}\n")
