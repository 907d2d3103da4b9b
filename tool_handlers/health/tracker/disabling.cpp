// Asking whether a tool is disabled. One whose cooldown is over is enabled by that.
#include "health/host/clock.hpp"
#include "health/host/settings.hpp"
#include "health/records/records.hpp"
#include "health/tracker/change.hpp"
#include "health/tracker/dirty.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

namespace {

using enum ToolStateFields::Field;

/// Whether `seconds` are less than a plain number; false where that takes more than comparing doubles.
bool is_less(double seconds, PyObject* number) {
    if (py::is_compact(number)) {
        return seconds < static_cast<double>(py::compact_value(number));
    }
    return PyFloat_CheckExact(number) && seconds < PyFloat_AS_DOUBLE(number);
}

/// `(True, error)`: the tuple of the last answer, where it is the same, since an agent asks again and again.
Ref disabled_answer(const Context& context, PyObject* error) {
    Ref& last = context.state.disabled_answer;
    if (last && PyTuple_GET_ITEM(last.get(), 1) == error) {
        return Ref::borrow(last.get());
    }
    Ref answer = py::make_tuple(Py_True, error);
    if (PyUnicode_CheckExact(error)) {  // which refers to nothing
        last = Ref::borrow(answer.get());
    }
    return answer;
}

/// Whether the class of a direct tracker still has the `cooldown_s` that reads the setting. Runs no Python code.
bool has_own_cooldown(const Context& context, PyObject* self) {
    auto& [version, cooldown] = context.state.cooldown;
    if (version != py::version_of(Py_TYPE(self)) || (cooldown != nullptr && py::is_dying(cooldown))) {
        cooldown = py::find_in_class(Py_TYPE(self), context[Name::cooldown_s]);
        version = py::version_of(Py_TYPE(self));
    }
    return context.state.originals.cooldown_getter.is(py::getter_of(cooldown));
}

/// The values of a tool's direct record, if it is known and a section may be elided; else nullptr. Good until Python
/// code may run; runs none itself.
PyObject** known_values(const Context& context, const TrackerView& tracker, PyObject* tool_name) {
    PyObject* record = find_known_tool(context, begin_elided(context, tracker), tool_name);
    return record == nullptr ? nullptr : context.state.tool_state.values_of(record);
}

/// The answer in an elided section, about a tool that is enabled or whose cooldown runs; empty where it takes a section
/// with the lock.
Ref answer_elided(const Context& context, const TrackerView& tracker, PyObject* self, PyObject* tool_name) {
    PyObject** values = known_values(context, tracker, tool_name);
    if (values == nullptr) {
        return {};
    }
    if (values[disabled_at] == Py_None) {
        return Ref::borrow(context.state.enabled_answer.get());
    }
    const Ref cooldown = plain_disable_cooldown_s(context, tracker.direct()[TrackerFields::limits]);
    PyObject* clock = context.find(Name::time);
    values = known_values(context, tracker, tool_name);  // again, after these (see `CachedAttribute::get`)
    if (!cooldown || values == nullptr || values[disabled_at] == nullptr || !PyFloat_CheckExact(values[disabled_at]) ||
        values[last_error] == nullptr || !has_own_cooldown(context, self)) {
        return {};
    }
    const Ref now = read_original_clock(context, clock);
    const bool is_running =
        now && is_less(PyFloat_AS_DOUBLE(now.get()) - PyFloat_AS_DOUBLE(values[disabled_at]), cooldown.get());
    return is_running ? disabled_answer(context, values[last_error]) : Ref();
}

/// `now - since >= self.cooldown_s`. The lock is held.
bool is_cooldown_over(const Context& context, PyObject* self, PyObject* now, PyObject* since) {
    const Ref elapsed = Ref::steal(PyNumber_Subtract(now, since));
    const Ref cooldown = py::get_attribute(self, context[Name::cooldown_s]);
    return py::is_at_least(elapsed.get(), cooldown.get());
}

}  // namespace

Ref is_disabled(const Context& context, PyObject* self, PyObject* tool_name) {
    const TrackerView tracker = view_tracker(context, self);
    if (Ref answer = answer_elided(context, tracker, self, tool_name)) {
        return answer;
    }
    StepwiseChange<ToolStateFields> change(context.state.tool_state);
    Ref now;  // dies, as what is replaced does, when the lock is free
    return in_section(context, tracker, [&] {
        Ref record = look_up<1>(context, tracker.get(TrackerFields::state).get(), {tool_name}, tool_name);
        if (!record) {
            return Ref::borrow(context.state.enabled_answer.get());
        }
        change.begin(std::move(record));
        if (change.get(disabled_at).get() == Py_None) {
            return Ref::borrow(context.state.enabled_answer.get());
        }
        now = read_clock(context);
        if (!is_cooldown_over(context, self, now.get(), change.get(disabled_at).get())) {
            return disabled_answer(context, change.get(last_error).get());
        }
        change.set(consecutive_errors, py::integer(0));
        change.set(disabled_at, py::none());
        change.set(updated_at, Ref::borrow(now.get()));
        mark_dirty(context, tracker, tool_name);
        return Ref::borrow(context.state.enabled_answer.get());
    });
}

}  // namespace health
