// The tool registry `TOOLS`: which tools, and which actions of theirs, the daemon still has.
//
// All of it may run Python code and passes on what the registry or a tool's `action` raises.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"

namespace health {

/// Whether the registry holds the tool.
bool has_tool(const Host& host, PyObject* tool);

/// Whether the registry holds the tool and, where `action` is not None, the tool has that action:
/// what the module's `_known` answers.
bool has_action(const Host& host, PyObject* tool, PyObject* action);

/// As `has_action`, by way of the namespace's `_known`.
bool is_known(const Host& host, PyObject* tool, PyObject* action);

}  // namespace health
