// Reading the usage document: from its text to usage keys and records.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"

namespace health {

/// The table that a stored text holds, or None for an empty one: a new dict, usage key to record, in the document's
/// order. Runs Python code. Throws what `json.loads` raises, and what an element of the wrong shape does.
py::Ref read_document(const Module& module, PyObject* text);

}  // namespace health
