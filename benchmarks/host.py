"""The least host that the tracker runs in: a measurement is to show the tracker, not its host.

Importing this puts its stand-ins where the module and its plain-Python baseline import the daemon's
names from; both then see the same objects. So it is imported before either of them.
"""

from __future__ import annotations

import importlib
import os
import sys
from collections.abc import Iterable, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from types import ModuleType
from typing import Any

_ROOT = Path(__file__).resolve().parent.parent
# The build that is looked at: that of the interpreter's start script, or else the release.
BUILD = Path(os.environ.get("HEALTH_BUILD_DIR", _ROOT / "build" / "release"))


@dataclass
class ToolsConfig:
    """The settings that the tracker reads."""

    disable_after_errors: int = 3
    disable_cooldown_s: float = 60.0


class ToolSpec:
    """A tool of the registry, with the actions it has."""

    def __init__(self, actions: Iterable[str] = ()) -> None:
        self._actions = {name: {"name": name} for name in actions}

    def action(self, name: str) -> dict[str, str] | None:
        """The description of an action; None when the tool has none of that name."""
        return self._actions.get(name)


TOOLS: dict[str, ToolSpec] = {}
SLOW_CALLS: set[tuple[str, str | None]] = set()


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether a call is slow by nature."""
    return (tool, action) in SLOW_CALLS


@dataclass
class ThreadCensus:
    """A count of the process's threads."""

    os_threads: int | None = 12
    python_total: int = 9
    python_threads: dict[str, int] = field(default_factory=lambda: {"MainThread": 1, "pool": 8})


class TimingCollector:
    """A collector whose statistics are whatever ``stats`` holds."""

    def __init__(self) -> None:
        self.stats: list[Any] = []

    def get_all_stats(self) -> list[Any]:
        """The statistics of every tool."""
        return self.stats


COLLECTOR = TimingCollector()


class Database:
    """A database that answers from memory and forgets what it is given but for the last write."""

    def __init__(self, rows: Sequence[Any] = (), document: str | None = None) -> None:
        self.rows: Sequence[Any] = rows
        self.document = document

    def fetchall(self, sql: str) -> Any:
        """The rows of ``tool_health``."""
        return self.rows

    def fetchone(self, sql: str, params: Sequence[Any]) -> Any:
        """The row of the usage document."""
        return None if self.document is None else (self.document,)

    def execute(self, sql: str, params: Sequence[Any]) -> None:
        """Keep the usage document."""
        self.document = params[1]

    def executemany(self, sql: str, rows: Sequence[Any]) -> None:
        """Keep the health rows."""
        self.rows = rows


class Repository:
    """A repository, which to the tracker is its database."""

    def __init__(self, db: Any) -> None:
        self.db = db


def extension() -> Any:
    """The built extension; exits with a message when there is none."""
    try:
        return importlib.import_module("quorl_dendra.tool_handlers.health")
    except ModuleNotFoundError as error:
        sys.exit(f"{Path(sys.argv[0]).name}: no extension in {BUILD} ({error}); run: make build")


def _stand_in(name: str, **names: Any) -> None:
    module = sys.modules[f"quorl_dendra{name}"] = ModuleType(f"quorl_dendra{name}")
    vars(module).update(names)


_stand_in("", __path__=[])
_stand_in(".tool_handlers", __path__=[str(BUILD / "package" / "quorl_dendra" / "tool_handlers")])
_stand_in(".utils", __path__=[])
_stand_in(".config", ToolsConfig=ToolsConfig)
_stand_in(".tool_registry", TOOLS=TOOLS)
_stand_in(".tool_schemas", is_slow_call=is_slow_call)
_stand_in(".utils.process", ThreadCensus=ThreadCensus, thread_census=lambda: ThreadCensus())
_stand_in(".utils.timing", get_timing_collector=lambda: COLLECTOR)
