// Recording outcomes, and the disable rule: a tool that fails too many calls in a row is disabled and is tried again
// after a cooldown.
#include <algorithm>
#include <span>

#include "health/host/settings.hpp"
#include "health/python/numbers.hpp"
#include "health/python/set.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/edit.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/section.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

namespace {

using enum ToolStateFields::Field;
using StateEdit = Edit<ToolStateFields>;

constexpr Py_ssize_t longest_error = 500;  // characters of an error's text that are kept

/// What an outcome is recorded with in an elided section.
struct Prepared {
    PyObject* record = nullptr;  // borrowed, and good until Python code may run; nullptr where the lock is to be taken
    Ref now;                     // epoch seconds if the clock was read already, which serves either way
};

/// The record of a tool, if it is known without running Python code. Borrowed.
PyObject* find_known(const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    PyObject* states = tracker.get_borrowed(TrackerFields::state);
    return PyUnicode_CheckExact(tool_name) ? module.state.lookups.find<1>(states, {tool_name}) : nullptr;
}

/// Whether every field of a record has a value, and its counts are plain ints.
bool has_plain_counts(const Module& module, PyObject* record) {
    PyObject** values = module.state.tool_state.layout.values_of(record);
    if (values == nullptr) {
        return false;
    }
    const auto is_there = [](PyObject* value) { return value != nullptr; };
    return std::ranges::all_of(std::span(values, ToolStateFields::names.size()), is_there) &&
           PyLong_CheckExact(values[call_count]) && PyLong_CheckExact(values[error_count]) &&
           PyLong_CheckExact(values[consecutive_errors]);
}

/// The clock is read first, while the lock is free: what it does is its own matter, and the rest is read afterwards. The
/// tool must be known, and dirty already.
Prepared prepare(const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    Prepared prepared;
    if (!is_lock_free(module, tracker)) {
        return prepared;
    }
    prepared.now = module.state.clock.read_natively(module.state.names, module.globals);
    PyObject* record = find_known(module, tracker, tool_name);
    if (prepared.now && record != nullptr && has_plain_counts(module, record) &&
        py::is_seen_in(tracker.get_borrowed(TrackerFields::dirty), tool_name)) {
        prepared.record = record;
    }
    return prepared;
}

/// Epoch seconds now.
Ref now_of(const Module& module, Prepared& prepared) {
    return prepared.now ? std::move(prepared.now) : Clock::read(module.state.names, module.globals);
}

/// Begins an edit of the tool's record, or of a new one. The lock is held.
void begin(StateEdit& edit, const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    if (Ref found = look_up<1>(module, tracker.get(TrackerFields::state).get(), {tool_name}, tool_name)) {
        edit.begin(std::move(found));
        return;
    }
    Ref record = make_tool_state(module);
    Ref mapping = tracker.get(TrackerFields::state);
    put(mapping.get(), tool_name, record.get());
    edit.begin_added(std::move(record), std::move(mapping), tool_name);
}

/// The text that is kept of an error: its first 500 characters, empty for an absent one.
Ref shorten(PyObject* error) {
    if (PyUnicode_CheckExact(error) && PyUnicode_GET_LENGTH(error) <= longest_error) {
        return Ref::borrow(error);
    }
    if (!py::is_true(error)) {
        return Ref::steal(PyUnicode_New(0, 0));
    }
    if (PyUnicode_CheckExact(error)) {
        return Ref::steal(PyUnicode_Substring(error, 0, longest_error));
    }
    const Ref stop = py::integer(longest_error);
    return py::get_item(error, Ref::steal(PySlice_New(nullptr, stop.get(), nullptr)).get());
}

/// The answer about a tool that is known and enabled, by far the most frequent one; empty where it takes more.
Ref answer_enabled(const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    PyObject* record = find_known(module, tracker, tool_name);
    const bool is_enabled = record != nullptr && module.tool_state(record).get_borrowed(disabled_at) == Py_None &&
                            is_lock_free(module, tracker);
    return is_enabled ? Ref::borrow(module.state.enabled_answer.get()) : Ref();
}

/// The answer about a tool that is known and disabled, in an elided section, where the class still has its `cooldown_s`
/// and all numbers are plain. Empty where it takes more, or the cooldown is over. Reads the clock into `now`.
Ref answer_disabled(const Module& module, const TrackerView& tracker, PyObject* tool_name, Ref& now) {
    PyObject* record = find_known(module, tracker, tool_name);
    if (record == nullptr || !module.state.tracker.layout.is_pristine() || !is_lock_free(module, tracker)) {
        return {};
    }
    now = module.state.clock.read_natively(module.state.names, module.globals);
    record = find_known(module, tracker, tool_name);
    const Ref cooldown =
        plain_setting(module, tracker.get_borrowed(TrackerFields::limits), Name::disable_cooldown_s);
    if (!now || !PyFloat_CheckExact(now.get()) || !cooldown || record == nullptr || !is_lock_free(module, tracker) ||
        !module.state.tracker.layout.is_pristine()) {
        return {};
    }
    PyObject* since = module.tool_state(record).get_borrowed(disabled_at);
    PyObject* error = module.tool_state(record).get_borrowed(last_error);
    if (since == nullptr || !PyFloat_CheckExact(since) || error == nullptr) {
        return {};
    }
    const Ref elapsed = Ref::steal(PyFloat_FromDouble(PyFloat_AS_DOUBLE(now.get()) - PyFloat_AS_DOUBLE(since)));
    return py::is_at_least(elapsed.get(), cooldown.get()) ? Ref() : py::make_tuple(Py_True, error);
}

/// Whether the cooldown of a tool disabled at `since` is over. The lock is held.
bool is_cooldown_over(const Module& module, PyObject* self, PyObject* now, PyObject* since) {
    const Ref elapsed = Ref::steal(PyNumber_Subtract(now, since));
    const Ref cooldown = py::get_attribute(self, module[Name::cooldown_s]);
    return py::is_at_least(elapsed.get(), cooldown.get());
}

}  // namespace

