// The two reports that need no tracker. Neither takes a lock; both run Python code and pass on what it raises.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"

namespace health {

/// The timing collector's figures of every tool, in a fixed shape: `{"tools": [...]}`.
py::Ref performance_report(const Host& host);

/// The process's threads against `budget`. Takes a census itself, which may block, if `census` is None.
py::Ref thread_census_report(const Host& host, PyObject* budget, PyObject* census);

}  // namespace health
