// The marks of the tools whose health changed since it was written: the set `_dirty`, and what is owed to it.
//
// A mark is never lost: when memory or an interruption keeps names from going back into the set after a failed write,
// they stay owed, count as unsaved, and go back at the next occasion.
#pragma once

#include <Python.h>

#include "health/tracker/tracker.hpp"

namespace health {

/// Whether the tool, a plain str, is marked already; false where that cannot be told. Borrows; may run Python code
/// only if the set holds keys that are not plain.
bool is_marked(const Tracker& tracker, PyObject* tool_name);

/// Marks the tool. The lock is held.
void mark(const Tracker& tracker, PyObject* tool_name);

/// Whether any tool is marked. The lock is held.
bool any_marked(const Tracker& tracker);

/// The marked names in ascending order: a list, which is the first member of a new `[names, None]` for `put_back`.
/// Leaves the marks as they are. The lock is held.
py::Ref list_marked(Tracker& tracker);

/// Takes all marks away. The lock is held, and nothing ran since `list_marked` that could have added one.
void clear_marks(const Tracker& tracker);

/// Marks the names of a list made by `list_marked` again. Takes the lock; throws only if waiting for it is
/// interrupted, and the names are marked or owed even then.
void put_back(Tracker& tracker, const Host& host, py::Ref marked);

}  // namespace health
