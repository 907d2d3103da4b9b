"""What the demonstration shows while it runs: a timed account, and a progress line."""

import os
import sys
import textwrap
import threading
import time

BOLD, DIM, RED, GREEN = "1", "2", "31", "32"
WIDTH = 80
_CLEAR_LINE = "\r\033[K"


def printable(text: object) -> str:
    """A stored text, fit for standard output: no line breaks, no control characters."""
    encodable = str(text).encode(sys.stdout.encoding, "replace").decode(sys.stdout.encoding)
    return "".join(character if character.isprintable() else "?" for character in encodable)


class Console:
    """Standard output, for any thread; ``quiet`` prints nothing.

    Progress is shown on a terminal only, and colour too, unless NO_COLOR is set.
    """

    def __init__(self, *, quiet: bool = False) -> None:
        self._quiet = quiet
        self._live = not quiet and sys.stdout.isatty() and os.environ.get("TERM") != "dumb"
        self._color = self._live and not os.environ.get("NO_COLOR")
        self._lock = threading.Lock()
        self._begun = time.monotonic()

    def say(self, text: str = "", style: str = "") -> None:
        """Print one line."""
        if self._quiet:
            return
        if style and self._color:
            text = f"\033[{style}m{text}\033[0m"
        try:
            with self._lock:
                print(_CLEAR_LINE * self._live + text, flush=True)
        except BrokenPipeError:  # raised on the main thread, now or at its next line
            if threading.current_thread() is threading.main_thread():
                raise

    def say_wrapped(self, text: str, style: str = "") -> None:
        """Print a text in as many lines as it needs; nothing for an empty one."""
        for line in textwrap.wrap(text, WIDTH):
            self.say(line, style)

    def tell(self, event: str, style: str = "") -> None:
        """Print what happened just now, with the seconds since the beginning."""
        self.say(f"{time.monotonic() - self._begun:7.2f} s  {event}", style)

    def progress(self, done: int, total: int) -> None:
        """Redraw the progress line; the next line printed takes its place."""
        if self._live:
            bar = "#" * (30 * done // total)
            with self._lock:
                print(f"{_CLEAR_LINE}           [{bar:<30}] {done} of {total}", end="", flush=True)

    def clear_progress(self) -> None:
        """Wipe the progress line, with whatever was typed into it."""
        if self._live:
            print(end=_CLEAR_LINE, flush=True)
