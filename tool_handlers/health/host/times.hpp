// The two conversions of stored times, and the ways to them through the module's namespace.
//
// Plain input takes the short way of calendar.hpp while `datetime`, `timezone` and `_SQLITE_TIMESTAMP` are what they
// were when the module was imported; everything else goes to the runtime's `datetime`, whose errors and exact
// acceptance are what is asked for, and may run Python code.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"

namespace health {

/// `_sqlite_time(epoch)`: epoch seconds, or None, as the text stored in `tool_health`, or None.
/// Throws what `datetime` raises for a value that is no time in the years 1 to 9999.
py::Ref format_time(const Module& module, PyObject* epoch);
inline constexpr py::FunctionDef sqlite_time_def = Implementation<format_time>::define("_sqlite_time");

/// `_epoch(text)`: the epoch seconds of a stored text, None where it is absent or unreadable.
/// Throws a TypeError for a value that is neither text nor empty.
py::Ref parse_time(const Module& module, PyObject* text);
inline constexpr py::FunctionDef epoch_def = Implementation<parse_time>::define("_epoch");

/// As `format_time`, by way of the namespace's `_sqlite_time`.
py::Ref sqlite_time(const Module& module, PyObject* epoch);

/// As `parse_time`, by way of the namespace's `_epoch`.
py::Ref epoch_of(const Module& module, PyObject* text);

}  // namespace health
