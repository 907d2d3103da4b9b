"""Nothing is left behind: memory and reference counts are flat over any number of calls, of failing ones too."""

import contextlib
import gc
import sys
import tracemalloc
import unittest
from array import array
from functools import partial

from harness import MANY, OPERATIONS, PLACES, READ_STATES, READ_USAGE, Operation, World, counting, deleted, method
from harness import native_host, put, unfit
from support import count, health

CALLS = 8  # of each operation in a round
ROUNDS = 5  # at most: what the runtime keeps for itself comes to an end
BYTES = 24  # the smallest object

# What is there from the import on: every type, the module, all that it holds, seen or not, and its functions' names.
TRACKER = health.ToolHealthTracker
METHODS = [getattr(member, "fget", member) for member in vars(TRACKER).values()]
LASTING = [*METHODS, *(getattr(m, "__qualname__", m) for m in METHODS), *vars(health).values()]
LASTING += [health, *gc.get_referents(health), *(o for o in gc.get_objects() if isinstance(o, type))]

MORE = {
    "no object": Operation(lambda world: TRACKER.flush, error=TypeError),
    "another object": Operation(lambda world: TRACKER.flush, 5, error=TypeError),
    "surplus argument": method("flush", 5, error=TypeError),
    "unknown name": Operation(lambda world: partial(world.tracker.is_disabled, tool="a"), error=TypeError),
    "argument twice": Operation(lambda world: partial(world.tracker.is_disabled, tool_name="a"), "a", error=TypeError),
    "name that is no key": method("record_success", [], error=TypeError),
    "part that is no key": counting("a", {}, error=TypeError),
    "many new keys": Operation(lambda world: lambda: [count(world.tracker, "a", action) for action in MANY]),
    "cycle": Operation(lambda world: lambda: setattr(world.tracker, "own", world.tracker)),
}

# Faults, one of which is there in every operation of a round, for all the ways out of them.
ROWS = None, [()], [("a",)], [("a", "x", 1, None, None, None)], [("a", 1, 1, None, "then", "then")]
DOCUMENTS = "[", "[" * 9999, "[5]", '[{"tool":"a"}]', '[{"tool":"a","action":null,"outcome":[],"alias_hit":0}]'


def answer(name, statement, value, world):
    setattr(world.db, name, {statement: value}.get)


FAULTS = {"none": lambda world: None}
FAULTS |= {f"unfit {place}": partial(put, place=place, make=unfit(5)) for place in PLACES}
FAULTS |= {f"deleted {place}": partial(put, place=place, make=deleted) for place in PLACES}
FAULTS |= {f"rows {rows}": partial(answer, "fetchall", READ_STATES, rows) for rows in ROWS}
FAULTS |= {f"document {text:.50}": partial(answer, "fetchone", READ_USAGE, (text,)) for text in DOCUMENTS}


def run(operation, fault):
    """One call, after which nothing of its world is left."""
    world = World()
    operation.begin(world)
    fault(world)
    with contextlib.suppress(Exception):
        operation.call(world)
    world.leave()


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
    before, after = (array("q", bytes(8 * len(names))) for _ in range(2))
    measure(operations, fault, before)
    for _ in range(ROUNDS):
        measure(operations, fault, after)
        grown = [name for name, old, new in zip(names, before, after) if new - old >= CALLS and name in grown]
        if not grown:
            break
        before, after = after, before
    return grown


class Leaks(unittest.TestCase):
    def test_every_operation_under_every_fault(self):
        self.enterContext(native_host())
        operations = OPERATIONS | MORE
        for operation in operations.values():
            world = World()
            operation.begin(world)
            operation.run(world)  # ends as it is to end, when there is no fault
        self.addCleanup(gc.unfreeze)
        gc.freeze()  # collections then look only at what comes now
        self.addCleanup(tracemalloc.stop)
        tracemalloc.start()
        for name, fault in FAULTS.items():
            with self.subTest(name):
                if found := growth([*operations.values()], fault):
                    leaking = [name for name, operation in operations.items() if growth([operation], fault)]
                    self.fail(f"with {leaking or 'several'} grow {found}")
