// Recording outcomes, and the disable rule: a tool that fails too many calls in a row is disabled and is tried again
// after a cooldown.
#include "health/host/settings.hpp"
#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"
#include "health/tracker/consistency.hpp"
#include "health/tracker/marks.hpp"
#include "health/tracker/tracker.hpp"
#include "health/tracker/update.hpp"

namespace health {

using py::Ref;

namespace {

using StateUpdate = Update<ToolStateFields>;
using enum ToolStateFields::Field;

constexpr Py_ssize_t longest_error = 500;  // characters of an error's text that are kept

Ref zero() {
    return Ref::steal(PyLong_FromLong(0));
}

inline bool has_plain_counts(const ToolStateView& state) {
    for (const auto field : {call_count, error_count, consecutive_errors}) {
        PyObject* count = state.peek(field);
        if (count == nullptr || !PyLong_CheckExact(count)) {
            return false;
        }
    }
    return true;
}

/// The record of a tool if an outcome of it can be recorded in a quiet section, else nullptr: the tool is known and
/// marked, and neither its counts nor the clock can run Python code. Borrowed, and good until anything runs Python
/// code. The mark is asked for first, for that might do so itself.
inline PyObject* find_quietly(const Tracker& tracker, Host& host, PyObject* tool_name) {
    if (!PyUnicode_CheckExact(tool_name) || !is_marked(tracker, tool_name) ||
        !host.clock.is_quiet(host.names, host.globals)) {
        return nullptr;
    }
    PyObject* record = tracker.known_states.find(tracker.state, tool_name);
    return record != nullptr && has_plain_counts(host.tool_state(record)) ? record : nullptr;
}

/// Epoch seconds now. In a quiet section the clock was found to be the runtime's already.
inline Ref read_clock(Host& host, const py::LockGuard& guard) {
    return guard.only_looked() ? host.clock.read_quietly() : host.clock.read(host.names, host.globals);
}

/// Begins an update of the tool's record: of the one found before a quiet section (`known`), or, where that is nullptr,
/// of the one that is found or made now. The lock is held.
inline void begin(StateUpdate& update, Tracker& tracker, const Host& host, PyObject* tool_name, PyObject* known) {
    if (known != nullptr) {
        update.begin_quietly(known);
        return;
    }
    const Ref states = hold_state(tracker);
    tracker.known_states.notice_miss(states.get());
    PyObject* found = py::find(states.get(), tool_name);
    update.begin(found == nullptr ? make_tool_state(host) : Ref::borrow(found), found == nullptr);
}

/// Marks the tool, where it is not marked yet, and lets the update take effect. The mark comes first, for it is what
/// can fail.
inline void finish(StateUpdate& update, Tracker& tracker, const Host& host, PyObject* tool_name, bool was_marked) {
    if (!was_marked) {
        mark(tracker, tool_name);
    }
    update.apply(host.tool_state(update.record()));
    if (update.is_new()) {
        tracker.known_states.insert(hold_state(tracker).get(), tool_name, update.record());
    }
}

/// The text that is kept of an error: its first 500 characters, empty for an absent one.
Ref shorten(PyObject* error) {
    if (PyUnicode_CheckExact(error) && PyUnicode_GET_LENGTH(error) <= longest_error) {
        return Ref::borrow(error);
    }
    if (!py::is_true(error)) {
        return Ref::steal(PyUnicode_New(0, 0));
    }
    if (PyUnicode_Check(error)) {
        return Ref::steal(PyUnicode_Substring(error, 0, longest_error));
    }
    const Ref stop = Ref::steal(PyLong_FromSsize_t(longest_error));
    return py::get_item(error, Ref::steal(PySlice_New(nullptr, stop.get(), nullptr)).get());
}

/// The quiet section of `is_disabled`, for a tool that is known and enabled: by far the most questions end here.
/// False where it takes more to know the answer.
bool is_enabled_quietly(const Tracker& tracker, const Host& host, PyObject* tool_name) {
    PyObject* record = tracker.known_states.find(tracker.state, tool_name);
    return record != nullptr && host.tool_state(record).peek(disabled_at) == Py_None &&
           host.locks.is_free(require(tracker.lock, "_lock"));
}

/// Whether the cooldown of a tool disabled at `since` is over. May run Python code; the lock is held.
bool is_cooldown_over(Tracker& tracker, const Host& host, PyObject* now, PyObject* since) {
    const Ref elapsed = Ref::steal(PyNumber_Subtract(now, since));
    const Ref cooldown = py::get_attribute(tracker.object(), host.names[Name::cooldown_s]);
    return py::is_at_least(elapsed.get(), cooldown.get());
}

}  // namespace

void record_success(Tracker& tracker, Host& host, PyObject* tool_name) {
    StateUpdate update;
    PyObject* known = find_quietly(tracker, host, tool_name);
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"), known != nullptr);
    begin(update, tracker, host, tool_name, guard.only_looked() ? known : nullptr);
    const ToolStateView state = host.tool_state(update.record());
    update.set(call_count, state.count_up(call_count));
    update.set(consecutive_errors, zero());
    update.set(disabled_at, py::none());
    update.set(updated_at, read_clock(host, guard));
    finish(update, tracker, host, tool_name, guard.only_looked());
    assert_consistent(tracker);
}

void record_error(Tracker& tracker, Host& host, PyObject* tool_name, PyObject* error) {
    StateUpdate update;
    Ref threshold = disable_after_errors_quietly(host, require(tracker.limits, "_limits"));
    const bool is_plain_error = PyUnicode_CheckExact(error) || error == Py_None;
    PyObject* known = threshold && is_plain_error ? find_quietly(tracker, host, tool_name) : nullptr;
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"), known != nullptr);
    begin(update, tracker, host, tool_name, guard.only_looked() ? known : nullptr);
    const ToolStateView state = host.tool_state(update.record());
    update.set(call_count, state.count_up(call_count));
    update.set(error_count, state.count_up(error_count));
    PyObject* run = update.set(consecutive_errors, state.count_up(consecutive_errors));
    update.set(last_error, shorten(error));
    PyObject* now = update.set(updated_at, read_clock(host, guard));
    if (!guard.only_looked()) {
        threshold = disable_after_errors(host, limits(tracker).get());
    }
    if (py::is_at_least(run, threshold.get())) {
        update.set(disabled_at, Ref::borrow(now));
    }
    finish(update, tracker, host, tool_name, guard.only_looked());
    assert_consistent(tracker);
}

Ref is_disabled(Tracker& tracker, Host& host, PyObject* tool_name) {
    if (is_enabled_quietly(tracker, host, tool_name)) {
        return Ref::borrow(host.enabled_answer);
    }
    StateUpdate update;
    Ref now;  // like the update's values, it dies when the lock is free
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    const Ref states = hold_state(tracker);
    tracker.known_states.notice_miss(states.get());
    PyObject* found = py::find(states.get(), tool_name);
    if (found == nullptr) {
        return Ref::borrow(host.enabled_answer);
    }
    update.begin(Ref::borrow(found), false);
    const ToolStateView state = host.tool_state(found);
    const Ref since = state.get(disabled_at);
    if (since.get() == Py_None) {
        return Ref::borrow(host.enabled_answer);
    }
    now = host.clock.read(host.names, host.globals);
    if (!is_cooldown_over(tracker, host, now.get(), since.get())) {
        return py::make_tuple(Py_True, state.get(last_error).get());
    }
    update.set(consecutive_errors, zero());
    update.set(disabled_at, py::none());
    update.set(updated_at, Ref::borrow(now.get()));
    finish(update, tracker, host, tool_name, false);
    assert_consistent(tracker);
    return Ref::borrow(host.enabled_answer);
}

Ref cooldown_s(const Tracker& tracker, const Host& host) {
    return disable_cooldown_s(host, limits(tracker).get());
}

}  // namespace health
