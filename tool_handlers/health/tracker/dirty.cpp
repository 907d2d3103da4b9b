#include "health/tracker/dirty.hpp"

#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"

namespace health {

using py::Ref;
using enum TrackerFields::Field;

namespace {

constexpr long everything = 2;

void mark_everything_dirty(const TrackerView& tracker) { tracker.set(usage_dirty, py::integer(everything)); }

/// Runs `body`; when it throws, every tool is dirty.
template <class Body>
void or_everything(const TrackerView& tracker, Body&& body) {
    py::recovering(std::forward<Body>(body), [&] { mark_everything_dirty(tracker); });
}

bool is_everything_dirty(const TrackerView& tracker) {
    const Ref flag = tracker.peek(usage_dirty);
    return flag && py::is_compact(flag.get()) && py::compact_value(flag.get()) == everything;
}

}  // namespace

void mark_dirty(const Context& context, const TrackerView& tracker, PyObject* tool_name) {
    py::call_method(tracker.get(dirty).get(), context[Name::add], tool_name);
}

bool is_any_dirty(const TrackerView& tracker) {
    return py::is_true(tracker.get(dirty).get()) || is_everything_dirty(tracker);
}

Ref set_usage_dirty(const TrackerView& tracker, bool value) {
    return is_everything_dirty(tracker) ? Ref() : tracker.exchange(usage_dirty, py::boolean(value));
}

Ref take_dirty(const Context& context, const TrackerView& tracker) {
    const Ref names = tracker.get(dirty);
    const bool is_everything = is_everything_dirty(tracker);
    Ref sorted = py::hidden(PySequence_List(is_everything ? tracker.get(state).get() : names.get()));
    py::check(PyList_Sort(sorted.get()));
    py::call_method(names.get(), context[Name::clear]);
    if (is_everything) {
        tracker.set(usage_dirty, py::boolean(true));
    }
    return sorted;
}

void put_back_dirty_locked(const Context& context, const TrackerView& tracker, PyObject* names) {
    or_everything(tracker, [&] {
        const Ref set = tracker.get(dirty);
        const bool is_set = PySet_CheckExact(set.get());
        for (Py_ssize_t place = 0; is_set && place < PyList_GET_SIZE(names); ++place) {
            py::check(PySet_Add(set.get(), PyList_GET_ITEM(names, place)));
        }
        if (!is_set) {
            py::call_method(set.get(), context[Name::update], names);
        }
    });
}

void put_back_dirty(const Context& context, const TrackerView& tracker, PyObject* names) {
    or_everything(tracker, [&] {
        in_section(context, tracker, [&] {
            put_back_dirty_locked(context, tracker, names);
            return py::none();
        });
    });
}

}  // namespace health
