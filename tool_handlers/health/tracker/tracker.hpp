// `ToolHealthTracker`: its operations in memory. Those on its copy in the database are in mirror/, the health summary
// in summary/.
//
// On re-entrancy. These may run Python code, and so let other threads in:
//   - comparing keys that are not plain
//   - settings that are properties or no plain numbers, and a clock that a host put in place
//   - trackers and records that are not direct, and mappings and sets that are not exactly dict and set
//   - using values that are not plain, and dropping the last reference to one
// An operation reads nothing before such a step that it relies on after it. Its steps take effect in their order
// (change.hpp), and what they replaced dies last, when the lock is free. Where none of these can happen and the tool or
// the key is known, the section is elided if nobody holds the lock (fields.hpp).
//
// `self` is any object: one that is no tracker is served by its attributes, as in Python. Every operation throws
// what the host's code raises, and an AttributeError where a field is missing. Where memory runs out, a record that is
// direct and plain is as before or as after.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

// outcomes.cpp. Each enters the lock's section once.

py::Ref record_success(const Context& context, PyObject* self, PyObject* tool_name);
py::Ref record_error(const Context& context, PyObject* self, PyObject* tool_name, PyObject* error);

// disabling.cpp

/// `(disabled, last error)`; enables a tool whose cooldown is over. Enters the lock's section once.
py::Ref is_disabled(const Context& context, PyObject* self, PyObject* tool_name);

// usage.cpp

/// Counts a call by tool, action, outcome and use of synonyms. `duration_ms`: milliseconds, or None. Enters the lock's
/// section once.
py::Ref record_call(const Context& context, PyObject* self, PyObject* tool_name, PyObject* action, PyObject* outcome,
                    PyObject* alias_hit, PyObject* duration_ms);

}  // namespace health
