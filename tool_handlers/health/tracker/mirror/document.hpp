// The text of the usage document: a compact JSON array, one object for each usage key.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"
#include "health/python/memory.hpp"

namespace health {

/// The decimals of a total in milliseconds.
inline constexpr int total_decimals = 3;

/// One entry of the document: a usage key with its counts, as they were under the lock.
struct DocumentEntry {
    py::Ref key;  // of `key_tuple`
    py::Ref calls;
    py::Ref timed_calls;
    py::Ref total_ms;
    bool is_rounded;  // a float is not: the writer does that
};

/// The document of these entries, as a str; all of it by `json.dumps` if anything in that was replaced. Runs Python
/// code for values that are not plain; throws what that raises.
py::Ref write_document(const Context& context, const py::RefVector<DocumentEntry>& entries);

/// The table that a stored text holds, or None for an empty one: a new dict, usage key to record, in the document's
/// order. Runs Python code. Throws what `json.loads` raises, and what an element of the wrong shape does.
py::Ref read_document(const Context& context, PyObject* text);

}  // namespace health
