// Counting calls by usage key: tool, action, outcome and whether a synonym was used.
#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"
#include "health/tracker/consistency.hpp"
#include "health/tracker/tracker.hpp"
#include "health/tracker/update.hpp"

namespace health {

using py::Ref;

namespace {

using UsageUpdate = Update<UsageFields>;
using enum UsageFields::Field;

/// Whether adding `amount` (or nothing, for None) to a plain total runs no Python code.
bool is_plain_sum(PyObject* total, PyObject* amount) {
    return total != nullptr && py::is_plain_number(total) && (amount == Py_None || py::is_plain_number(amount));
}

/// The record of a usage key if a call can be counted under it in a quiet section, else nullptr. Borrowed, and good
/// until anything runs Python code.
PyObject* find_quietly(const Tracker& tracker, const Host& host, const UsageRecall::Key& key, PyObject* duration_ms) {
    PyObject* record = tracker.known_usage.find(tracker.usage, key);
    if (record == nullptr) {
        return nullptr;
    }
    const UsageView usage = host.usage(record);
    const bool is_plain = is_plain_sum(usage.peek(calls), Py_None) && is_plain_sum(usage.peek(timed_calls), Py_None) &&
                          is_plain_sum(usage.peek(total_ms), duration_ms);
    return is_plain ? record : nullptr;
}

/// Begins an update of the key's record, or of a new one. The lock is held.
void begin(UsageUpdate& update, Tracker& tracker, const Host& host, PyObject* key) {
    const Ref usage = hold_usage(tracker);
    tracker.known_usage.notice_miss(usage.get(), host.records.usage.get());
    PyObject* found = py::find(usage.get(), key);
    update.begin(found == nullptr ? make_usage(host) : Ref::borrow(found), found == nullptr);
}

}  // namespace

void record_call(Tracker& tracker, Host& host, PyObject* tool_name, PyObject* action, PyObject* outcome,
                 PyObject* alias_hit, PyObject* duration_ms) {
    UsageUpdate update;
    Ref key;  // made only where the key is not known
    PyObject* known = find_quietly(tracker, host, {tool_name, action, outcome, alias_hit}, duration_ms);
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"), known != nullptr);
    if (guard.only_looked()) {
        update.begin_quietly(known);
    } else {
        key = py::make_tuple(tool_name, action, outcome, alias_hit);
        begin(update, tracker, host, key.get());
    }
    const UsageView usage = host.usage(update.record());
    update.set(calls, usage.count_up(calls));
    if (duration_ms != Py_None) {
        update.set(timed_calls, usage.count_up(timed_calls));
        update.set(total_ms, py::add(usage.get(total_ms).get(), duration_ms));
    }
    update.apply(usage);
    if (update.is_new()) {
        tracker.known_usage.insert(hold_usage(tracker).get(), key.get(), update.record());
    }
    if (tracker.usage_dirty != Py_True) {
        update.bury(Ref::steal_optional(std::exchange(tracker.usage_dirty, Py_NewRef(Py_True))));
    }
    assert_consistent(tracker);
}

}  // namespace health
