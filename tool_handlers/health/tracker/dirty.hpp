// The tools whose health changed since it was written: the set `_dirty`.
//
// A name is never lost. A flush takes the names out, and puts them back when it fails. Where even that fails (no
// memory, an interruption while it waits for the lock), one flag says that every tool counts as changed: `_usage_dirty`
// is 2, which counts as true, instead of True. Setting it cannot fail, and the next flush takes the names of all tools;
// a spare row does no harm.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"

namespace health {

// All of these may run Python code where `_dirty` is no plain set, a name in it is not plain, or the tracker has
// attribute access of its own; and pass on what that raises. The lock is held, but for `put_back_dirty`.

/// `tracker._dirty.add(tool_name)`.
void mark_dirty(const Module& module, const TrackerView& tracker, PyObject* tool_name);

/// Whether any tool is dirty.
bool is_any_dirty(const TrackerView& tracker);

/// Whether every tool counts as dirty. Runs no Python code where the tracker has the attribute access of its class.
bool is_everything_dirty(const TrackerView& tracker);

/// `tracker._usage_dirty = True`, but where it says already that everything is dirty. The value it replaced.
py::Ref mark_usage_dirty(const TrackerView& tracker);

/// Takes the names out: a new list in ascending order, which nobody else can find. When it fails, they are where they
/// were.
py::Ref take_dirty(const Module& module, const TrackerView& tracker);

/// Puts the names of `take_dirty` back. When it throws, everything is dirty.
void put_back_dirty_locked(const Module& module, const TrackerView& tracker, PyObject* names);

/// The same, taking the lock.
void put_back_dirty(const Module& module, const TrackerView& tracker, PyObject* names);

}  // namespace health
