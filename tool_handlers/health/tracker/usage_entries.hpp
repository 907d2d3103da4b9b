// The usage counts as the flush and the summary walk over them.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"
#include "health/python/memory.hpp"

namespace health {

/// A usage key and its record.
struct UsageEntry {
    py::Ref key;
    py::Ref record;
};

/// Every entry of `_usage`, or of a dictionary like it, in its order. Runs no Python code, so it is one state of the
/// dictionary whatever happens to that later.
py::Vector<UsageEntry> list_entries(PyObject* usage);

/// The members of a usage key.
struct UsageKey {
    py::Ref tool;
    py::Ref action;
    py::Ref outcome;
    py::Ref alias_hit;
};

/// Takes a key apart. Runs Python code only if it is not a tuple; throws what an unpacking raises.
UsageKey take_apart(PyObject* key);

}  // namespace health
