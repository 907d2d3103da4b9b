// The table `tool_health`: the copy of the tools' states, one row per tool.
#include "health/host/database.hpp"
#include "health/host/registry.hpp"
#include "health/host/times.hpp"
#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/mirror/mirror.hpp"
#include "health/tracker/section.hpp"

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
Ref with_columns(const Module& module, const char* statement) {
    const Ref columns = py::formatted(module.get(Name::_TOOL_HEALTH_COLUMNS).get());
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

Ref read_rows(const Module& module, const TrackerView& tracker) {
    const Ref fetch = database_operation(module, tracker, Name::fetchall);
    return py::call(fetch.get(), with_columns(module, select_all).get());
}

/// Deletes the rows of the tools that the registry no longer has, in one batch.
void delete_removed(const Module& module, const TrackerView& tracker, PyObject* rows) {
    const Ref removed = Ref::steal(PyList_New(0));
    for_each_item(rows, [&](PyObject* row) {
        const Ref name = py::first_item(row);
        if (!has_tool(module, name.get())) {
            py::check(PyList_Append(removed.get(), py::make_tuple(name.get()).get()));
        }
    });
    if (PyList_GET_SIZE(removed.get()) > 0) {
        const Ref execute = database_operation(module, tracker, Name::executemany);
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

/// `_epoch(text) or 0.0`.
Ref stored_update_time(const Module& module, PyObject* text) {
    Ref seconds = epoch_of(module, text);
    return py::is_true(seconds.get()) ? std::move(seconds) : Ref::steal(PyFloat_FromDouble(0.0));
}

/// Seeds one tool's state from its row. The lock is held.
void seed_row(const Module& module, const TrackerView& tracker, PyObject* row) {
    const auto [name, calls, errors, error, disabled, updated] = py::unpack<6>(row);
    if (!has_tool(module, name.get())) {
        return;
    }
    const Ref call_count = stored_count(calls.get());
    const Ref error_count = stored_count(errors.get());
    const Ref disabled_at = epoch_of(module, disabled.get());
    const Ref updated_at = stored_update_time(module, updated.get());
    const Ref state =
        make_tool_state(module, call_count.get(), error_count.get(), error.get(), disabled_at.get(), updated_at.get());
    put(tracker.get(TrackerFields::state).get(), name.get(), state.get());
}

// Writing.

Ref make_row(const Module& module, PyObject* name, const ToolStateView& state) {
    const Ref calls = state.get(ToolStateFields::call_count);
    const Ref errors = state.get(ToolStateFields::error_count);
    const Ref error = state.get(ToolStateFields::last_error);
    const Ref disabled = sqlite_time(module, state.get(ToolStateFields::disabled_at).get());
    const Ref updated = sqlite_time(module, state.get(ToolStateFields::updated_at).get());
    return py::make_tuple(name, calls.get(), errors.get(), error.get(), disabled.get(), updated.get());
}

struct Snapshot {
    Ref names;  // of `take_dirty`
    py::RefVector<Ref> rows;
};

/// Takes the dirty names and copies the rows they stand for; when that fails, the names are back. The lock is held.
void take_snapshot(const Module& module, const TrackerView& tracker, Snapshot& snapshot) {
    snapshot.names = take_dirty(module, tracker);
    py::recovering(
        [&] {
            for_each_item(snapshot.names.get(), [&](PyObject* name) {
                const Ref states = tracker.get(TrackerFields::state);
                const Ref record = look_up<1>(module, states.get(), {name}, name);
                if (record) {
                    snapshot.rows.push_back(make_row(module, name, module.tool_state(record.get())));
                }
            });
        },
        [&] { put_back_dirty_locked(module, tracker, snapshot.names.get()); });
}

void write_rows(const Module& module, const TrackerView& tracker, const py::RefVector<Ref>& rows) {
    const Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(rows.size())));
    for (std::size_t place = 0; place < rows.size(); ++place) {
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(place), Py_NewRef(rows[place].get()));
    }
    const Ref execute = database_operation(module, tracker, Name::executemany);
    py::call(execute.get(), with_columns(module, upsert).get(), list.get());
}

}  // namespace

void load(const Module& module, PyObject* self) {
    const TrackerView tracker = module.tracker(self);
    Ref rows;
    const bool is_read = py::guarded(
        [&] {
            rows = read_rows(module, tracker);
            delete_removed(module, tracker, rows.get());
        },
        [&](PyObject* error) { log_failure(module, "Could not read the tool health history: %s", error); });
    if (is_read) {
        in_section(module, tracker, [&] {
            for_each_item(rows.get(), [&](PyObject* row) { seed_row(module, tracker, row); });
            return py::none();
        });
    }
}

Ref flush_health(const Module& module, PyObject* self) {
    const TrackerView tracker = module.tracker(self);
    Snapshot snapshot;
    in_section(module, tracker, [&] {
        take_snapshot(module, tracker, snapshot);
        return py::none();
    });
    Ref count = py::integer(0);
    if (snapshot.rows.size() > 0) {
        py::recovering(
            [&] {
                count = Ref::steal(PyLong_FromSize_t(snapshot.rows.size()));
                write_rows(module, tracker, snapshot.rows);
            },
            [&] { put_back_dirty(module, tracker, snapshot.names.get()); });
    }
    return count;
}

}  // namespace health
