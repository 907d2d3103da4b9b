"""The stub beside the extension says what the module has, and nothing else, so that neither drifts from the other."""

import __future__

import ast
import dataclasses
import inspect
import os
import re
import unittest
from pathlib import Path
from typing import Any
from unittest import mock

from support import health, run_child

PATH = Path(health.__file__).with_name("health.pyi")
SAMPLES = Path(os.environ["HEALTH_SOURCE_DIR"], "typecheck")

# Where the stub says more than the module's annotations do: the shapes of the reports.
RICHER_RESULTS = {
    "get_health_summary": ("list[dict[str, Any]]", "list[HealthRecord]"),
    "_usage_rows": ("list[dict[str, Any]]", "list[UsageRow]"),
    "handle_get_tool_performance_stats": ("dict[str, Any]", "PerformanceReport"),
    "thread_census_report": ("dict[str, Any]", "ThreadCensusReport"),
}


def load_stub() -> tuple[dict[str, Any], set[str]]:
    """The stub as a module's namespace, annotations as texts; the names that are for checkers only."""
    namespace: dict[str, Any] = {"__name__": health.__name__, "__annotations__": {}}
    for_checkers: set[str] = set()
    code = compile(PATH.read_text(), PATH, "exec", __future__.annotations.compiler_flag)
    with mock.patch("typing.type_check_only", lambda cls: for_checkers.add(cls.__name__), create=True):
        exec(code, namespace)
    return namespace, for_checkers


STUB, FOR_CHECKERS = load_stub()
IMPORTS = [node for node in ast.parse(PATH.read_text()).body if isinstance(node, ast.Import | ast.ImportFrom)]
UNBOUND = FOR_CHECKERS | {name.name for node in IMPORTS for name in node.names if name.asname is None}
TRACKER = STUB["ToolHealthTracker"]


def own_names(namespace: dict[str, Any]) -> set[str]:
    return {name for name in namespace if not re.fullmatch("__(?!init).*__", name)}


class StubTest(unittest.TestCase):
    def check(self, name: str, stub: Any, live: Any) -> None:
        """A function, a method or a property: its kind, parameters, annotations, defaults, documentation."""
        with self.subTest(name):
            self.assertEqual(inspect.getdoc(live), inspect.getdoc(stub))
            if isinstance(stub, property):
                self.assertIs(type(live), property)
                self.assertIsNone(live.fset or live.fdel)
                stub, live = stub.fget, live.fget
            signature = inspect.signature(live)
            if name in RICHER_RESULTS:
                plain, richer = RICHER_RESULTS[name]
                self.assertEqual(signature.return_annotation, plain)
                signature = signature.replace(return_annotation=richer)
            self.assertEqual(signature, inspect.signature(stub))

    def test_module(self) -> None:
        told = own_names(STUB) | STUB["__annotations__"].keys()
        self.assertEqual(own_names(vars(health)), told - UNBOUND)
        self.assertEqual(inspect.getdoc(health), inspect.cleandoc(STUB["__doc__"]))
        for name in told - UNBOUND - {"logger"}:
            stub, live = STUB[name], getattr(health, name)
            if getattr(stub, "__module__", "") != health.__name__:
                self.assertEqual((name, live), (name, stub))
            elif inspect.isfunction(stub):
                self.check(name, stub, live)

    def test_tracker(self) -> None:
        live = vars(health.ToolHealthTracker)
        fields = TRACKER.__annotations__
        self.assertEqual(own_names(live), own_names(vars(TRACKER)) | fields.keys())
        self.assertEqual(inspect.getdoc(health.ToolHealthTracker), inspect.getdoc(TRACKER))
        for name in own_names(vars(TRACKER)):
            self.check(name, vars(TRACKER)[name], live[name])

    def test_records(self) -> None:
        for name in ("_ToolState", "_Usage"):
            stub, live = STUB[name], getattr(health, name)
            with self.subTest(name):
                of_live, of_stub = (
                    [(f.name, f.type, repr(f.default)) for f in dataclasses.fields(record)] for record in (live, stub)
                )
                self.assertEqual(of_live, of_stub)
                self.assertEqual(inspect.getdoc(live), inspect.getdoc(stub))

    def test_samples(self) -> None:
        names = own_names(vars(TRACKER)) | STUB["__annotations__"].keys() | RICHER_RESULTS.keys() | FOR_CHECKERS
        public = {name for name in names if name[0] != "_"}
        for file in ("sample.py", "refused.py"):
            used = set(re.findall(r"\w+", (SAMPLES / file).read_text()))
            self.assertEqual(public - used, set(), f"{file} leaves out")
        child = run_child("import runpy, sys; runpy.run_path(sys.argv[1], None, '__main__')", str(SAMPLES / "sample.py"))
        self.assertEqual((child.returncode, child.stderr), (0, ""))
