"""What the host finds when it imports the module, held against the plain-Python version."""

from __future__ import annotations

import copy
import importlib.util
import inspect
import itertools
import logging
import pickle
import pydoc
import sys
import types
from unittest import mock

from benchmarks import baseline
from support import TrackerTest, health, result

NAMES = """
    json logging threading time dataclass datetime timezone TYPE_CHECKING Any ToolsConfig TOOLS
    is_slow_call ThreadCensus thread_census get_timing_collector logger _SQLITE_TIMESTAMP
    _TOOL_HEALTH_COLUMNS TOOL_USAGE_KEY _UsageKey _sqlite_time _epoch _ToolState _Usage _known
    ToolHealthTracker handle_get_tool_performance_stats thread_census_report
""".split()
OWN = NAMES[NAMES.index("_sqlite_time") :]
TRACKER, PLAIN = health.ToolHealthTracker, baseline.ToolHealthTracker
MEMBERS = [name for name in vars(PLAIN) if name == "__init__" or name[:2] != "__"]
PROPERTIES = [name for name in MEMBERS if isinstance(vars(PLAIN)[name], property)]
FUNCTIONS = [(getattr(health, name), getattr(baseline, name)) for name in OWN]
FUNCTIONS += [tuple(getattr(vars(t)[name], "fget", vars(t)[name]) for t in (TRACKER, PLAIN)) for name in MEMBERS]


def described(function):
    """All that tools read off a function or a class."""
    names = "__name__ __qualname__ __doc__ __annotations__ __defaults__ __kwdefaults__".split()
    read = [getattr(function, name, None) for name in names]
    return [*read, str(inspect.signature(function)), list(function.__annotations__)]


def is_refused(outcome):
    return type(outcome) is tuple and outcome[0] is TypeError and "argument" in outcome[1]


class Surface(TrackerTest):
    def test_names_are_bound_in_their_order(self):
        self.assertEqual([name for name in vars(health) if name[:2] != "__"], NAMES)
        self.assertEqual([name for name in vars(TRACKER) if name in MEMBERS], MEMBERS)
        for name in {"__doc__", *NAMES} - {"logger", "TYPE_CHECKING", *OWN}:
            self.assertEqual(getattr(health, name), getattr(baseline, name))
        self.assertIs(type(health._UsageKey), types.GenericAlias)
        self.assertIs(health.TYPE_CHECKING, False)
        self.assertIs(health.logger, logging.getLogger("quorl_dendra.tool_handlers.health"))

    def test_functions_read_as_plain_ones_do(self):
        for ours, plain in FUNCTIONS:
            with self.subTest(plain.__qualname__):
                self.assertEqual(described(ours), described(plain))
                self.assertEqual(ours.__module__, health.__name__)
                if plain.__name__ not in PROPERTIES:
                    self.assertIs(pickle.loads(pickle.dumps(ours)), ours)
                    self.assertIs(copy.deepcopy(ours), ours)
        self.assertEqual(TRACKER.__bases__, (object,))
        self.assertIs(health._epoch.__globals__, vars(health))
        self.assertRegex(repr(TRACKER.flush), "^<function ToolHealthTracker.flush at 0x[0-9a-f]+>$")
        self.assertIn("duration_ms: 'float | None') -> 'None'", pydoc.render_doc(health))

    def test_properties_are_read_only(self):
        ours, plain = self.make(), PLAIN(self.db)
        for name in PROPERTIES:
            with self.subTest(name):
                self.assertIs(type(vars(TRACKER)[name]), property)
                self.assertEqual(vars(TRACKER)[name].__doc__, vars(PLAIN)[name].__doc__)
                self.assertEqual(result(setattr, ours, name, 1), result(setattr, plain, name, 1))
                self.assertEqual(result(delattr, ours, name), result(delattr, plain, name))

    def test_arguments_are_refused_in_the_runtimes_own_words(self):
        """Every number of positional arguments with every few keywords, fitting or not."""
        values = {"self": self.make(), "repository": self.db, "budget": 10**6}
        refusals = 0
        for ours, plain in FUNCTIONS:
            names = list(inspect.signature(plain).parameters)
            most = [*map(values.get, names), None, None]
            for given, few in itertools.product(range(len(most) + 1), range(5)):
                for keywords in itertools.combinations([*names, "other"], few):
                    args, kwargs = most[:given], {name: values.get(name) for name in keywords}
                    expected, actual = result(plain, *args, **kwargs), result(ours, *args, **kwargs)
                    with self.subTest(plain.__qualname__, given=given, keywords=keywords):
                        self.assertEqual(is_refused(actual), is_refused(expected), actual)
                        if is_refused(expected):
                            self.assertEqual(actual, expected)
                            refusals += 1
        self.assertGreater(refusals, 1000)
        self.assertRaisesRegex(TypeError, "doesn't apply to a 'int' object", TRACKER.flush, 5)

    def test_the_import_name_is_the_hosts_and_failures_are_passed_on(self):
        def load(**replaced):
            spec = importlib.util.spec_from_file_location("other.health", health.__file__)
            module = importlib.util.module_from_spec(spec)
            replaced = {f"quorl_dendra.{name}": value for name, value in replaced.items()}
            with mock.patch.dict(sys.modules, {"other.health": module, **replaced}):
                spec.loader.exec_module(module)
            return module

        other = load()
        modules = {owner.__module__ for owner in (other._Usage, other._epoch, other.ToolHealthTracker.flush)}
        self.assertEqual({other.logger.name, *modules}, {"other.health"})
        self.assertIsNot(other._Usage, health._Usage)
        no_module = type("Stamps", (list,), {})("now")
        no_module.time = no_module.copy  # native, without parameters, bound to it: as a module's own clock
        with mock.patch.dict(sys.modules, time=no_module):
            tracker = load().ToolHealthTracker(self.db)
        tracker.record_success("a")
        self.assertEqual(tracker._state["a"].updated_at, [*"now"])
        for name in ("config", "tool_registry", "tool_schemas", "utils.process", "utils.timing"):
            with self.subTest(name):
                missing = f"import of quorl_dendra.{name} halted; None in sys.modules"
                self.assertRaisesRegex(ImportError, missing, load, **{name: None})
                empty = types.ModuleType(f"quorl_dendra.{name}")
                text = f"^cannot import name '.*' from 'quorl_dendra.{name}' .unknown location.$"
                self.assertRaisesRegex(ImportError, text, load, **{name: empty})