Ref record_success(const Module& module, PyObject* self, PyObject* tool_name) {
    const TrackerView tracker = module.tracker(self);
    StateEdit edit(module.state.tool_state);
    Prepared prepared = prepare(module, tracker, tool_name);
    return in_section(module, tracker, prepared.record != nullptr, [&](bool is_elided) {
        is_elided ? edit.begin_elided(prepared.record) : begin(edit, module, tracker, tool_name);
        edit.apply([&] {
            edit.increment(call_count);
            edit.set(consecutive_errors, py::integer(0));
            edit.set(disabled_at, py::none());
            edit.set(updated_at, now_of(module, prepared));
            if (!is_elided) {
                mark_dirty(module, tracker, tool_name);
            }
        });
        return py::none();
    });
}

Ref record_error(const Module& module, PyObject* self, PyObject* tool_name, PyObject* error) {
    const TrackerView tracker = module.tracker(self);
    StateEdit edit(module.state.tool_state);
    Prepared prepared = prepare(module, tracker, tool_name);
    PyObject* limits = tracker.get_borrowed(TrackerFields::limits);
    const bool is_plain_error = PyUnicode_CheckExact(error) || error == Py_None;
    Ref threshold = prepared.record != nullptr ? plain_setting(module, limits, Name::disable_after_errors) : Ref();
    return in_section(module, tracker, threshold && is_plain_error, [&](bool is_elided) {
        is_elided ? edit.begin_elided(prepared.record) : begin(edit, module, tracker, tool_name);
        edit.apply([&] {
            edit.increment(call_count);
            edit.increment(error_count);
            edit.increment(consecutive_errors);
            edit.set(last_error, shorten(error));
            edit.set(updated_at, now_of(module, prepared));
            const Ref run = edit.get(consecutive_errors);
            if (!is_elided) {
                threshold = disable_after_errors(module, tracker.get(TrackerFields::limits).get());
            }
            if (py::is_at_least(run.get(), threshold.get())) {
                edit.set(disabled_at, edit.get(updated_at));
            }
            if (!is_elided) {
                mark_dirty(module, tracker, tool_name);
            }
        });
        return py::none();
    });
}

Ref is_disabled(const Module& module, PyObject* self, PyObject* tool_name) {
    const TrackerView tracker = module.tracker(self);
    Ref answer = answer_enabled(module, tracker, tool_name);
    if (answer) {
        return answer;
    }
    Prepared prepared;
    answer = answer_disabled(module, tracker, tool_name, prepared.now);
    if (answer) {
        return answer;
    }
    StateEdit edit(module.state.tool_state);
    return in_section(module, tracker, [&] {
        Ref record = look_up<1>(module, tracker.get(TrackerFields::state).get(), {tool_name}, tool_name);
        if (!record) {
            return Ref::borrow(module.state.enabled_answer.get());
        }
        edit.begin(std::move(record));
        if (edit.get(disabled_at).get() == Py_None) {
            return Ref::borrow(module.state.enabled_answer.get());
        }
        const Ref now = now_of(module, prepared);
        if (!is_cooldown_over(module, self, now.get(), edit.get(disabled_at).get())) {
            return py::make_tuple(Py_True, edit.get(last_error).get());
        }
        edit.apply([&] {
            edit.set(consecutive_errors, py::integer(0));
            edit.set(disabled_at, py::none());
            edit.set(updated_at, Ref::borrow(now.get()));
            mark_dirty(module, tracker, tool_name);
        });
        return Ref::borrow(module.state.enabled_answer.get());
    });
}

Ref cooldown_s(const Module& module, PyObject* self) {
    return disable_cooldown_s(module, module.tracker(self).get(TrackerFields::limits).get());
}

Ref has_unsaved_changes(const Module& module, PyObject* self) {
    const TrackerView tracker = module.tracker(self);
    return in_section(module, tracker, [&] {
        return is_any_dirty(tracker) ? py::boolean(true) : tracker.get(TrackerFields::usage_dirty);
    });
}

}  // namespace health
