// The two conversions of stored times, and the ways to them through the module's namespace.
//
// Plain input takes the short way of calendar.hpp; everything else goes to the runtime's `datetime`, whose errors and
// exact acceptance are what is asked for, and may run Python code.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"

namespace health {

/// Epoch seconds, or None, as the text stored in `tool_health`, or None: what the module's `_sqlite_time` answers.
/// Throws what `datetime` raises for a value that is no time in the years 1 to 9999.
py::Ref format_time(const Host& host, PyObject* epoch);

/// The epoch seconds of a stored text, None where it is absent or unreadable: what the module's `_epoch` answers.
/// Throws a TypeError for a value that is neither text nor empty.
py::Ref parse_time(const Host& host, PyObject* text);

/// As `format_time`, by way of the namespace's `_sqlite_time`.
py::Ref sqlite_time(const Host& host, PyObject* epoch);

/// As `parse_time`, by way of the namespace's `_epoch`.
py::Ref epoch_of(const Host& host, PyObject* text);

}  // namespace health
