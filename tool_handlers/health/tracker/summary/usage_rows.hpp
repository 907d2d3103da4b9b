// The usage rows of a tool, as the health summary shows them: most calls first.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"
#include "health/python/ref_vector.hpp"

namespace health {

/// What a usage row shows of its entry.
///
/// Lines are unboxed for memory locality. The entries of a tool lie anywhere, but its lines side by side, and so do the
/// rows made of them. Plain numbers are read with the entry, and become objects again in their row: so no object far
/// away is touched for it twice. Other numbers are read when their row is made.
struct UsageLine {
    PyObject* action;  // borrowed from the key, as are the next two
    PyObject* outcome;
    PyObject* alias_hit;
    py::Ref key;     // of `key_tuple`
    py::Ref record;  // of an entry whose numbers are not plain; else empty, and these hold:
    long calls = 0;
    bool is_timed = false;
    double average_ms = 0.0;
};

using UsageLines = py::RefVector<UsageLine>;

/// Reads an entry of `_usage`; `key` is of `key_tuple`. Runs no Python code.
UsageLine read_line(const Module& module, py::Ref key, py::Ref record);

/// The rows of one tool in their order: a new list. Asks `is_slow_call` for each.
py::Ref make_rows(const Module& module, PyObject* tool_name, const UsageLines& lines);

/// Reads a number that a native key can hold; false for any other, and for nullptr.
bool read_plain(PyObject* number, long& value);

/// `mapping[name] = value`, in a dictionary that is being made.
inline void put(const Module& module, PyObject* mapping, Name name, PyObject* value) {
    py::check(PyDict_SetItem(mapping, module[name], value));
}

}  // namespace health
