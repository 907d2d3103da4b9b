// `ToolHealthTracker`: its operations in memory. Those on its copy in the database are in mirror/, the summary in
// reports/.
//
// On re-entrancy. These may run Python code, and so let other threads in:
//   - keys that are not plain, in the mappings, in `_dirty` or as arguments
//   - settings that are properties, or whose numbers are not plain
//   - a clock that a host put in place
//   - trackers and records with attribute access of their own, and mappings and sets that are no dict or set
//   - numbers and texts of other types in a record
//   - the last reference to any value
// An operation reads nothing before such a step that it relies on after it; its steps take effect in their order (see
// edit.hpp); and what it replaced dies last, when the lock is free. The lock is taken unless none of these can happen
// (see section.hpp).
//
// `self` is any object; one that is no tracker gives a TypeError before anything is touched. Every operation throws
// what the host's code raises, and an AttributeError where a field is missing.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"

namespace health {

// construction.cpp

/// `__init__`: sets the seven fields, then has `_load` and `_load_usage` seed them. May block; `limits` may be None.
void initialise(const Module& module, PyObject* self, PyObject* repository, PyObject* limits);
/// The settings object. Takes no lock.
py::Ref limits_of(const Module& module, PyObject* self);

// outcomes.cpp: the disable rule. Each enters the lock's section once.

py::Ref record_success(const Module& module, PyObject* self, PyObject* tool_name);
py::Ref record_error(const Module& module, PyObject* self, PyObject* tool_name, PyObject* error);
/// `(disabled, last error)`; re-enables a tool whose cooldown is over.
py::Ref is_disabled(const Module& module, PyObject* self, PyObject* tool_name);
/// Seconds, as the settings have them. Takes no lock.
py::Ref cooldown_s(const Module& module, PyObject* self);
inline constexpr py::FunctionDef cooldown_def = Implementation<cooldown_s>::define("cooldown_s");

// usage.cpp: counts by tool, action, outcome and use of synonyms. Enters the lock's section once.

/// `duration_ms`: milliseconds, or None.
py::Ref record_call(const Module& module, PyObject* self, PyObject* tool_name, PyObject* action, PyObject* outcome,
                    PyObject* alias_hit, PyObject* duration_ms);

/// Whether a flush has anything to write. Enters the lock's section once.
py::Ref has_unsaved_changes(const Module& module, PyObject* self);

}  // namespace health
