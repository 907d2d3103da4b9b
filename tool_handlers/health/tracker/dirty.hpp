// The tools whose health changed since it was written: the set `_dirty`.
//
// A name is never lost. A flush takes the names out, and puts them back when it fails. Where they cannot go back into
// the set (no memory, an interruption while waiting for the lock), one flag says that every tool counts as changed:
// `_usage_dirty` is 2, which counts as true, instead of True. Setting it takes no memory, and the next flush takes the
// names of all tools; a spare row does no harm. (A class with attribute access of its own hides it.)
#pragma once

#include <Python.h>

#include "health/tracker/fields.hpp"

namespace health {

// All of these may run Python code where `_dirty` is not exactly a set, a name in it is not plain, or the tracker is
// not direct; and pass on what that raises. The lock is held, but for `put_back_dirty`.

/// `tracker._dirty.add(tool_name)`. Also where it throws a MemoryError the name is in the set: only growing that
/// failed.
void mark_dirty(const Context& context, const TrackerView& tracker, PyObject* tool_name);

/// Whether any tool is dirty.
bool is_any_dirty(const TrackerView& tracker);

/// `tracker._usage_dirty = value`, but where it says that every tool is dirty. The value it replaced.
py::Ref set_usage_dirty(const TrackerView& tracker, bool value);

/// Takes the names out: a new list in ascending order, which nobody else can find. When it throws, they are where they
/// were.
py::Ref take_dirty(const Context& context, const TrackerView& tracker);

/// Puts the names of `take_dirty` back. When it throws, every tool is dirty.
void put_back_dirty_locked(const Context& context, const TrackerView& tracker, PyObject* names);

/// The same, taking the lock.
void put_back_dirty(const Context& context, const TrackerView& tracker, PyObject* names);

}  // namespace health
