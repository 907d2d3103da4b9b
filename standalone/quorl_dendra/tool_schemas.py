"""What the tools' schemas say about calls, beyond names."""

from quorl_dendra.tool_registry import TOOLS


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether the tool's action is slow by nature (False for what the registry does not hold)."""
    spec = TOOLS.get(tool)
    found = spec.action(action) if spec else None
    return found is not None and found.slow
