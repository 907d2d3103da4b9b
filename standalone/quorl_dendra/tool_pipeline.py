"""Life of a tool call: resolve its names, ask the tracker, run the handler, report."""

import enum
import time
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from typing import Any

from quorl_dendra.tool_handlers.health import ToolHealthTracker
from quorl_dendra.tool_registry import TOOLS, ToolSpec
from quorl_dendra.utils.timing import get_timing_collector

Handler = Callable[..., Any]  # handler(action, **parameters)


class Outcome(enum.Enum):
    """How a tool call ended; the values are the texts that are counted."""

    OK = "ok"
    ERROR = "error"
    DISABLED = "disabled"
    INVALID = "invalid"


@dataclass(frozen=True)
class Answer:
    """What the agent is told: the handler's value, or a notice why there is none."""

    outcome: Outcome
    value: Any = None
    notice: str = ""


class ToolPipeline:
    """Runs tool calls by any thread, and reports each to the tracker."""

    def __init__(self, tracker: ToolHealthTracker, handlers: Mapping[str, Handler]) -> None:
        self._tracker = tracker
        self._handlers = handlers

    def call(self, tool: str, arguments: Mapping[str, Any]) -> Answer:
        """Run one call; a handler's error becomes an answer. Blocks as long as the handler does."""
        spec = TOOLS.get(tool)
        if spec is None:
            return Answer(Outcome.INVALID, notice=f"there is no tool {tool!r}")  # not counted
        action, parameters, alias_hit, complaint = _resolve(spec, arguments)
        duration_ms = None
        if complaint:
            answer = Answer(Outcome.INVALID, notice=complaint)
        else:
            answer, duration_ms = self._ask_and_run(tool, action, parameters)
        self._tracker.record_call(
            tool, action, answer.outcome.value, alias_hit=alias_hit, duration_ms=duration_ms
        )
        return answer

    def _ask_and_run(
        self, tool: str, action: str | None, parameters: dict[str, Any]
    ) -> tuple[Answer, float | None]:
        disabled, last_error = self._tracker.is_disabled(tool)
        if disabled:
            return Answer(Outcome.DISABLED, notice=last_error or "no error text"), None
        begun = time.perf_counter()
        try:
            value = self._handlers[tool](action, **parameters)
        except Exception as error:
            get_timing_collector().record(tool, _ms_since(begun), error=True)
            notice = str(error) or type(error).__name__
            self._tracker.record_error(tool, notice)
            return Answer(Outcome.ERROR, notice=notice), None
        duration_ms = _ms_since(begun)
        get_timing_collector().record(tool, duration_ms)
        self._tracker.record_success(tool)
        return Answer(Outcome.OK, value), duration_ms


def _resolve(
    spec: ToolSpec, arguments: Mapping[str, Any]
) -> tuple[str | None, dict[str, Any], bool, str]:
    """The action and the parameters by their proper names, whether a synonym was used, and what
    is wrong with the call (empty when nothing is). An action that does not exist is None."""
    parameters = {spec.synonyms.get(name, name): value for name, value in arguments.items()}
    given = parameters.pop("action", None)
    proper = None if given is None else spec.synonyms.get(str(given), str(given))
    alias_hit = proper != given or parameters.keys() != arguments.keys() - {"action"}
    action = spec.action(proper)
    complaint = ""
    if proper is not None and action is None:
        complaint = f"{spec.name} has no action {given!r}"
    elif spec.actions and action is None:
        complaint = f"{spec.name} needs an action"
    elif parameters.keys() != set(spec.parameters):
        complaint = f"{spec.name} takes {', '.join(spec.parameters) or 'no parameters'}"
    return action.name if action else None, parameters, alias_hit, complaint


def _ms_since(begun: float) -> float:
    return (time.perf_counter() - begun) * 1000
