// Recording outcomes, and the disable rule: a tool that fails too many calls in a row is disabled and is tried again
// after a cooldown.
#include <algorithm>

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
    PyObject** values = nullptr;  // of the tool's record, good until Python code may run; nullptr to take the lock
    ClockReading clock;           // serves either way
};

// Those marked `inline` are on the path of every call. (Measured: 4 % of record_success.)

/// The values of a plain tracker's fields if nobody holds its lock; else nullptr. Good until Python code may run.
inline PyObject** fields_if_free(const Module& module, const TrackerView& tracker) {
    PyObject** fields = module.state.tracker.layout.values_of(tracker.object());
    return fields != nullptr && module.state.locks.is_free(fields[TrackerFields::lock]) ? fields : nullptr;
}

/// The record of a tool, if it is known without running Python code; else nullptr. Borrowed.
inline PyObject* find_known(const Module& module, PyObject** fields, PyObject* tool_name) {
    return PyUnicode_CheckExact(tool_name) ? module.state.lookups.find<1>(fields[TrackerFields::state], {tool_name})
                                           : nullptr;
}

/// Whether there is a value in every field of a record, and its counts are plain ints. `values` may be nullptr.
inline bool are_plain(PyObject** values) {
    const auto is_there = [](PyObject* value) { return value != nullptr; };
    return values != nullptr && std::all_of(values, values + ToolStateFields::names.size(), is_there) &&
           PyLong_CheckExact(values[call_count]) && PyLong_CheckExact(values[error_count]) &&
           PyLong_CheckExact(values[consecutive_errors]);
}

/// The tool must be known, and dirty already. The clock is read while the lock is free, and everything else afterwards:
/// what the clock does is its own matter.
inline Prepared prepare(const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    Prepared prepared;
    if (fields_if_free(module, tracker) == nullptr) {
        return prepared;
    }
    prepared.clock = module.state.clock.read_natively(module.state.names, module.globals);
    PyObject** fields = fields_if_free(module, tracker);
    PyObject* record = fields == nullptr ? nullptr : find_known(module, fields, tool_name);
    PyObject** values = record == nullptr ? nullptr : module.state.tool_state.layout.values_of(record);
    if (prepared.clock.now && are_plain(values) && py::is_seen_in(fields[TrackerFields::dirty], tool_name)) {
        prepared.values = values;
    }
    return prepared;
}

/// Epoch seconds now, read once.
Ref now_of(const Module& module, ClockReading& clock) {
    if (clock.error) {
        py::rethrow(std::move(clock.error));
    }
    return clock.now ? std::move(clock.now) : Clock::read(module.state.names, module.globals);
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

/// The values of the plain record of a tool that is known, if nobody holds the lock; else nullptr.
inline PyObject** find_values(const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    PyObject** fields = fields_if_free(module, tracker);
    PyObject* record = fields == nullptr ? nullptr : find_known(module, fields, tool_name);
    return record == nullptr ? nullptr : module.state.tool_state.layout.values_of(record);
}

/// Whether `seconds` are less than a plain number; false where that takes more than comparing doubles.
bool is_less(double seconds, PyObject* number) {
    if (py::is_compact(number)) {
        return seconds < static_cast<double>(py::compact_value(number));
    }
    return PyFloat_CheckExact(number) && seconds < PyFloat_AS_DOUBLE(number);
}

/// `(True, error)`: the tuple of the last answer, where it is the same, since an agent asks again and again.
Ref disabled_answer(const Module& module, PyObject* error) {
    Ref& last = module.state.disabled_answer;
    if (last && PyTuple_GET_ITEM(last.get(), 1) == error) {
        return Ref::borrow(last.get());
    }
    Ref answer = py::make_tuple(Py_True, error);
    if (PyUnicode_CheckExact(error)) {  // which refers to nothing
        last = Ref::borrow(answer.get());
    }
    return answer;
}

/// Whether the answer about a tool with these values, which may be nullptr, takes comparing plain times only: it is
/// disabled, and the class still has its own `cooldown_s`.
inline bool is_plainly_disabled(const Module& module, PyObject** values) {
    return values != nullptr && values[disabled_at] != nullptr && PyFloat_CheckExact(values[disabled_at]) &&
           values[last_error] != nullptr && module.has_own_cooldown(cooldown_def);
}

/// The answer in an elided section, about a tool that is enabled or whose cooldown runs; empty where it takes more.
Ref answer_elided(const Module& module, const TrackerView& tracker, PyObject* tool_name, ClockReading& clock) {
    PyObject** values = find_values(module, tracker, tool_name);
    if (values != nullptr && values[disabled_at] == Py_None) {
        return Ref::borrow(module.state.enabled_answer.get());
    }
    if (!is_plainly_disabled(module, values)) {
        return {};
    }
    clock = module.state.clock.read_natively(module.state.names, module.globals);
    const Ref cooldown = plain_setting(tracker.get_borrowed(TrackerFields::limits), module.state.disable_cooldown_s,
                                       module[Name::disable_cooldown_s]);
    values = find_values(module, tracker, tool_name);  // again: the clock and the settings may have run Python code
    if (!cooldown || !clock.now || !PyFloat_CheckExact(clock.now.get()) || !is_plainly_disabled(module, values)) {
        return {};
    }
    const double elapsed = PyFloat_AS_DOUBLE(clock.now.get()) - PyFloat_AS_DOUBLE(values[disabled_at]);
    return is_less(elapsed, cooldown.get()) ? disabled_answer(module, values[last_error]) : Ref();
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
    return in_section(module, tracker, prepared.values != nullptr, [&](auto is_elided) {
        is_elided ? edit.begin_elided(prepared.values) : begin(edit, module, tracker, tool_name);
        edit.apply([&] {
            edit.increment(call_count);
            edit.set(consecutive_errors, py::integer(0));
            edit.set(disabled_at, py::none());
            edit.set(updated_at, now_of(module, prepared.clock));
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
    Ref threshold = plain_setting(tracker.get_borrowed(TrackerFields::limits), module.state.disable_after_errors,
                                  module[Name::disable_after_errors]);
    Prepared prepared = prepare(module, tracker, tool_name);
    const bool is_plain_error = PyUnicode_CheckExact(error) || error == Py_None;
    return in_section(module, tracker, prepared.values != nullptr && threshold && is_plain_error, [&](auto is_elided) {
        is_elided ? edit.begin_elided(prepared.values) : begin(edit, module, tracker, tool_name);
        edit.apply([&] {
            edit.increment(call_count);
            edit.increment(error_count);
            edit.increment(consecutive_errors);
            edit.set(last_error, shorten(error));
            edit.set(updated_at, now_of(module, prepared.clock));
            const auto run = edit.get(consecutive_errors);
            if (!is_elided) {
                threshold = disable_after_errors(module, tracker.get(TrackerFields::limits).get());
            }
            if (py::is_at_least(run.get(), threshold.get())) {
                edit.set(disabled_at, Ref::borrow(edit.get(updated_at).get()));
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
    ClockReading clock;
    Ref answer = answer_elided(module, tracker, tool_name, clock);
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
        clock.now = now_of(module, clock);  // dies, as what is replaced does, when the lock is free
        PyObject* now = clock.now.get();
        if (!is_cooldown_over(module, self, now, edit.get(disabled_at).get())) {
            return disabled_answer(module, edit.get(last_error).get());
        }
        edit.apply([&] {
            edit.set(consecutive_errors, py::integer(0));
            edit.set(disabled_at, py::none());
            edit.set(updated_at, Ref::borrow(now));
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
