"""Nothing is left behind: memory and reference counts are flat over any number of calls, of failing ones too."""

import contextlib
import gc
import sys
import tracemalloc
import unittest
from array import array
from functools import partial
from unittest import mock

from harness import OPERATIONS, READ_STATES, READ_USAGE, RECORD, Operation, World, method, native_host
from support import health

CALLS = 8  # of each operation in a round
ROUNDS = 5  # at most: what the runtime keeps for itself comes to an end
BYTES = 24  # the smallest object
TRACKER = health.ToolHealthTracker
# What is there from the import on: the module, all that it holds, seen or not, and what the operations are given.
LASTING = [health, *gc.get_referents(health), *vars(health).values(), *vars(TRACKER).values(), type, TypeError, RECORD]
LASTING += [method.fget for method in vars(TRACKER).values() if isinstance(method, property)]

MORE = {
    "no object": Operation(lambda world: TRACKER.flush()),
    "another object": Operation(lambda world: TRACKER.flush(world)),
    "surplus argument": method("flush", 5),
    "unknown name": method("is_disabled", tool="a"),
    "argument twice": method("record_error", "a", "text", error="more"),
    "name that cannot be a key": method("record_success", []),
    "part that cannot be a key": method("record_call", "a", {}, "ok", alias_hit=True, duration_ms=None),
    "signature": Operation(lambda world: TRACKER.flush.__signature__),
    "cycle": Operation(lambda world: setattr(world.tracker, "own", world.tracker)),
}

# Faults, each brought about before every operation, for all the ways out of it. They are called with its world.
FIELDS = "_repo", "_limits", "_lock", "_state", "_dirty", "_usage", "_usage_dirty"
LENT = "TOOLS", "is_slow_call", "get_timing_collector", "thread_census", "logger", "time", "threading", "ToolsConfig"
LENT += "_ToolState", "_Usage", "_sqlite_time", "_epoch", "_known", "TOOL_USAGE_KEY"
ROWS = None, [()], [("a",)], [("a", "x", 1, None, None, None)], [("a", 1, 1, None, "then", "then")]
DOCUMENTS = "[", "[" * 9999, "[5]", '[{"tool":"a"}]', '[{"tool":"a","action":null,"outcome":[],"alias_hit":0}]'


def set_field(name, world):
    setattr(world.tracker, name, object())


def drop_field(name, world):
    delattr(world.tracker, name)


def set_answer(name, key, value, world):
    setattr(world.db, name, {key: value}.get)


FAULTS = {"none": lambda world: None}
FAULTS |= {f"odd {name}": partial(set_field, name) for name in FIELDS}
FAULTS |= {f"without {name}": partial(drop_field, name) for name in FIELDS}
FAULTS |= {f"rows {rows}": partial(set_answer, "fetchall", READ_STATES, rows) for rows in ROWS}
FAULTS |= {f"document {text:.50}": partial(set_answer, "fetchone", READ_USAGE, (text,)) for text in DOCUMENTS}
FAULTS |= {f"odd {name}": mock.patch.object(health, name, object()) for name in LENT}


def run(operation, fault):
    """One call, after which nothing of its world is left."""
    with contextlib.suppress(Exception):
        world = World()
        operation.prepare(world)
        with contextlib.nullcontext(fault(world)) if callable(fault) else fault:
            operation.call(world)


def measure(operations, fault, figures):
    """Run a round and note what there is then, making no object that would count at the next time."""
    for operation in operations * CALLS:
        run(operation, fault)
    sys._clear_type_cache()  # which keeps names of attributes
    gc.collect()
    figures[0] = tracemalloc.get_traced_memory()[0] // BYTES
    figures[1] = sys.getallocatedblocks()
    for place, lasting in enumerate(LASTING, 2):
        figures[place] = sys.getrefcount(lasting)


def growth(operations, fault):
    """What grows by one or more with every call in one round after another: the memory, the blocks, the references."""
    grown = names = "memory", "blocks", *LASTING
    figures = [array("q", bytes(8 * len(names))) for _ in range(2)]
    measure(operations, fault, figures[0])
    for _ in range(ROUNDS):
        measure(operations, fault, figures[1])
        grown = [name for name, before, after in zip(names, *figures) if after - before >= CALLS and name in grown]
        if not grown:
            break
        figures.reverse()
    return grown


class Leaks(unittest.TestCase):
    def test_every_operation_under_every_fault(self):
        self.enterContext(native_host())
        self.addCleanup(gc.unfreeze)
        gc.freeze()  # collections then look only at what comes now
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        operations = OPERATIONS | MORE
        for name, fault in FAULTS.items():
            with self.subTest(name):
                if found := growth(list(operations.values()), fault):
                    leaking = [name for name, operation in operations.items() if growth([operation], fault)]
                    self.fail(f"with {leaking or 'several'} grow {found}")
