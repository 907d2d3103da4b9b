// What the module reports to the daemon's status answers. All of it runs Python code and passes on what that raises.
#pragma once

#include <Python.h>

#include "health/host/module_state.hpp"

namespace health {

// summary.cpp. `self` as in health/tracker/tracker.hpp.

/// `get_health_summary`: one record per tool, the worst first. Holds the lock for its whole run.
py::Ref health_summary(const Module& module, PyObject* self);

/// `_usage_rows`: a tool's usage rows, most calls first. The caller holds the lock.
py::Ref usage_rows(const Module& module, PyObject* self, PyObject* tool_name);
inline constexpr py::FunctionDef usage_rows_def = Implementation<usage_rows>::define("_usage_rows");

// performance.cpp. Takes no lock.

/// The timing collector's figures of every tool, in a fixed shape: `{"tools": [...]}`.
py::Ref performance_report(const Module& module);

// thread_census.cpp. Takes no lock.

/// The process's threads against `budget`. Takes a census itself, which may block, if `census` is None.
py::Ref thread_census_report(const Module& module, PyObject* budget, PyObject* census);

}  // namespace health
