"""The demonstration's command line.

Exit status: 0 done, 1 it went wrong, 2 it could not begin (arguments, extension, database),
130 interrupted.
"""

import argparse
import contextlib
import json
import os
import platform
import signal
import sqlite3
import sys
from collections.abc import Callable
from pathlib import Path

from quorl_dendra.demo.console import BOLD, Console

_EXTENSION = "quorl_dendra.tool_handlers.health"
_DEFAULT_DATABASE = Path("build/demo.sqlite3")


def main() -> int:
    """Run the demonstration as the process's arguments ask; the exit status."""
    arguments = _parse()
    console = Console(quiet=arguments.json)
    try:
        return _run(arguments, console)
    except KeyboardInterrupt:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # a second one cannot spoil the end
        console.clear_progress()
        return _fail(130, f"interrupted; the calls counted so far are kept in {arguments.db}")
    except BrokenPipeError:  # whoever read the output has gone: end quietly
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1


def _run(arguments: argparse.Namespace, console: Console) -> int:
    try:
        from quorl_dendra.demo import scenario, tables
    except ImportError as error:
        return _fail(2, _what_to_do(error))
    if arguments.db == _DEFAULT_DATABASE:
        with contextlib.suppress(OSError):  # what is wrong shows when the database is opened
            arguments.db.parent.mkdir(exist_ok=True)
    story = scenario.Story(console, arguments.db, arguments.root, arguments.threads)
    try:
        reports = story.run(arguments.calls)
    except sqlite3.Error as error:
        return _fail(2, f"cannot use the database {arguments.db}: {error}")
    except scenario.StoryError as error:
        return _fail(1, f"this went wrong: {error}")
    if arguments.json:
        print(json.dumps(reports, indent=2), flush=True)
    else:
        tables.show(console, reports)
        console.say()
        console.say_wrapped(story.moral(), BOLD)
    return 0


def _parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python -m quorl_dendra.demo",
        description="Show the tool health module at work in a stand-in for the daemon.",
        epilog='From the top of the sources: make demo ARGS="--threads 8 --calls 500"',
    )
    option = parser.add_argument
    option("root", nargs="?", type=Path, default=Path(),
           help="directory that the tools read (default: .)")  # fmt: skip
    option("--db", type=Path, default=_DEFAULT_DATABASE, metavar="FILE",
           help="the tracker's history (default: %(default)s)")  # fmt: skip
    option("--threads", type=_number(1, 64), default=4, metavar="N",
           help="worker threads (default: 4)")  # fmt: skip
    option("--calls", type=_number(1, 10**6), default=120, metavar="N",
           help="tool calls of the first part (default: 120)")  # fmt: skip
    option("--json", action="store_true", help="print the reports alone, as JSON")
    arguments = parser.parse_args()
    if not arguments.root.is_dir():
        parser.error(f"not a directory: {arguments.root}")
    return arguments


def _number(least: int, most: int) -> Callable[[str], int]:
    def number(text: str) -> int:
        if not least <= int(text) <= most:
            raise argparse.ArgumentTypeError(f"must be from {least} to {most}, not {text}")
        return int(text)

    return number


def _what_to_do(error: ImportError) -> str:
    if sys.version_info[:2] != (3, 12):
        return f"this is Python {platform.python_version()}, not 3.12: run `make demo` instead"
    if isinstance(error, ModuleNotFoundError) and error.name == _EXTENSION:
        return f"{_EXTENSION} is not built: run `make demo`, which builds it"
    return f"{_EXTENSION} is stale or broken: run `make clean demo` ({error})"


def _fail(status: int, message: str) -> int:
    print(f"demo: {message}", file=sys.stderr)
    return status


if __name__ == "__main__":
    sys.exit(main())
