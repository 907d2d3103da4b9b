// The tracker's copy in the database: read once at construction, written by `flush`.
//
// The database is called without the lock, which is held only to read or change memory. `self` as in
// health/tracker/tracker.hpp. All run Python code and pass on what it raises; all may block.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"

namespace health {

// health_table.cpp: the table `tool_health`, one row per tool.

/// `_load`: seeds `_state` from the table.
void load(const Module& module, PyObject* self);
/// `_flush_health`: the number of rows written.
py::Ref flush_health(const Module& module, PyObject* self);

// usage_document.cpp: the usage counts, one JSON document in the table `schema_info`.

/// `_load_usage`: seeds `_usage` from the document.
void load_usage(const Module& module, PyObject* self);
/// `_flush_usage`: the number of entries written.
py::Ref flush_usage(const Module& module, PyObject* self);

// flush.cpp

/// Both, by way of the object's methods; the sum of what they return.
py::Ref flush(const Module& module, PyObject* self);

}  // namespace health
