// What one import of the module works with: its interned names, its record types, its namespace, and what it
// keeps of the runtime. One `Host` per module object; every operation is given it.
//
// Names that belong to the daemon (`TOOLS`, `is_slow_call`, ...) and the module's own helpers are read from the
// namespace at each use, so that whoever replaces one of them is heard.
#pragma once

#include <Python.h>

#include <cstdint>

#include "health/host/clock.hpp"
#include "health/python/lock.hpp"
#include "health/python/object.hpp"
#include "health/records/names.hpp"
#include "health/records/record.hpp"

namespace health {

/// Functions as they were when the module was imported: while nobody has replaced one, a native way serves in its
/// place.
struct OwnFunctions {
    PyObject* json_dumps;
    PyObject* json_loads;
    PyObject* sqlite_time;
    PyObject* epoch;
    PyObject* known;
    PyObject* usage_rows;
};

struct Host {
    Names names{};
    RecordTypes records{};
    py::LockMethods locks;
    Clock clock;
    OwnFunctions own{};
    /// The module's namespace.
    PyObject* globals = nullptr;
    /// `(False, None)`, the answer for a tool that may be called.
    PyObject* enabled_answer = nullptr;
    /// Dictionaries with the keys of a health record and of a usage row in their order: a copy of one, filled in, costs
    /// less than a new dictionary.
    PyObject* empty_record = nullptr;
    PyObject* empty_row = nullptr;

    /// The value of a name in the module's namespace, as it is now. Runs no Python code; throws a NameError.
    [[nodiscard]] py::Ref get(Name name) const;
    /// Whether `name` still leads to the module's own function, so that calling it natively is the same.
    [[nodiscard]] bool is_own(Name name, PyObject* function) const;

    [[nodiscard]] ToolStateView tool_state(PyObject* object) const { return {names, records.tool_state, object}; }
    [[nodiscard]] UsageView usage(PyObject* object) const { return {names, records.usage, object}; }

    /// As `LockMethods::for_each`: the one list of what the module's state holds.
    template <class Visit>
    int for_each(Visit&& visit) {
        const auto visit_own = [&] {
            return py::visit_all(visit, own.json_dumps, own.json_loads, own.sqlite_time, own.epoch, own.known,
                                 own.usage_rows, globals, enabled_answer, empty_record, empty_row);
        };
        const auto visit_parts = [&](auto&... parts) {
            int answer = 0;
            static_cast<void>((((answer = parts.for_each(visit)) == 0) && ...));
            return answer;
        };
        const int answer = visit_own();
        return answer != 0 ? answer : visit_parts(names, records.tool_state, records.usage, locks, clock);
    }
};

/// Writes a warning to the module's logger: `format` has one `%s`, which takes `error`. Runs Python code, may block.
void warn(const Host& host, const char* format, PyObject* error);

/// `_ToolState()`, of the type that the namespace holds. Runs Python code only if that type was replaced.
py::Ref make_tool_state(const Host& host);

/// A seeded `_ToolState`: all fields but `consecutive_errors`, by name. As above.
py::Ref make_tool_state(const Host& host, PyObject* call_count, PyObject* error_count, PyObject* last_error,
                        PyObject* disabled_at, PyObject* updated_at);

/// `_Usage()`. As above.
py::Ref make_usage(const Host& host);

/// `_Usage(calls, timed_calls, total_ms)`. As above.
py::Ref make_usage(const Host& host, PyObject* calls, PyObject* timed_calls, PyObject* total_ms);

/// The host's `is_slow_call`, for many questions in a row: it is looked up again once the namespace has changed.
class SlowCalls {
public:
    explicit SlowCalls(const Host& host) : host_(host) {}

    /// `is_slow_call(tool, action)`, the host's answer as it stands. Runs Python code.
    py::Ref ask(PyObject* tool, PyObject* action);

private:
    const Host& host_;
    std::uint64_t version_ = 0;  // of the namespace in which the function was found
    py::Ref function_;
};

}  // namespace health
