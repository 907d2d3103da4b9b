"""The stub beside the extension says what the module has, and nothing else, so that neither drifts from the other."""

import __future__

import ast
import dataclasses
import inspect
import re
import unittest
import typing
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

from quorl_dendra.utils.process import ThreadCensus
from quorl_dendra.utils.timing import get_timing_collector
from support import FakeDatabase, health

PATH = Path(health.__file__).with_name("health.pyi")

# The stub as a module's namespace, annotations as texts, and the names that are for checkers only.
STUB = {"__name__": health.__name__, "__annotations__": {}}
FOR_CHECKERS = {}
with mock.patch("typing.type_check_only", lambda cls: FOR_CHECKERS.setdefault(cls.__name__, cls), create=True):
    exec(compile(PATH.read_text(), PATH, "exec", __future__.annotations.compiler_flag), STUB)
IMPORTS = [node for node in ast.parse(PATH.read_text()).body if isinstance(node, ast.Import | ast.ImportFrom)]
UNBOUND = FOR_CHECKERS.keys() | {name.name for node in IMPORTS for name in node.names if name.asname is None}


def names_of(owner):
    return {name for name in vars(owner) if not re.fullmatch("__(?!init).*__", name)}


def declared(name, value):
    # What a function, a property, a class or a constant is declared as.
    if isinstance(value, property):
        return property, value.fset, value.fdel, declared(name, value.fget)
    if inspect.isfunction(value) and value.__module__ == health.__name__:
        return inspect.signature(value), inspect.getdoc(value)
    if dataclasses.is_dataclass(value):
        fields = [(field.name, field.type, repr(field.default)) for field in dataclasses.fields(value)]
        return fields, inspect.getdoc(value)
    return inspect.getdoc(value) if name == "ToolHealthTracker" else value


def keys_declared(shape):
    # Each key of a TypedDict, and the words of its type, such as {NotRequired, int}; of a list or dict, only that.
    for key, hint in shape.__annotations__.items():
        yield key, {*re.findall(r"\w+", re.sub(r"(?<=list|dict)\[.*]", "", hint.__forward_arg__))}


def keys_seen(reports):
    # The same of reports that differ in every way they can.
    for key in dict.fromkeys(key for report in reports for key in report):
        kinds = {type(report[key]).__name__ if key in report else "NotRequired" for report in reports}
        yield key, {kind.removesuffix("Type") for kind in kinds}


class StubTest(unittest.TestCase):
    def test_the_shapes_of_the_reports(self):
        """The keys in their order and the types of real reports are those of the TypedDict."""
        tracker = health.ToolHealthTracker(FakeDatabase(), SimpleNamespace(disable_after_errors=1))
        tracker.record_error("fetch", "timed out")
        for action, duration_ms in (None, None), ("page", 1.5):
            tracker.record_call("search", action, "ok", alias_hit=False, duration_ms=duration_ms)
        get_timing_collector().record("fetch", 1.5)
        reports = {"HealthRecord": tracker.get_health_summary()}
        reports["UsageRow"] = [row for record in reports["HealthRecord"] for row in record["usage"]]
        reports["PerformanceReport"] = [health.handle_get_tool_performance_stats()]
        reports["ToolPerformance"] = reports["PerformanceReport"][0]["tools"]
        threads = ThreadCensus(9, 5, {}), ThreadCensus(None, 5, {})
        reports["ThreadCensusReport"] = [health.thread_census_report(7, census) for census in threads]
        for name, shape in FOR_CHECKERS.items():
            if typing.is_typeddict(shape):
                with self.subTest(name):
                    self.assertEqual(list(keys_seen(reports[name])), list(keys_declared(shape)))

    def test_the_stub_declares_what_the_module_has(self):
        stub, tracker = SimpleNamespace(**STUB), STUB["ToolHealthTracker"]
        self.assertEqual(names_of(health), (names_of(stub) | STUB["__annotations__"].keys()) - UNBOUND)
        self.assertEqual(names_of(health.ToolHealthTracker), names_of(tracker))
        self.assertEqual(list(vars(health.ToolHealthTracker(FakeDatabase()))), list(tracker.__annotations__))
        self.assertEqual(inspect.getdoc(health), inspect.cleandoc(STUB["__doc__"]))
        for stated, live in ((stub, health), (tracker, health.ToolHealthTracker)):
            for name in names_of(live) - {"logger"}:
                with self.subTest(name):
                    self.assertEqual(declared(name, vars(live)[name]), declared(name, vars(stated)[name]))
