// Recording outcomes: how often a tool was called and failed, and when it failed so often that it is disabled.
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

constexpr Py_ssize_t longest_error = 500;  // characters of an error's text that are kept

/// The text that is kept of an error: its first 500 characters, empty for an absent one.
Ref shorten(PyObject* error) {
    if (PyUnicode_CheckExact(error) && PyUnicode_GET_LENGTH(error) <= longest_error) {
        return Ref::borrow(error);
    }
    if (!py::is_true(error)) {
        return Ref::steal(PyUnicode_New(0, 0));
    }
    const Ref stop = py::integer(longest_error);
    return py::get_item(error, Ref::steal(PySlice_New(nullptr, stop.get(), nullptr)).get());
}

// What an outcome reads: the clock, then the threshold. LiveReadings reads each at the step that uses it. PlainReadings
// has both before the first step, in either order: reading them runs no Python code, so nobody can tell.

struct PlainReadings {
    Ref limit;
    PyObject* clock = nullptr;  // the module `time`; borrowed
    Ref time;

    Ref now() { return std::move(time); }
    Ref threshold() { return std::move(limit); }
};

struct LiveReadings {
    const Context& context;
    const TrackerView& tracker;

    [[nodiscard]] Ref now() const { return read_clock(context); }
    [[nodiscard]] Ref threshold() const {
        return py::get_attribute(tracker.get(TrackerFields::limits).get(), context[Name::disable_after_errors]);
    }
};

// The outcomes: the steps that each takes on a tool's record.

struct Success {
    static constexpr bool reads_threshold = false;
    static constexpr bool is_plain() { return true; }

    template <class Change, class Readings>
    [[gnu::always_inline]] void operator()(Change& state, Readings&& readings) const {
        state.increment(call_count);
        state.set(consecutive_errors, py::integer(0));
        state.set(disabled_at, py::none());
        state.set(updated_at, readings.now());
    }
};

struct Failure {
    static constexpr bool reads_threshold = true;
    [[nodiscard]] bool is_plain() const { return PyUnicode_CheckExact(error) || error == Py_None; }

    template <class Change, class Readings>
    [[gnu::always_inline]] void operator()(Change& state, Readings&& readings) const {
        state.increment(call_count);
        state.increment(error_count);
        state.increment(consecutive_errors);
        state.set(last_error, shorten(error));
        state.set(updated_at, readings.now());
        const auto run = state.get(consecutive_errors);
        const Ref threshold = readings.threshold();
        if (py::is_at_least(run.get(), threshold.get())) {
            state.set(disabled_at, Ref::borrow(state.get(updated_at).get()));
        }
    }

    PyObject* error;
};

// Those marked `inline` are on the path of every call. (Measured: 4 % of record_success.)

/// The values of a direct record, if they are plain and its counts are ints; else nullptr. Good until Python code may
/// run; runs none itself.
inline PyObject** plain_values(const Context& context, PyObject* record) {
    PyObject** values = context.state.tool_state.values_of(record);
    const bool is_plain =
        values != nullptr && py::is_a(values[call_count], PyLong_Type) && py::is_a(values[error_count], PyLong_Type) &&
        py::is_a(values[consecutive_errors], PyLong_Type) && py::is_a(values[updated_at], PyFloat_Type) &&
        (values[last_error] == Py_None || py::is_a(values[last_error], PyUnicode_Type)) &&
        (values[disabled_at] == Py_None || py::is_a(values[disabled_at], PyFloat_Type));
    return is_plain ? values : nullptr;
}

/// Takes what an outcome reads, but for the time. False where anything is not plain, the outcome itself included.
/// Whatever else is relied on must be looked at afterwards (see `CachedAttribute::get`).
template <class Outcome>
inline bool prepare(PlainReadings& readings, const Context& context, const TrackerView& tracker,
                    const Outcome& outcome) {
    if constexpr (Outcome::reads_threshold) {
        PyObject** fields = tracker.direct();
        readings.limit =
            plain_disable_after_errors(context, fields == nullptr ? nullptr : fields[TrackerFields::limits]);
        if (!readings.limit) {
            return false;
        }
    }
    readings.clock = context.find(Name::time);
    return outcome.is_plain();
}

/// Records an outcome on a record with `plain_values`, all of it or nothing. False, with nothing done, where a host put
/// another clock in place.
template <class Outcome>
inline bool record_at_once(PlainReadings& readings, const Context& context, PyObject** values, const Outcome& outcome) {
    readings.time = read_original_clock(context, readings.clock);
    if (!readings.time) {
        return false;
    }
    PlainChange<ToolStateFields> change(values);
    outcome(change, readings);
    change.commit();
    return true;
}

/// Records an outcome in an elided section: of a tool that is known and dirty, so that nothing but its record changes.
/// False, with nothing done, where it takes a section with the lock.
template <class Outcome>
bool record_elided(const Context& context, const TrackerView& tracker, PyObject* tool_name, const Outcome& outcome) {
    PlainReadings readings;
    PyObject** fields = prepare(readings, context, tracker, outcome) ? begin_elided(context, tracker) : nullptr;
    PyObject* record = find_known_tool(context, fields, tool_name);
    PyObject** values = record == nullptr ? nullptr : plain_values(context, record);
    if (values == nullptr || !py::is_seen_in(fields[TrackerFields::dirty], tool_name) ||
        !record_at_once(readings, context, values, outcome)) {
        return false;
    }
    end_elided(context, tracker, fields);
    return true;
}

/// Records an outcome, in a new record if the tool has none. The lock is held.
template <class Outcome>
void record_locked(StepwiseChange<ToolStateFields>& change, const Context& context, const TrackerView& tracker,
                   PyObject* tool_name, const Outcome& outcome) {
    Ref found = look_up<1>(context, tracker.get(TrackerFields::state).get(), {tool_name}, tool_name);
    const bool is_new = !found;
    change.begin(is_new ? make_tool_state(context) : std::move(found));
    const Ref states = is_new ? tracker.get(TrackerFields::state) : Ref();
    // Storing it runs code, of another mapping or of the key: that comes before what the steps read.
    const bool is_seen_early = is_new && !(PyDict_CheckExact(states.get()) && PyUnicode_CheckExact(tool_name));
    PlainReadings readings;
    const bool is_prepared = !is_seen_early && prepare(readings, context, tracker, outcome);
    PyObject** values = is_prepared ? plain_values(context, change.record()) : nullptr;
    const bool is_recorded = values != nullptr && record_at_once(readings, context, values, outcome);
    if (is_new) {
        py::set_item(states.get(), tool_name, change.record());
    }
    if (!is_recorded) {
        outcome(change, LiveReadings{.context = context, .tracker = tracker});
    }
    mark_dirty(context, tracker, tool_name);
}

template <class Outcome>
Ref record(const Context& context, PyObject* self, PyObject* tool_name, const Outcome& outcome) {
    const TrackerView tracker = view_tracker(context, self);
    if (record_elided(context, tracker, tool_name, outcome)) {
        return py::none();
    }
    StepwiseChange<ToolStateFields> change(context.state.tool_state);
    return in_section(context, tracker, [&] {
        record_locked(change, context, tracker, tool_name, outcome);
        return py::none();
    });
}

}  // namespace

Ref record_success(const Context& context, PyObject* self, PyObject* tool_name) {
    return record(context, self, tool_name, Success{});
}

Ref record_error(const Context& context, PyObject* self, PyObject* tool_name, PyObject* error) {
    return record(context, self, tool_name, Failure{.error = error});
}

}  // namespace health
