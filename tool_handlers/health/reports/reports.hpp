// What the module reports to the daemon's status answers. All of it runs Python code and passes on what that raises.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

// performance.cpp. Takes no lock.

/// The timing collector's figures of every tool, in a fixed shape: `{"tools": [...]}`.
py::Ref performance_report(const Context& context);

// thread_census.cpp. Takes no lock.

/// The process's threads against `budget`. Takes a census itself, which may block, if `census` is None.
py::Ref thread_census_report(const Context& context, PyObject* budget, PyObject* census);

}  // namespace health
