"""The stub beside the extension says what the module has, and nothing else, so that neither drifts from the other."""

import __future__

import ast
import dataclasses
import inspect
import re
import types
import unittest
from pathlib import Path
from unittest import mock

from support import FakeDatabase, health

PATH = Path(health.__file__).with_name("health.pyi")
# Where the stub says more than the module's annotations do: the shapes of the reports.
RICHER_RESULTS = {
    "get_health_summary": ("list[dict[str, Any]]", "list[HealthRecord]"),
    "_usage_rows": ("list[dict[str, Any]]", "list[UsageRow]"),
    "handle_get_tool_performance_stats": ("dict[str, Any]", "PerformanceReport"),
    "thread_census_report": ("dict[str, Any]", "ThreadCensusReport"),
}

# The stub as a module's namespace, annotations as texts, and the names that are for checkers only.
STUB = {"__name__": health.__name__, "__annotations__": {}}
FOR_CHECKERS = set()
with mock.patch("typing.type_check_only", lambda cls: FOR_CHECKERS.add(cls.__name__), create=True):
    exec(compile(PATH.read_text(), PATH, "exec", __future__.annotations.compiler_flag), STUB)
IMPORTS = [node for node in ast.parse(PATH.read_text()).body if isinstance(node, ast.Import | ast.ImportFrom)]
UNBOUND = FOR_CHECKERS | {name.name for node in IMPORTS for name in node.names if name.asname is None}


def names_of(owner):
    return {name for name in vars(owner) if not re.fullmatch("__(?!init).*__", name)}


def declared(name, value):
    """What a function, a property, a class or a constant is declared as."""
    if isinstance(value, property):
        return property, value.fset, value.fdel, declared(name, value.fget)
    if inspect.isfunction(value) and value.__module__ == health.__name__:
        plain, richer = RICHER_RESULTS.get(name, ("", ""))
        return str(inspect.signature(value)).replace(f"'{richer}'", f"'{plain}'"), inspect.getdoc(value)
    if dataclasses.is_dataclass(value):
        fields = [(field.name, field.type, repr(field.default)) for field in dataclasses.fields(value)]
        return fields, inspect.getdoc(value)
    return inspect.getdoc(value) if name == "ToolHealthTracker" else value


class StubTest(unittest.TestCase):
    def test_the_stub_declares_what_the_module_has(self):
        stub, tracker = types.SimpleNamespace(**STUB), STUB["ToolHealthTracker"]
        self.assertEqual(names_of(health), (names_of(stub) | STUB["__annotations__"].keys()) - UNBOUND)
        self.assertEqual(names_of(health.ToolHealthTracker), names_of(tracker))
        self.assertEqual(list(vars(health.ToolHealthTracker(FakeDatabase()))), list(tracker.__annotations__))
        self.assertEqual(inspect.getdoc(health), inspect.cleandoc(STUB["__doc__"]))
        for stated, live in ((stub, health), (tracker, health.ToolHealthTracker)):
            for name in names_of(live) - {"logger"}:
                with self.subTest(name):
                    self.assertEqual(declared(name, vars(live)[name]), declared(name, vars(stated)[name]))
