// The usage document: the copy of the usage counts, one JSON text in the table `schema_info`.
#include "health/host/database.hpp"
#include "health/host/registry.hpp"
#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/mirror/document_reader.hpp"
#include "health/tracker/mirror/document_writer.hpp"
#include "health/tracker/mirror/mirror.hpp"
#include "health/tracker/section.hpp"

namespace health {

using py::Ref;

namespace {

using enum UsageFields::Field;

constexpr const char* select_document = "SELECT value FROM schema_info WHERE key = ?";
constexpr const char* replace_document = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)";

// Reading.

/// The stored text, or None where there is none.
Ref fetch_document(const Module& module, const TrackerView& tracker) {
    const Ref fetch = database_operation(module, tracker, Name::fetchone);
    const Ref key = py::make_tuple(module.get(Name::TOOL_USAGE_KEY).get());
    const Ref row = py::call(fetch.get(), py::text(select_document).get(), key.get());
    if (row.get() == Py_None) {
        return py::none();
    }
    Ref value = py::first_item(row.get());
    return PyUnicode_Check(value.get()) ? std::move(value) : py::none();
}

/// The entries of a loaded table whose tool and action the registry still has, in their order.
Ref keep_known(const Module& module, PyObject* loaded) {
    Ref kept = Ref::steal(PyDict_New());
    for (const MappingEntry& entry : list_entries(module, loaded)) {
        if (is_known(module, member_of(entry.key, key_tool), member_of(entry.key, key_action))) {
            py::check(PyDict_SetItem(kept.get(), entry.key.get(), entry.record.get()));
        }
    }
    return kept;
}

/// `mapping.update(table)`.
void update(const Module& module, PyObject* mapping, PyObject* table) {
    if (PyDict_CheckExact(mapping)) {
        py::check(PyDict_Update(mapping, table));
    } else {
        py::call_method(mapping, module[Name::update], table);
    }
}

// Writing.

/// The total as the document holds it, but for floats, which the writer rounds as it writes them.
Ref rounded_total(Ref total) {
    return PyFloat_CheckExact(total.get()) ? std::move(total) : py::round_by_runtime(total.get(), total_decimals);
}

DocumentEntry copy_entry(const Module& module, MappingEntry& entry) {
    const UsageView record = module.usage(entry.record.get());
    Ref key = key_tuple(Ref::borrow(entry.key.get()));
    Ref call_count = record.get(calls);
    Ref timed_count = record.get(timed_calls);
    Ref total = rounded_total(record.get(total_ms));
    return {std::move(key), std::move(call_count), std::move(timed_count), std::move(total)};
}

struct Snapshot {
    bool is_changed = false;           // without a change there is nothing to write, and no entry was copied
    py::RefVector<MappingEntry> live;  // dropped, as the next is, when the lock is free
    py::RefVector<DocumentEntry> entries;
    Ref was_dirty;
};

/// Copies the counts and clears `_usage_dirty`, the latter once nothing can fail any more; but not where it says that
/// everything is dirty, for the tools' health is, too. The lock is held.
void take_snapshot(const Module& module, const TrackerView& tracker, Snapshot& snapshot) {
    if (!py::is_true(tracker.get(TrackerFields::usage_dirty).get())) {
        return;
    }
    snapshot.live = list_entries(module, tracker.get(TrackerFields::usage).get());
    snapshot.entries.reserve(snapshot.live.size());
    for (MappingEntry& entry : snapshot.live) {
        snapshot.entries.push_back(copy_entry(module, entry));
    }
    if (!is_everything_dirty(tracker)) {
        snapshot.was_dirty = tracker.exchange(TrackerFields::usage_dirty, py::boolean(false));
    }
    snapshot.is_changed = true;
}

/// Marks the counts as changed again: under the lock, and without it where waiting for that is interrupted.
void put_back_usage_dirty(const Module& module, const TrackerView& tracker) {
    py::recovering(
        [&] {
            in_section(module, tracker, [&] {
                const Ref replaced = mark_usage_dirty(tracker);
                return py::none();
            });
        },
        [&] { const Ref replaced = mark_usage_dirty(tracker); });
}

void write_document(const Module& module, const TrackerView& tracker, const py::RefVector<DocumentEntry>& entries) {
    const Ref execute = database_operation(module, tracker, Name::execute);
    const Ref key = module.get(Name::TOOL_USAGE_KEY);
    const Ref document = DocumentWriter(module).write(entries);
    const Ref parameters = py::make_tuple(key.get(), document.get());
    py::call(execute.get(), py::text(replace_document).get(), parameters.get());
}

}  // namespace

void load_usage(const Module& module, PyObject* self) {
    const TrackerView tracker = module.tracker(self);
    Ref loaded;
    const bool is_read =
        py::guarded([&] { loaded = read_document(module, fetch_document(module, tracker).get()); },
                    [&](PyObject* error) { log_failure(module, "Could not read the tool usage counts: %s", error); });
    if (!is_read) {
        return;
    }
    const Ref kept = keep_known(module, loaded.get());
    in_section(module, tracker, [&] {
        update(module, tracker.get(TrackerFields::usage).get(), kept.get());
        const bool is_any_dropped = PyDict_GET_SIZE(kept.get()) < PyDict_GET_SIZE(loaded.get());
        tracker.set(TrackerFields::usage_dirty, py::boolean(is_any_dropped));
        return py::none();
    });
}

Ref flush_usage(const Module& module, PyObject* self) {
    const TrackerView tracker = module.tracker(self);
    Snapshot snapshot;
    in_section(module, tracker, [&] {
        take_snapshot(module, tracker, snapshot);
        return py::none();
    });
    Ref count = py::integer(0);
    if (snapshot.is_changed) {
        py::recovering(
            [&] {
                count = Ref::steal(PyLong_FromSize_t(snapshot.entries.size()));
                write_document(module, tracker, snapshot.entries);
            },
            [&] { put_back_usage_dirty(module, tracker); });
    }
    return count;
}

}  // namespace health
