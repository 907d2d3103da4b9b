// The usage document: the mirror of the usage counts, one JSON text in the table `schema_info`.
#include "health/host/database.hpp"
#include "health/host/registry.hpp"
#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"
#include "health/records/constants.hpp"
#include "health/tracker/consistency.hpp"
#include "health/tracker/document_reader.hpp"
#include "health/tracker/document_writer.hpp"
#include "health/tracker/tracker.hpp"
#include "health/tracker/usage_entries.hpp"

namespace health {

using py::Ref;

namespace {

using enum UsageFields::Field;

constexpr const char* select_document = "SELECT value FROM schema_info WHERE key = ?";
constexpr const char* replace_document = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)";

// Reading.

/// The stored text, or None where there is none.
Ref fetch_document(const Database& database) {
    const Ref row = database.fetch_one(select_document, py::make_tuple(py::text(tool_usage_key).get()).get());
    if (row.get() == Py_None) {
        return py::none();
    }
    Ref value = py::first_item(row.get());
    return PyUnicode_Check(value.get()) ? std::move(value) : py::none();
}

/// The entries of a loaded table whose tool and action the registry still has, in their order: the table itself where
/// that is all of them.
Ref keep_known(const Host& host, Ref loaded) {
    const py::RefVector<UsageEntry> entries = list_entries(loaded.get());
    py::Vector<std::size_t> kept;
    kept.reserve(entries.size());
    for (const UsageEntry& entry : entries) {
        if (is_known(host, member_of(entry.key, key_tool), member_of(entry.key, key_action))) {
            kept.push_back(static_cast<std::size_t>(&entry - entries.data()));
        }
    }
    if (kept.size() == entries.size()) {
        return loaded;
    }
    Ref table = Ref::steal(PyDict_New());
    for (const std::size_t place : kept) {
        py::check(PyDict_SetItem(table.get(), entries[place].key.get(), entries[place].record.get()));
    }
    return table;
}

// Writing.

/// The total as the document holds it, but for floats, which the writer rounds as it writes them.
Ref rounded_total(Ref total) {
    return PyFloat_CheckExact(total.get()) ? std::move(total) : py::round_by_runtime(total.get(), total_decimals);
}

struct Snapshot {
    bool is_changed = false;  // without a change there is nothing to write, and no entry was copied
    py::RefVector<DocumentEntry> entries;
};

/// Copies the counts and clears their mark, the latter once nothing can fail any more.
Snapshot take_snapshot(Tracker& tracker, const Host& host) {
    Ref old_mark;  // dropped, like the entries, when the lock is free
    py::RefVector<UsageEntry> entries;
    Snapshot snapshot;
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    snapshot.is_changed = py::is_true(Ref::borrow(require(tracker.usage_dirty, "_usage_dirty")).get());
    if (!snapshot.is_changed) {
        return snapshot;
    }
    entries = list_entries(hold_usage(tracker).get());
    snapshot.entries.reserve(entries.size());
    for (const UsageEntry& entry : entries) {
        const UsageView usage = host.usage(entry.record.get());
        Ref key = key_tuple(Ref::borrow(entry.key.get()));
        Ref call_count = usage.get(calls);
        Ref timed_count = usage.get(timed_calls);
        Ref total = rounded_total(usage.get(total_ms));
        snapshot.entries.push_back({std::move(key), std::move(call_count), std::move(timed_count), std::move(total)});
    }
    old_mark = Ref::steal_optional(std::exchange(tracker.usage_dirty, Py_NewRef(Py_False)));
    return snapshot;
}

void set_mark(Tracker& tracker) {
    const Ref old_mark = Ref::steal_optional(std::exchange(tracker.usage_dirty, Py_NewRef(Py_True)));
}

/// Marks the counts as changed again: under the lock, and before that in case waiting for it is interrupted.
void put_mark_back(Tracker& tracker, const Host& host) {
    set_mark(tracker);
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    set_mark(tracker);
}

}  // namespace

void load_usage(Tracker& tracker, const Host& host) {
    Ref loaded;
    const auto read = [&] {
        const Database database(host, require(tracker.repo, "_repo"));
        loaded = read_document(host, fetch_document(database).get());
    };
    const auto complain = [&](PyObject* error) { warn(host, "Could not read the tool usage counts: %s", error); };
    if (!py::guarded(read, complain)) {
        return;
    }
    const Py_ssize_t loaded_count = PyDict_GET_SIZE(loaded.get());
    const Ref kept = keep_known(host, std::move(loaded));
    Ref mark = py::boolean(PyDict_GET_SIZE(kept.get()) < loaded_count);
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    const Ref usage = hold_usage(tracker);
    py::check(PyDict_Update(usage.get(), kept.get()));
    mark.swap_with(tracker.usage_dirty);
    tracker.known_usage.learn(usage.get(), host.records.usage.get());
    assert_consistent(tracker);
}

Ref flush_usage(Tracker& tracker, const Host& host) {
    const Snapshot snapshot = take_snapshot(tracker, host);
    if (!snapshot.is_changed) {
        return Ref::steal(PyLong_FromLong(0));
    }
    return py::recovering(
        [&] {
            Ref count = Ref::steal(PyLong_FromSize_t(snapshot.entries.size()));
            const Ref document = DocumentWriter(host).write(snapshot.entries);
            const Database database(host, require(tracker.repo, "_repo"));
            database.execute(replace_document, py::make_tuple(py::text(tool_usage_key).get(), document.get()).get());
            return count;
        },
        [&] { put_mark_back(tracker, host); });
}

}  // namespace health
