"""The daemon's settings, as far as the tools need them."""

from dataclasses import dataclass


@dataclass
class ToolsConfig:
    """The ``tools`` section: how many errors in a row disable a tool, and for how long."""

    disable_after_errors: int = 3
    disable_cooldown_s: float = 60.0
