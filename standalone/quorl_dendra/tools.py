"""The tools themselves. They read the working tree they are pointed at and change nothing."""

import os
import re
import urllib.request
from collections import Counter
from collections.abc import Iterator
from fnmatch import fnmatch
from pathlib import Path
from typing import Any
from urllib.error import URLError

from quorl_dendra.tool_handlers.health import (
    ToolHealthTracker,
    handle_get_tool_performance_stats,
    thread_census_report,
)
from quorl_dendra.tool_pipeline import Handler

# The tools stay quick in a tree of any size: they read so many files, and so much of each.
_FILES_READ = 150
_BYTES_READ = 64 * 1024
_SKIPPED_DIRECTORIES = {"build", "node_modules", "__pycache__"}
_FETCH_TIMEOUT_S = 2.0
_direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


class Toolbox:
    """The handlers of all tools, over one working tree and one tracker. Any thread may run them."""

    def __init__(self, root: Path, tracker: ToolHealthTracker, thread_budget: int) -> None:
        self._root = root
        self._tracker = tracker
        self._thread_budget = thread_budget
        self._words = Counter[str]()  # replaced as a whole, so no thread sees half of a count

    def handlers(self) -> dict[str, Handler]:
        """Every handler, by its tool's name."""
        return {
            "search": self.search,
            "index": self.index,
            "fetch": self.fetch,
            "status": self.status,
            "get_tool_performance_stats": self.get_tool_performance_stats,
        }

    def search(self, action: str, query: str) -> int:
        """How many files have a name like the query (``files``) or hold it as text (``text``)."""
        paths = _files(self._root)
        if action == "files":
            return sum(fnmatch(path.name, query) for path in paths)
        return sum(query in _text(path) for path in paths)

    def index(self, action: str) -> Any:
        """Count the words of the tree (``build``), or tell the latest count's ``common`` ones."""
        if action == "common":
            return self._words.most_common(10)
        words = Counter[str]()
        for path in _files(self._root):
            words.update(re.findall(r"\w{3,}", _text(path)))
        self._words = words
        return words.total()

    def fetch(self, action: None, url: str) -> str:
        """The page's text; OSError when there is none."""
        try:
            with _direct.open(url, timeout=_FETCH_TIMEOUT_S) as page:
                body: bytes = page.read(_BYTES_READ)
        except URLError as error:
            raise OSError(str(error.reason)) from error  # without the wrapper's angle brackets
        return body.decode(errors="replace")

    def status(self, action: str) -> Any:
        """The tracker's health summary (``perf_stats``), or the census of ``threads``."""
        if action == "perf_stats":
            return self._tracker.get_health_summary()
        return thread_census_report(self._thread_budget)

    def get_tool_performance_stats(self, action: None) -> Any:
        """The timing figures of all tools."""
        return handle_get_tool_performance_stats()


def _files(root: Path) -> Iterator[Path]:
    """The tree's first files, hidden and built directories left out."""
    found = 0
    for directory, subdirectories, names in os.walk(root):
        subdirectories[:] = sorted(
            name
            for name in subdirectories
            if not name.startswith(".") and name not in _SKIPPED_DIRECTORIES
        )
        for name in sorted(names):
            if found == _FILES_READ:
                return
            path = Path(directory, name)
            if path.is_file():  # no pipe or device, which might never end
                found += 1
                yield path


def _text(path: Path) -> str:
    """The beginning of a file as text; empty for one that cannot be read."""
    try:
        with path.open(encoding="utf-8", errors="replace") as file:
            return file.read(_BYTES_READ)
    except OSError:
        return ""
