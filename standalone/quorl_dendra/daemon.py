"""One repository as the daemon serves it: database, tracker, tools, and the threads around them."""

import logging
import sqlite3
import threading
from collections.abc import Callable, Iterable, Iterator, Mapping
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, Self

from quorl_dendra.config import ToolsConfig
from quorl_dendra.repository import Repository
from quorl_dendra.tool_handlers.health import ToolHealthTracker
from quorl_dendra.tool_pipeline import Answer, ToolPipeline
from quorl_dendra.tools import Toolbox

logger = logging.getLogger(__name__)

ToolCall = tuple[str, Mapping[str, Any]]  # the tool's name, and its arguments


class Daemon:
    """A context manager: leaving it ends its threads, writes what is unsaved, and closes the file.

    ``on_flush`` is called after every write, on the thread that made it, with the number of rows.
    Opening and leaving block, and raise ``sqlite3.Error`` for a database that cannot be used.
    """

    def __init__(
        self,
        database: Path,
        root: Path,
        limits: ToolsConfig,
        *,
        threads: int,
        thread_budget: int,
        flush_every_s: float,
        on_flush: Callable[[int], None],
    ) -> None:
        self._flush_every_s = flush_every_s
        self._on_flush = on_flush
        self._repository = Repository(database.absolute())  # a file, whatever its name
        try:
            self.tracker = ToolHealthTracker(self._repository, limits)
        except (TypeError, ValueError, OverflowError) as error:
            self._repository.close()
            raise sqlite3.DataError(f"unfit history: {error}") from error
        toolbox = Toolbox(root, self.tracker, thread_budget)
        self._pipeline = ToolPipeline(self.tracker, toolbox.handlers())
        self._workers = ThreadPoolExecutor(threads, thread_name_prefix="worker")
        self._ending = threading.Event()
        self._flusher = threading.Thread(target=self._flush_regularly, name="flush")

    def call(self, tool: str, arguments: Mapping[str, Any]) -> Answer:
        """Run one tool call on this thread."""
        return self._pipeline.call(tool, arguments)

    def call_in_threads(self, calls: Iterable[ToolCall]) -> Iterator[Answer]:
        """Run the calls on the worker threads, begun at once; the answers in the calls' order."""

        def run(call: ToolCall) -> Answer:
            return self.call(*call)

        return self._workers.map(run, calls)

    def flush(self) -> None:
        """Write what changed."""
        if self.tracker.has_unsaved_changes:
            self._on_flush(self.tracker.flush())

    def _flush_regularly(self) -> None:
        while not self._ending.wait(self._flush_every_s):
            try:
                self.flush()
            except Exception as error:  # of any kind: this thread must go on
                logger.warning("Could not write the tool health: %r", error)

    def __enter__(self) -> Self:
        self._flusher.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._workers.shutdown(cancel_futures=True)
        self._ending.set()
        self._flusher.join()
        try:
            self.flush()
        finally:
            self._repository.close()
