"""The process's threads, as the operating system and Python count them."""

import os
import re
import threading
from collections import Counter
from dataclasses import dataclass

_NUMBERING = re.compile(r"[-_ ]*\d.*$")


@dataclass(frozen=True)
class ThreadCensus:
    """A count of threads: the operating system's (None where it has none), and Python's own.

    ``python_threads`` counts by name prefix: the threads of one pool share it.
    """

    os_threads: int | None
    python_total: int
    python_threads: dict[str, int]


def thread_census() -> ThreadCensus:
    """Count the process's threads now (may block: reads a directory of the operating system)."""
    names = [thread.name for thread in threading.enumerate()]
    by_prefix = Counter(_NUMBERING.sub("", name) or name for name in names)
    return ThreadCensus(_os_threads(), len(names), dict(by_prefix))


def _os_threads() -> int | None:
    try:
        return len(os.listdir("/proc/self/task"))
    except OSError:
        return None
