// The tool registry `TOOLS`: which tools, and which actions of theirs, the daemon still has.
//
// All of it may run Python code and passes on what the registry or a tool's `action` raises.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

/// Whether the registry holds the tool.
bool has_tool(const Context& context, PyObject* tool);

/// `_known(tool, action)`: whether the registry holds the tool and, where `action` is not None, the tool has that
/// action.
py::Ref known(const Context& context, PyObject* tool, PyObject* action);
inline constexpr py::FunctionDef known_def = Implementation<known>::define("_known", "tool action");

/// The same, by way of the namespace's `_known`.
bool is_known(const Context& context, PyObject* tool, PyObject* action);

}  // namespace health
