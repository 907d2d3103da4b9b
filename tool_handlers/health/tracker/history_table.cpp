// The table `tool_health`: the mirror of the tools' states, one row per tool.
#include "health/host/database.hpp"
#include "health/host/registry.hpp"
#include "health/host/times.hpp"
#include "health/python/dict.hpp"
#include "health/python/recover.hpp"
#include "health/records/constants.hpp"
#include "health/tracker/consistency.hpp"
#include "health/tracker/marks.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

namespace {

constexpr const char* select_all = "SELECT " HEALTH_TOOL_HEALTH_COLUMNS " FROM tool_health";
constexpr const char* delete_one = "DELETE FROM tool_health WHERE tool_name = ?";
constexpr const char* upsert = "INSERT INTO tool_health (" HEALTH_TOOL_HEALTH_COLUMNS
                               ")\n"
                               "                    VALUES (?, ?, ?, ?, ?, ?)\n"
                               "                    ON CONFLICT(tool_name) DO UPDATE SET\n"
                               "                        call_count = excluded.call_count,\n"
                               "                        error_count = excluded.error_count,\n"
                               "                        last_error = excluded.last_error,\n"
                               "                        disabled_at = excluded.disabled_at,\n"
                               "                        updated_at = excluded.updated_at";

// Reading.

/// Calls `visit` with each row of a list, which may change meanwhile.
template <class Visit>
void for_each_row(PyObject* rows, Visit&& visit) {
    for (Py_ssize_t index = 0; index < PyList_GET_SIZE(rows); ++index) {
        const Ref row = Ref::borrow(PyList_GET_ITEM(rows, index));
        visit(row.get());
    }
}

/// Deletes the rows of the tools that the registry no longer has, in one batch.
void delete_removed(const Database& database, const Host& host, PyObject* rows) {
    const Ref removed = Ref::steal(PyList_New(0));
    for_each_row(rows, [&](PyObject* row) {
        const Ref name = py::first_item(row);
        if (!has_tool(host, name.get())) {
            py::check(PyList_Append(removed.get(), py::make_tuple(name.get()).get()));
        }
    });
    if (PyList_GET_SIZE(removed.get()) > 0) {
        database.execute_many(delete_one, removed.get());
    }
}

/// `int(count or 0)`.
Ref stored_count(PyObject* count) {
    if (PyLong_CheckExact(count)) {
        return Ref::borrow(count);
    }
    return py::is_true(count) ? Ref::steal(PyNumber_Long(count)) : Ref::steal(PyLong_FromLong(0));
}

/// `_epoch(text) or 0.0`.
Ref stored_update_time(const Host& host, PyObject* text) {
    Ref seconds = epoch_of(host, text);
    return py::is_true(seconds.get()) ? std::move(seconds) : Ref::steal(PyFloat_FromDouble(0.0));
}

/// Seeds one tool's state from its row. The lock is held.
void seed_row(const Tracker& tracker, const Host& host, PyObject* row) {
    const auto [name, calls, errors, error, disabled, updated] = py::unpack<6>(row);
    if (!has_tool(host, name.get())) {
        return;
    }
    const Ref call_count = stored_count(calls.get());
    const Ref error_count = stored_count(errors.get());
    const Ref disabled_at = epoch_of(host, disabled.get());
    const Ref updated_at = stored_update_time(host, updated.get());
    const Ref state =
        make_tool_state(host, call_count.get(), error_count.get(), error.get(), disabled_at.get(), updated_at.get());
    py::check(PyDict_SetItem(hold_state(tracker).get(), name.get(), state.get()));
}

// Writing.

struct Snapshot {
    Ref marked;  // of `take_marks`
    Ref rows;
};

Ref make_row(const Host& host, PyObject* name, const ToolStateView& state) {
    const Ref calls = state.get(ToolStateFields::call_count);
    const Ref errors = state.get(ToolStateFields::error_count);
    const Ref error = state.get(ToolStateFields::last_error);
    const Ref disabled = sqlite_time(host, state.get(ToolStateFields::disabled_at).get());
    const Ref updated = sqlite_time(host, state.get(ToolStateFields::updated_at).get());
    return py::make_tuple(name, calls.get(), errors.get(), error.get(), disabled.get(), updated.get());
}

/// The rows of the marked tools that have a state, in the order of their names. The lock is held.
Ref make_rows(const Tracker& tracker, const Host& host, PyObject* names) {
    Ref rows = Ref::steal(PyList_New(0));
    for_each_row(names, [&](PyObject* name) {
        const Ref states = hold_state(tracker);
        const Ref record = Ref::borrow_optional(py::find(states.get(), name));
        if (record) {
            py::check(PyList_Append(rows.get(), make_row(host, name, host.tool_state(record.get())).get()));
        }
    });
    return rows;
}

/// Takes the marks and copies the rows they stand for; when that fails, the marks are back.
Snapshot take_snapshot(Tracker& tracker, const Host& host) {
    Snapshot snapshot;
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    snapshot.marked = take_marks(tracker);
    snapshot.rows = py::recovering([&] { return make_rows(tracker, host, PyList_GET_ITEM(snapshot.marked.get(), 0)); },
                                   [&] { put_back_locked(tracker, std::move(snapshot.marked)); });
    return snapshot;
}

}  // namespace

void load(Tracker& tracker, const Host& host) {
    Ref rows;
    const auto read = [&] {
        const Database database(host, require(tracker.repo, "_repo"));
        rows = Ref::steal(PySequence_List(database.fetch_all(select_all).get()));
        delete_removed(database, host, rows.get());
    };
    const auto complain = [&](PyObject* error) { warn(host, "Could not read the tool health history: %s", error); };
    if (!py::guarded(read, complain)) {
        return;
    }
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    for_each_row(rows.get(), [&](PyObject* row) { seed_row(tracker, host, row); });
    tracker.known_states.learn(hold_state(tracker).get());
    assert_consistent(tracker);
}

Ref flush_health(Tracker& tracker, const Host& host) {
    Snapshot snapshot = take_snapshot(tracker, host);
    if (PyList_GET_SIZE(snapshot.rows.get()) == 0) {
        return Ref::steal(PyLong_FromLong(0));
    }
    return py::recovering(
        [&] {
            Ref count = Ref::steal(PyLong_FromSsize_t(PyList_GET_SIZE(snapshot.rows.get())));
            const Database database(host, require(tracker.repo, "_repo"));
            database.execute_many(upsert, snapshot.rows.get());
            return count;
        },
        [&] { put_back(tracker, host, std::move(snapshot.marked)); });
}

}  // namespace health
