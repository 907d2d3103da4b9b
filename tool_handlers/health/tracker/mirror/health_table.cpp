// The table `tool_health`: the copy of the tools' states, one row per tool.
#include "health/host/database.hpp"
#include "health/host/registry.hpp"
#include "health/host/times.hpp"
#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"
#include "health/records/records.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/mirror/mirror.hpp"

namespace health {

using py::Ref;

namespace {

// Both with the columns in the place of %U.
constexpr const char* select_all = "SELECT %U FROM tool_health";
constexpr const char* upsert = R"(INSERT INTO tool_health (%U)
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at)";
constexpr const char* delete_one = "DELETE FROM tool_health WHERE tool_name = ?";

/// A statement with the columns as the namespace has them.
Ref with_columns(const Context& context, const char* statement) {
    const Ref columns = py::formatted(context.get(Name::_TOOL_HEALTH_COLUMNS).get());
    return Ref::steal(PyUnicode_FromFormat(statement, columns.get()));
}

/// `for item in iterable: visit(item)`.
template <class Visit>
void for_each_item(PyObject* iterable, Visit&& visit) {
    const Ref iterator = Ref::steal(PyObject_GetIter(iterable));
    while (const Ref item = py::next_item(iterator.get())) {
        visit(item.get());
    }
}

// Reading.

Ref read_rows(const Context& context, const TrackerView& tracker) {
    const Ref fetch = database_operation(context, tracker.get(TrackerFields::repo).get(), Name::fetchall);
    return py::call(fetch.get(), with_columns(context, select_all).get());
}

/// Deletes the rows of the tools that the registry no longer has, in one batch.
void delete_removed(const Context& context, const TrackerView& tracker, PyObject* rows) {
    const Ref removed = Ref::steal(PyList_New(0));
    for_each_item(rows, [&](PyObject* row) {
        const Ref name = py::first_item(row);
        if (!has_tool(context, name.get())) {
            py::check(PyList_Append(removed.get(), py::make_tuple(name.get()).get()));
        }
    });
    if (PyList_GET_SIZE(removed.get()) > 0) {
        const Ref execute = database_operation(context, tracker.get(TrackerFields::repo).get(), Name::executemany);
        py::call(execute.get(), py::text(delete_one).get(), removed.get());
    }
}

/// `int(count or 0)`.
Ref stored_count(PyObject* count) {
    if (PyLong_CheckExact(count)) {
        return Ref::borrow(count);
    }
    return py::is_true(count) ? Ref::steal(PyNumber_Long(count)) : py::integer(0);
}

/// Seeds one tool's state from its row. The lock is held.
void seed_row(const Context& context, const TrackerView& tracker, PyObject* row) {
    const auto [name, calls, errors, error, disabled, updated] = py::unpack<6>(row);
    if (!has_tool(context, name.get())) {
        return;
    }
    const Ref call_count = stored_count(calls.get());
    const Ref error_count = stored_count(errors.get());
    const Ref disabled_at = epoch_of(context, disabled.get());
    Ref updated_at = epoch_of(context, updated.get());
    if (!py::is_true(updated_at.get())) {
        updated_at = Ref::steal(PyFloat_FromDouble(0.0));
    }
    const Ref state =
        make_tool_state(context, call_count.get(), error_count.get(), error.get(), disabled_at.get(), updated_at.get());
    py::set_item(tracker.get(TrackerFields::state).get(), name.get(), state.get());
}

// Writing.

Ref make_row(const Context& context, PyObject* name, const ToolStateView& state) {
    const Ref calls = state.get(ToolStateFields::call_count);
    const Ref errors = state.get(ToolStateFields::error_count);
    const Ref error = state.get(ToolStateFields::last_error);
    const Ref disabled = sqlite_time(context, state.get(ToolStateFields::disabled_at).get());
    const Ref updated = sqlite_time(context, state.get(ToolStateFields::updated_at).get());
    return py::make_tuple(name, calls.get(), errors.get(), error.get(), disabled.get(), updated.get());
}

struct HealthSnapshot {
    Ref names;  // of `take_dirty`
    Ref rows = py::hidden(PyList_New(0));
};

/// Takes the dirty names and copies the rows they stand for; when that fails, the names are back. The lock is held.
void take_snapshot(const Context& context, const TrackerView& tracker, HealthSnapshot& snapshot) {
    snapshot.names = take_dirty(context, tracker);
    py::recovering(
        [&] {
            for_each_item(snapshot.names.get(), [&](PyObject* name) {
                const Ref states = tracker.get(TrackerFields::state);
                const Ref record = look_up<1>(context, states.get(), {name}, name);
                if (record) {
                    const Ref row = make_row(context, name, view_tool_state(context, record.get()));
                    py::check(PyList_Append(snapshot.rows.get(), row.get()));
                }
            });
        },
        [&] { put_back_dirty_locked(context, tracker, snapshot.names.get()); });
}

void write_rows(const Context& context, const TrackerView& tracker, PyObject* rows) {
    PyObject_GC_Track(rows);
    const Ref execute = database_operation(context, tracker.get(TrackerFields::repo).get(), Name::executemany);
    py::call(execute.get(), with_columns(context, upsert).get(), rows);
}

}  // namespace

void load(const Context& context, PyObject* self) {
    const TrackerView tracker = view_tracker(context, self);
    Ref rows;
    const bool is_read = py::guarded(
        [&] {
            rows = read_rows(context, tracker);
            delete_removed(context, tracker, rows.get());
        },
        [&](PyObject* error) { log_failure(context, "Could not read the tool health history: %s", error); });
    if (is_read) {
        in_section(context, tracker, [&] {
            for_each_item(rows.get(), [&](PyObject* row) { seed_row(context, tracker, row); });
            return py::none();
        });
    }
}

Ref flush_health(const Context& context, PyObject* self) {
    const TrackerView tracker = view_tracker(context, self);
    HealthSnapshot snapshot;
    in_section(context, tracker, [&] {
        take_snapshot(context, tracker, snapshot);
        return py::none();
    });
    if (PyList_GET_SIZE(snapshot.rows.get()) > 0) {
        py::recovering([&] { write_rows(context, tracker, snapshot.rows.get()); },
                       [&] { put_back_dirty(context, tracker, snapshot.names.get()); });
    }
    return py::integer(PyList_GET_SIZE(snapshot.rows.get()));
}

}  // namespace health
