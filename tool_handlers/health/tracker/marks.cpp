#include "health/tracker/marks.hpp"

namespace health {

using py::Ref;

namespace {

PyObject* names_of(PyObject* marked) {
    return PyList_GET_ITEM(marked, 0);
}

/// Makes a chain of names owed. Nothing can fail, and no Python code runs.
void owe(Tracker& tracker, Ref marked) {
    PyObject* next = std::exchange(tracker.owed, nullptr);
    if (next != nullptr) {
        Ref slot = Ref::steal(next);
        slot.swap_with(reinterpret_cast<PyListObject*>(marked.get())->ob_item[1]);
    }
    tracker.owed = marked.release();
}

/// Marks what is owed. The lock is held. What could not be marked stays owed.
void settle(Tracker& tracker) {
    while (tracker.owed != nullptr) {
        const Ref marked = Ref::borrow(tracker.owed);
        PyObject* names = names_of(marked.get());
        for (Py_ssize_t index = 0; index < PyList_GET_SIZE(names); ++index) {
            mark(tracker, PyList_GET_ITEM(names, index));
        }
        if (tracker.owed != marked.get()) {
            continue;  // more came to be owed meanwhile
        }
        PyObject* next = PyList_GET_ITEM(marked.get(), 1);
        Ref paid = Ref::steal(std::exchange(tracker.owed, next == Py_None ? nullptr : Py_NewRef(next)));
    }
}

/// The same, where an error is no reason to stop: what could not be marked stays owed.
void settle_if_possible(Tracker& tracker) {
    try {
        settle(tracker);
    } catch (const py::PythonError&) {
        PyErr_Clear();
    }
}

}  // namespace

bool is_marked(const Tracker& tracker, PyObject* tool_name) {
    PyObject* dirty = tracker.dirty;
    if (dirty == nullptr || !PySet_CheckExact(dirty)) {
        return false;
    }
    Py_INCREF(dirty);  // without a guard: this is on every call's path
    const int found = PySet_Contains(dirty, tool_name);
    const bool is_still_in_place = tracker.dirty == dirty;
    Py_DECREF(dirty);
    return py::check(found) > 0 && is_still_in_place;
}

void mark(const Tracker& tracker, PyObject* tool_name) {
    py::check(PySet_Add(hold_dirty(tracker).get(), tool_name));
}

bool any_marked(const Tracker& tracker) {
    return PySet_GET_SIZE(hold_dirty(tracker).get()) > 0 || tracker.owed != nullptr;
}

Ref take_marks(Tracker& tracker) {
    settle(tracker);
    const Ref dirty = hold_dirty(tracker);
    const Ref names = Ref::steal(PySequence_List(dirty.get()));
    py::check(PyList_Sort(names.get()));
    Ref marked = Ref::steal(PyList_New(2));
    PyList_SET_ITEM(marked.get(), 0, Py_NewRef(names.get()));
    PyList_SET_ITEM(marked.get(), 1, Py_NewRef(Py_None));
    py::check(PySet_Clear(dirty.get()));
    return marked;
}

void put_back_locked(Tracker& tracker, Ref marked) {
    owe(tracker, std::move(marked));
    settle_if_possible(tracker);
}

void put_back(Tracker& tracker, const Host& host, Ref marked) {
    owe(tracker, std::move(marked));
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    settle_if_possible(tracker);
}

}  // namespace health
