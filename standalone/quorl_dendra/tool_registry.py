"""The tool registry: which tools there are, their actions and parameters, and synonyms of both."""

from collections.abc import Mapping
from dataclasses import dataclass, field


@dataclass(frozen=True)
class Action:
    """One action of a tool; ``slow`` marks one that takes its time by nature."""

    name: str
    slow: bool = False


@dataclass(frozen=True)
class ToolSpec:
    """One tool. Every parameter is required; ``synonyms`` maps other names to the proper ones."""

    name: str
    actions: tuple[Action, ...] = ()
    parameters: tuple[str, ...] = ()
    synonyms: Mapping[str, str] = field(default_factory=dict[str, str])

    def action(self, name: str | None) -> Action | None:
        """The action of that proper name, or None when the tool has no such action."""
        return next((action for action in self.actions if action.name == name), None)


TOOLS: dict[str, ToolSpec] = {
    spec.name: spec
    for spec in (
        ToolSpec(
            "search",
            actions=(Action("text"), Action("files")),
            parameters=("query",),
            synonyms={"grep": "text", "find": "files", "pattern": "query"},
        ),
        ToolSpec(
            "index",
            actions=(Action("build", slow=True), Action("common")),
            synonyms={"rebuild": "build"},
        ),
        ToolSpec("fetch", parameters=("url",), synonyms={"address": "url"}),
        ToolSpec("status", actions=(Action("perf_stats"), Action("threads"))),
        ToolSpec("get_tool_performance_stats"),
    )
}
