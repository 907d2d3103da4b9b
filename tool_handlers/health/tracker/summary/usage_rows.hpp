// The usage rows of a tool, as the health summary shows them: most calls first.
#pragma once

#include <Python.h>

#include <span>

#include "health/module/context.hpp"
#include "health/python/memory.hpp"
#include "health/records/records.hpp"

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
    PyObject* record;  // of an entry whose numbers are not plain, borrowed; else nullptr, and the last three hold them
    py::Ref kept;      // the key, or a tuple of the key and the record
    long calls = 0;
    bool is_timed = false;
    double average_ms = 0.0;
};

using UsageLines = py::RefVector<UsageLine>;

/// Reads an entry of `_usage`; `key` is of `key_tuple`. Runs no Python code; throws a MemoryError.
UsageLine read_line(const Context& context, py::Ref key, PyObject* record);

/// A dictionary with these keys in their order, and False under each. A copy of it, filled in, costs less than a
/// dictionary that grows key by key. Runs no Python code; throws a MemoryError.
py::Ref make_template(const Context& context, std::span<const Name> keys);
/// The same for usage rows.
py::Ref make_row_template(const Context& context);

/// The rows of one tool in their order: a new list. Asks `is_slow_call` for each. Runs Python code, and throws what it
/// raises.
py::Ref make_rows(const Context& context, PyObject* tool_name, const UsageLines& lines, PyObject* row_template);

/// The tuples that `key_of(place)` makes of so many places, in the runtime's order, which may run Python code and
/// raise: a new list that is hidden.
template <class KeyOf>
py::Ref sorted_keys(std::size_t count, KeyOf&& key_of) {
    py::Ref keys = py::hidden(PyList_New(0));
    for (std::size_t place = 0; place < count; ++place) {
        py::check(PyList_Append(keys.get(), key_of(place).get()));
    }
    py::check(PyList_Sort(keys.get()));
    return keys;
}

}  // namespace health
