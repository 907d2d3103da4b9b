// The tracker's copy in the database: read once at construction, written by `flush`.
//
// The database is called without the lock, which is held only to read or change memory. `self` as in
// health/tracker/tracker.hpp. All run Python code and pass on what it raises; all may block.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

// health_table.cpp: the table `tool_health`, one row per tool.

/// `_load`: seeds `_state` from the table.
void load(const Context& context, PyObject* self);
/// `_flush_health`: the number of rows written.
py::Ref flush_health(const Context& context, PyObject* self);

// usage_document.cpp: the usage counts, one JSON document in the table `schema_info`.

/// `_load_usage`: seeds `_usage` from the document.
void load_usage(const Context& context, PyObject* self);
/// `_flush_usage`: the number of entries written.
py::Ref flush_usage(const Context& context, PyObject* self);

// changes.cpp

/// `logger.warning(format, error)` where a read failed; `format` has one `%s`.
void log_failure(const Context& context, const char* format, PyObject* error);

/// Whether a flush has anything to write. Enters the lock's section once; does not wait for the database.
py::Ref has_unsaved_changes(const Context& context, PyObject* self);

}  // namespace health
