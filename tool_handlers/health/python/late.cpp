#include "health/python/late.hpp"

#include <array>
#include <cstddef>
#include <span>

namespace health::py {

namespace {

struct Entry {
    PyObject* object;
    PyObject* exit;  // of a lock; otherwise NULL
};

/// What one thread has put off, between the throw and the catch of one exception. Nothing else runs on the thread
/// meanwhile, so it belongs to one interpreter.
struct Late {
    std::array<Entry, 64> entries;
    std::size_t count;
};

thread_local constinit Late late{};

bool put_off(Entry entry) {
    if (late.count == late.entries.size()) {
        return false;
    }
    late.entries[late.count++] = entry;
    return true;
}

void leave(const Entry& entry) {
    PyObject* done = PyObject_CallFunctionObjArgs(entry.exit, entry.object, Py_None, Py_None, Py_None, nullptr);
    if (done == nullptr) {
        PyErr_WriteUnraisable(entry.object);
    }
    Py_XDECREF(done);
}

}  // namespace

bool drop_later(PyObject* object) {
    return put_off({.object = object, .exit = nullptr});
}

bool leave_later(PyObject* lock, PyObject* exit) {
    return put_off({.object = lock, .exit = exit});
}

void finish_late() {
    if (late.count == 0) {
        return;
    }
    PyObject* error = PyErr_GetRaisedException();
    const Late taken = late;
    late.count = 0;  // what runs here may come back
    const auto entries = std::span(taken.entries).first(taken.count);
    for (const Entry& entry : entries) {
        if (entry.exit != nullptr) {
            leave(entry);
        }
    }
    for (const Entry& entry : entries) {
        Py_DECREF(entry.object);
        Py_XDECREF(entry.exit);
    }
    PyErr_SetRaisedException(error);
}

}  // namespace health::py
