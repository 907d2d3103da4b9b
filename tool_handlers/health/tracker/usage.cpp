// Counting calls by usage key: tool, action, outcome and whether a synonym was used.
#include "health/records/records.hpp"
#include "health/tracker/change.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

namespace {

using enum UsageFields::Field;

/// Counts one call. `duration_ms` may be None.
template <class Change>
void count(Change& usage, PyObject* duration_ms) {
    usage.increment(calls);
    if (duration_ms != Py_None) {
        usage.increment(timed_calls);
        usage.set(total_ms, py::add(usage.get(total_ms).get(), duration_ms));
    }
}

/// The values of a direct record, if they and the duration are plain and adding them up can fail for lack of memory
/// only; else nullptr. Good until Python code may run; runs none itself.
PyObject** plain_values(const Context& context, PyObject* record, PyObject* duration_ms) {
    PyObject** values = context.state.usage.values_of(record);
    const bool is_plain = values != nullptr && py::is_a(values[calls], PyLong_Type) &&
                          py::is_a(values[timed_calls], PyLong_Type) && py::is_a(values[total_ms], PyFloat_Type) &&
                          (PyFloat_CheckExact(duration_ms) || duration_ms == Py_None || py::is_compact(duration_ms));
    return is_plain ? values : nullptr;
}

/// Counts one call in a direct record with these plain values, all of it or nothing.
void count_at_once(PyObject** values, PyObject* duration_ms) {
    PlainChange<UsageFields> change(values);
    count(change, duration_ms);
    change.commit();
}

/// Counts a call in an elided section. False, with nothing done, where it takes a section with the lock.
bool count_elided(const Context& context, const TrackerView& tracker, const KeyParts& key, PyObject* duration_ms) {
    PyObject** fields = begin_elided(context, tracker);
    PyObject* mark = fields == nullptr ? nullptr : fields[TrackerFields::usage_dirty];
    if (mark == nullptr || !py::is_plain(mark)) {
        return false;
    }
    PyObject* record = context.state.lookups.find(fields[TrackerFields::usage], key);
    PyObject** values = record == nullptr ? nullptr : plain_values(context, record, duration_ms);
    if (values == nullptr) {
        return false;
    }
    count_at_once(values, duration_ms);
    if (mark != Py_True) {
        const Ref replaced = set_usage_dirty(tracker, true);
    }
    end_elided(context, tracker, fields);
    return true;
}

/// Counts a call, in a new record if the key has none. The lock is held.
void count_locked(StepwiseChange<UsageFields>& change, const Context& context, const TrackerView& tracker,
                  const KeyParts& parts, PyObject* key, PyObject* duration_ms) {
    Ref found = look_up(context, tracker.get(TrackerFields::usage).get(), parts, key);
    const bool is_new = !found;
    change.begin(is_new ? make_usage(context) : std::move(found));
    const Ref counts = is_new ? tracker.get(TrackerFields::usage) : Ref();
    const bool is_seen_early = is_new && !PyDict_CheckExact(counts.get());  // by the code of another mapping
    PyObject** values = is_seen_early ? nullptr : plain_values(context, change.record(), duration_ms);
    if (values != nullptr) {
        count_at_once(values, duration_ms);
    }
    if (is_new) {
        py::set_item(counts.get(), key, change.record());
    }
    if (values == nullptr) {
        count(change, duration_ms);
    }
}

}  // namespace

Ref record_call(const Context& context, PyObject* self, PyObject* tool_name, PyObject* action, PyObject* outcome,
                PyObject* alias_hit, PyObject* duration_ms) {
    const TrackerView tracker = view_tracker(context, self);
    const KeyParts parts{tool_name, action, outcome, alias_hit};
    if (count_elided(context, tracker, parts, duration_ms)) {
        return py::none();
    }
    const Ref key = py::make_tuple(tool_name, action, outcome, alias_hit);
    StepwiseChange<UsageFields> change(context.state.usage);
    Ref replaced_mark;
    return in_section(context, tracker, [&] {
        count_locked(change, context, tracker, parts, key.get(), duration_ms);
        replaced_mark = set_usage_dirty(tracker, true);
        return py::none();
    });
}

}  // namespace health
