// The marks of the tools whose health changed since it was written: the set `_dirty`, and what is owed to it.
//
// A mark is never lost: when memory or an interruption keeps names from going back into the set after a failed write,
// they stay owed, count as unsaved, and go back at the next occasion.
#pragma once

#include <Python.h>

#include "health/tracker/tracker.hpp"

namespace health {

/// Whether the tool, a plain str, is marked already; false where that cannot be told. Runs Python code only if the set
/// holds a name that is not plain, and passes on what that raises.
bool is_marked(const Tracker& tracker, PyObject* tool_name);

/// Marks the tool. The lock is held.
void mark(const Tracker& tracker, PyObject* tool_name);

/// Whether any tool is marked. The lock is held.
bool any_marked(const Tracker& tracker);

/// Takes all marks away and returns them: a new `[names, None]`, with the names in a list in ascending order. When it
/// fails, the marks are where they were. The lock is held.
py::Ref take_marks(Tracker& tracker);

/// Marks the names of `take_marks` again. Where that fails they stay owed. The lock is held.
void put_back_locked(Tracker& tracker, py::Ref marked);

/// The same, taking the lock. Throws only if the lock cannot be taken, and the names are owed even then.
void put_back(Tracker& tracker, const Host& host, py::Ref marked);

}  // namespace health
