#include "health/tracker/dirty.hpp"

#include "health/python/numbers.hpp"

#include "health/tracker/mapping.hpp"
#include "health/tracker/section.hpp"

namespace health {

using py::Ref;
using enum TrackerFields::Field;

namespace {

constexpr long everything = 2;

void mark_everything_dirty(const TrackerView& tracker) { tracker.set(usage_dirty, py::integer(everything)); }

/// A container that Python code cannot find through the collector.
Ref hidden(PyObject* container) {
    Ref held = Ref::steal(container);
    PyObject_GC_UnTrack(held.get());
    return held;
}

/// The dirty names with those of all tools.
Ref all_names(const Module& module, const TrackerView& tracker, PyObject* names) {
    Ref all = hidden(PySet_New(names));
    for (const MappingEntry& entry : list_entries(module, tracker.get(state).get())) {
        py::check(PySet_Add(all.get(), entry.key.get()));
    }
    return all;
}

}  // namespace

void mark_dirty(const Module& module, const TrackerView& tracker, PyObject* tool_name) {
    const Ref names = tracker.get(dirty);
    if (PySet_CheckExact(names.get())) {
        py::check(PySet_Add(names.get(), tool_name));
    } else {
        py::call_method(names.get(), module[Name::add], tool_name);
    }
}

bool is_any_dirty(const TrackerView& tracker) {
    return py::is_true(tracker.get(dirty).get()) || is_everything_dirty(tracker);
}

bool is_everything_dirty(const TrackerView& tracker) {
    PyObject* flag = tracker.get_stored(usage_dirty);
    return flag != nullptr && py::is_compact(flag) && py::compact_value(flag) == everything;
}

Ref mark_usage_dirty(const TrackerView& tracker) {
    return is_everything_dirty(tracker) ? Ref() : tracker.exchange(usage_dirty, py::boolean(true));
}

Ref take_dirty(const Module& module, const TrackerView& tracker) {
    const Ref names = tracker.get(dirty);
    const bool is_everything = is_everything_dirty(tracker);
    const Ref taken = is_everything ? all_names(module, tracker, names.get()) : Ref::borrow(names.get());
    Ref sorted = hidden(PySequence_List(taken.get()));
    py::check(PyList_Sort(sorted.get()));
    if (PySet_CheckExact(names.get())) {
        py::check(PySet_Clear(names.get()));
    } else {
        py::call_method(names.get(), module[Name::clear]);
    }
    if (is_everything) {
        tracker.set(usage_dirty, py::boolean(true));
    }
    return sorted;
}

void put_back_dirty_locked(const Module& module, const TrackerView& tracker, PyObject* names) {
    py::recovering(
        [&] {
            const Ref set = tracker.get(dirty);
            if (!PySet_CheckExact(set.get())) {
                py::call_method(set.get(), module[Name::update], names);
                return;
            }
            for (Py_ssize_t place = 0; place < PyList_GET_SIZE(names); ++place) {
                py::check(PySet_Add(set.get(), PyList_GET_ITEM(names, place)));
            }
        },
        [&] { mark_everything_dirty(tracker); });
}

void put_back_dirty(const Module& module, const TrackerView& tracker, PyObject* names) {
    py::recovering(
        [&] {
            in_section(module, tracker, [&] {
                put_back_dirty_locked(module, tracker, names);
                return py::none();
            });
        },
        [&] { mark_everything_dirty(tracker); });
}

}  // namespace health
