// `ToolHealthTracker`: its memory and its operations.
//
// On re-entrancy. These may run Python code, and so let other threads in: keys that are not plain, a settings object
// with properties, a replaced clock, records or fields that a host put in place of ours, the last reference to any
// value. An operation reads nothing before such a step that it relies on after it, works its changes out in full
// before it puts any in place (where a host put a record of its own, that may still fail half-way), and drops what it
// replaced last, when the lock is free again (see update.hpp). Which sections hold the lock, and which only look at it,
// is told in health/python/lock.hpp.
//
// Every operation throws `py::PythonError`. An AttributeError or a TypeError comes out where a field is missing or
// was set to something unfit.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"
#include "health/python/ref.hpp"
#include "health/tracker/recall.hpp"

namespace health {

struct Tracker {
    PyObject ob_base;
    // The fields that Python code sees; NULL before `__init__` and after a deletion.
    PyObject* repo;         // `_repo`
    PyObject* limits;       // `_limits`
    PyObject* lock;         // `_lock`: guards the four below
    PyObject* state;        // `_state`: dict, tool name to `_ToolState`
    PyObject* dirty;        // `_dirty`: set of the names of tools changed since they were written
    PyObject* usage;        // `_usage`: dict, usage key to `_Usage`
    PyObject* usage_dirty;  // `_usage_dirty`: whether the usage counts changed since they were written
    /// Names whose mark could not be put back into `_dirty` after a failed write: a chain of `[names, next]`, or NULL.
    PyObject* owed;
    StateRecall known_states;
    UsageRecall known_usage;

    static Tracker& of(PyObject* object) { return *reinterpret_cast<Tracker*>(object); }
    PyObject* object() { return &ob_base; }
};

/// The tracker type, without its methods. New reference.
py::Ref make_tracker_type(PyObject* module);

// Access to the fields, as they are now. Hold what Python code could replace while it is in use.

/// A field that must be there. Borrowed.
PyObject* require(PyObject* field, const char* name);
/// `_state`, which must be exactly a dict.
py::Ref hold_state(const Tracker& tracker);
/// `_usage`, likewise.
py::Ref hold_usage(const Tracker& tracker);
/// `_dirty`, which must be exactly a set.
py::Ref hold_dirty(const Tracker& tracker);

// Construction (construction.cpp).

/// Sets the seven fields, then has `_load` and `_load_usage` seed them. May block; `limits` may be None.
void initialise(Tracker& tracker, const Host& host, PyObject* repository, PyObject* limits);
/// The settings object. Takes no lock.
py::Ref limits(const Tracker& tracker);

// Outcomes and the disable rule (outcomes.cpp). Each enters the lock's section once.

void record_success(Tracker& tracker, Host& host, PyObject* tool_name);
void record_error(Tracker& tracker, Host& host, PyObject* tool_name, PyObject* error);
/// `(disabled, last error)`; re-enables a tool whose cooldown is over.
py::Ref is_disabled(Tracker& tracker, Host& host, PyObject* tool_name);
/// Seconds, as the settings have them. Takes no lock.
py::Ref cooldown_s(const Tracker& tracker, const Host& host);

// Usage counts (usage.cpp). Enters the lock's section once.

void record_call(Tracker& tracker, Host& host, PyObject* tool_name, PyObject* action, PyObject* outcome,
                 PyObject* alias_hit, PyObject* duration_ms);

// The mirror (history_table.cpp, usage_document.cpp, flush.cpp). Each but the last may block: the database is called
// without the lock, which is held only to read or change memory.

void load(Tracker& tracker, const Host& host);
void load_usage(Tracker& tracker, const Host& host);
/// The number of rows written.
py::Ref flush_health(Tracker& tracker, const Host& host);
/// The number of entries written.
py::Ref flush_usage(Tracker& tracker, const Host& host);
/// Both, by way of the object's methods; the sum of what they return.
py::Ref flush(Tracker& tracker, const Host& host);
py::Ref has_unsaved_changes(Tracker& tracker, const Host& host);

// The summary (summary.cpp).

/// The keys of a health record and of a usage row, in their order.
inline constexpr std::array health_record_keys{Name::tool_name, Name::call_count,  Name::error_count, Name::last_error,
                                               Name::disabled,  Name::disabled_at, Name::updated_at,  Name::usage};
inline constexpr std::array usage_row_keys{Name::action, Name::outcome, Name::alias_hit,
                                           Name::calls,  Name::avg_ms,  Name::slow};

/// One record per tool, the worst first. Holds the lock for its whole run.
py::Ref health_summary(Tracker& tracker, const Host& host);
/// A tool's usage rows, most calls first. The caller holds the lock.
py::Ref usage_rows(Tracker& tracker, const Host& host, PyObject* tool_name);

}  // namespace health
