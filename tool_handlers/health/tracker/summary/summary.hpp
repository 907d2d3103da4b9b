// The health summary. `self` as in health/tracker/tracker.hpp. Both run Python code and pass on what that raises.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

/// `get_health_summary`: one record per tool, the worst first. Holds the lock for its whole run.
py::Ref health_summary(const Context& context, PyObject* self);

/// `_usage_rows`: a tool's usage rows, most calls first. The caller holds the lock.
py::Ref usage_rows(const Context& context, PyObject* self, PyObject* tool_name);
inline constexpr py::FunctionDef usage_rows_def = Implementation<usage_rows>::define("_usage_rows", "self tool_name");

}  // namespace health
