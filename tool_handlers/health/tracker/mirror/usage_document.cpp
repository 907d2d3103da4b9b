// The usage document: the copy of the usage counts, one JSON text in the table `schema_info`.
#include "health/host/database.hpp"
#include "health/host/registry.hpp"
#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"
#include "health/records/records.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/mirror/document.hpp"
#include "health/tracker/mirror/mirror.hpp"

namespace health {

using py::Ref;

namespace {

using enum UsageFields::Field;

constexpr const char* select_document = "SELECT value FROM schema_info WHERE key = ?";
constexpr const char* replace_document = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)";

// Reading.

/// The stored text, or None where there is none.
Ref fetch_document(const Context& context, const TrackerView& tracker) {
    const Ref fetch = database_operation(context, tracker.get(TrackerFields::repo).get(), Name::fetchone);
    const Ref key = py::make_tuple(context.get(Name::TOOL_USAGE_KEY).get());
    const Ref row = py::call(fetch.get(), py::text(select_document).get(), key.get());
    if (row.get() == Py_None) {
        return py::none();
    }
    Ref value = py::first_item(row.get());
    return PyUnicode_Check(value.get()) ? std::move(value) : py::none();
}

/// The entries of a loaded table whose tool and action the registry still has, in their order.
Ref keep_known(const Context& context, PyObject* loaded) {
    Ref kept = Ref::steal(PyDict_New());
    for (const MappingEntry& entry : list_entries(context, loaded)) {
        if (is_known(context, member_of(entry.key, key_tool), member_of(entry.key, key_action))) {
            py::check(PyDict_SetItem(kept.get(), entry.key.get(), entry.record.get()));
        }
    }
    return kept;
}

// Writing.

DocumentEntry copy_entry(const Context& context, MappingEntry& entry) {
    const UsageView record = view_usage(context, entry.record.get());
    Ref key = key_tuple(Ref::borrow(entry.key.get()));
    Ref call_count = record.get(calls);
    Ref timed_count = record.get(timed_calls);
    Ref total = record.get(total_ms);
    const bool is_rounded = !PyFloat_CheckExact(total.get());
    if (is_rounded) {
        total = py::round_by_runtime(total.get(), total_decimals);
    }
    return {std::move(key), std::move(call_count), std::move(timed_count), std::move(total), is_rounded};
}

struct UsageSnapshot {
    bool is_changed = false;           // without a change there is nothing to write, and no entry was copied
    py::RefVector<MappingEntry> live;  // dropped, as the next is, when the lock is free
    py::RefVector<DocumentEntry> entries;
    Ref replaced_mark;
};

/// Copies the counts and clears `_usage_dirty`, the latter once nothing can fail any more. The lock is held.
void take_snapshot(const Context& context, const TrackerView& tracker, UsageSnapshot& snapshot) {
    if (!py::is_true(tracker.get(TrackerFields::usage_dirty).get())) {
        return;
    }
    snapshot.live = list_entries(context, tracker.get(TrackerFields::usage).get());
    snapshot.entries.reserve(snapshot.live.size());
    for (MappingEntry& entry : snapshot.live) {
        snapshot.entries.push_back(copy_entry(context, entry));
    }
    snapshot.replaced_mark = set_usage_dirty(tracker, false);
    snapshot.is_changed = true;
}

/// Marks the counts as changed again: under the lock, and without it where waiting for that is interrupted.
void put_back_usage_dirty(const Context& context, const TrackerView& tracker) {
    const auto mark = [&] {
        const Ref replaced = set_usage_dirty(tracker, true);
        return py::none();
    };
    py::recovering([&] { in_section(context, tracker, mark); }, mark);
}

void store_document(const Context& context, const TrackerView& tracker, const py::RefVector<DocumentEntry>& entries) {
    const Ref execute = database_operation(context, tracker.get(TrackerFields::repo).get(), Name::execute);
    const Ref key = context.get(Name::TOOL_USAGE_KEY);
    const Ref document = write_document(context, entries);
    const Ref parameters = py::make_tuple(key.get(), document.get());
    py::call(execute.get(), py::text(replace_document).get(), parameters.get());
}

}  // namespace

void load_usage(const Context& context, PyObject* self) {
    const TrackerView tracker = view_tracker(context, self);
    Ref loaded;
    const bool is_read =
        py::guarded([&] { loaded = read_document(context, fetch_document(context, tracker).get()); },
                    [&](PyObject* error) { log_failure(context, "Could not read the tool usage counts: %s", error); });
    if (!is_read) {
        return;
    }
    const Ref kept = keep_known(context, loaded.get());
    in_section(context, tracker, [&] {
        py::call_method(tracker.get(TrackerFields::usage).get(), context[Name::update], kept.get());
        const bool is_any_dropped = PyDict_GET_SIZE(kept.get()) < PyDict_GET_SIZE(loaded.get());
        tracker.set(TrackerFields::usage_dirty, py::boolean(is_any_dropped));
        return py::none();
    });
}

Ref flush_usage(const Context& context, PyObject* self) {
    const TrackerView tracker = view_tracker(context, self);
    UsageSnapshot snapshot;
    in_section(context, tracker, [&] {
        take_snapshot(context, tracker, snapshot);
        return py::none();
    });
    if (snapshot.is_changed) {
        py::recovering([&] { store_document(context, tracker, snapshot.entries); },
                       [&] { put_back_usage_dirty(context, tracker); });
    }
    return py::integer(static_cast<long>(snapshot.entries.size()));
}

}  // namespace health
