// The two conversions of stored times, and the ways to them through the module's namespace.
//
// Plain values are converted by calendar.hpp while `datetime`, `timezone` and `_SQLITE_TIMESTAMP` are what they were
// when the module was imported. All others, and texts that calendar.hpp does not read, go to the runtime's `datetime`:
// it decides what is a time and which error is raised. It may run Python code.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

/// `_sqlite_time(epoch)`: epoch seconds, or None, as the text stored in `tool_health`, or None.
/// Throws what `datetime` raises for a value that is no time in the years 1 to 9999.
py::Ref format_time(const Context& context, PyObject* epoch);
inline constexpr py::FunctionDef sqlite_time_def = Implementation<format_time>::define("_sqlite_time", "epoch");

/// `_epoch(text)`: the epoch seconds of a stored text, None where it is absent or unreadable.
/// Throws a TypeError for a value that is neither text nor empty.
py::Ref parse_time(const Context& context, PyObject* text);
inline constexpr py::FunctionDef epoch_def = Implementation<parse_time>::define("_epoch", "text");

// The same, by way of the namespace's `_sqlite_time` and `_epoch`.

inline py::Ref sqlite_time(const Context& context, PyObject* epoch) {
    return call_by_name<format_time>(context, Name::_sqlite_time, sqlite_time_def, epoch);
}
inline py::Ref epoch_of(const Context& context, PyObject* text) {
    return call_by_name<parse_time>(context, Name::_epoch, epoch_def, text);
}

}  // namespace health
