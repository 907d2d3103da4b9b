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

}  // namespace

bool is_marked(const Tracker& tracker, PyObject* tool_name) {
    if (tracker.dirty == nullptr || !PySet_CheckExact(tracker.dirty)) {
        return false;
    }
    PyObject* dirty = Py_NewRef(tracker.dirty);  // without a guard: this is on every call's path
    const int found = PySet_Contains(dirty, tool_name);
    Py_DECREF(dirty);
    if (found < 0) {
        PyErr_Clear();
    }
    return found > 0;
}

void mark(const Tracker& tracker, PyObject* tool_name) {
    py::check(PySet_Add(hold_dirty(tracker).get(), tool_name));
}

bool any_marked(const Tracker& tracker) {
    return PySet_GET_SIZE(hold_dirty(tracker).get()) > 0 || tracker.owed != nullptr;
}

Ref list_marked(Tracker& tracker) {
    settle(tracker);
    const Ref names = Ref::steal(PySequence_List(hold_dirty(tracker).get()));
    py::check(PyList_Sort(names.get()));
    Ref marked = Ref::steal(PyList_New(2));
    PyList_SET_ITEM(marked.get(), 0, Py_NewRef(names.get()));
    PyList_SET_ITEM(marked.get(), 1, Py_NewRef(Py_None));
    return marked;
}

void clear_marks(const Tracker& tracker) {
    py::check(PySet_Clear(hold_dirty(tracker).get()));
}

void put_back(Tracker& tracker, const Host& host, Ref marked) {
    owe(tracker, std::move(marked));
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    try {
        settle(tracker);
    } catch (const py::PythonError&) {
        PyErr_Clear();  // they stay owed
    }
}

}  // namespace health
