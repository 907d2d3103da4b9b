// Counting calls by usage key: tool, action, outcome and whether a synonym was used.
#include "health/python/numbers.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/edit.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/section.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

namespace {

using enum UsageFields::Field;
using UsageKey = py::LookupCache::Key<4>;

/// Whether adding `amount` (or nothing, for None) to a plain total runs no Python code.
bool is_plain_sum(PyObject* total, PyObject* amount) {
    return total != nullptr && py::is_plain_number(total) && (amount == Py_None || py::is_plain_number(amount));
}

/// What a call is counted with in an elided section. Good until Python code may run.
struct Prepared {
    PyObject** counts = nullptr;  // the values of the key's record; nullptr where the lock is to be taken
    bool is_marked = false;       // whether the counts are known to have changed
};

/// The lock must be free, the key known, and its counts plain.
Prepared prepare(const Module& module, const TrackerView& tracker, const UsageKey& key, PyObject* duration_ms) {
    PyObject** fields = module.state.tracker.layout.values_of(tracker.object());
    if (fields == nullptr || fields[TrackerFields::usage_dirty] == nullptr ||
        !module.state.locks.is_free(fields[TrackerFields::lock])) {
        return {};
    }
    PyObject* record = module.state.lookups.find(fields[TrackerFields::usage], key);
    PyObject** counts = record == nullptr ? nullptr : module.state.usage.layout.values_of(record);
    const bool is_plain = counts != nullptr && is_plain_sum(counts[calls], Py_None) &&
                          is_plain_sum(counts[timed_calls], Py_None) && is_plain_sum(counts[total_ms], duration_ms);
    return {.counts = is_plain ? counts : nullptr, .is_marked = fields[TrackerFields::usage_dirty] == Py_True};
}

/// Begins an edit of the key's record, or of a new one. The lock is held.
void begin(Edit<UsageFields>& edit, const Module& module, const TrackerView& tracker, const UsageKey& parts,
           PyObject* key) {
    if (Ref found = look_up(module, tracker.get(TrackerFields::usage).get(), parts, key)) {
        edit.begin(std::move(found));
        return;
    }
    Ref record = make_usage(module);
    Ref mapping = tracker.get(TrackerFields::usage);
    put(mapping.get(), key, record.get());
    edit.begin_added(std::move(record), std::move(mapping), key);
}

}  // namespace

Ref record_call(const Module& module, PyObject* self, PyObject* tool_name, PyObject* action, PyObject* outcome,
                PyObject* alias_hit, PyObject* duration_ms) {
    const TrackerView tracker = module.tracker(self);
    const UsageKey parts{tool_name, action, outcome, alias_hit};
    Ref key;  // made only where the record is not known
    Edit<UsageFields> edit(module.state.usage);
    const Prepared prepared = prepare(module, tracker, parts, duration_ms);
    return in_section(module, tracker, prepared.counts != nullptr, [&](auto is_elided) {
        if (is_elided) {
            edit.begin_elided(prepared.counts);
        } else {
            key = py::make_tuple(tool_name, action, outcome, alias_hit);
            begin(edit, module, tracker, parts, key.get());
        }
        edit.apply([&] {
            edit.increment(calls);
            if (duration_ms != Py_None) {
                edit.increment(timed_calls);
                edit.set(total_ms, py::add(edit.get(total_ms).get(), duration_ms));
            }
            if (!is_elided || !prepared.is_marked) {
                edit.retire(mark_usage_dirty(tracker));
            }
        });
        return py::none();
    });
}

}  // namespace health
