// Undoing what a failed step left behind, before its error goes on.
#pragma once

#include <Python.h>

#include <new>
#include <utility>

#include "health/python/error.hpp"
#include "health/python/ref.hpp"

namespace health::py {

/// Runs `body` and returns its result. When it fails, runs `recover` with the error set aside, and passes on that
/// very error object; an error that `recover` throws takes its place, with the first one as its context.
template <class Body, class Recover>
auto recovering(Body&& body, Recover&& recover) {
    try {
        return std::forward<Body>(body)();
    } catch (const PythonError&) {
        // The error is set; it is taken up below, outside the handler.
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    Ref error = Ref::steal(PyErr_GetRaisedException());
    finish_late();
    try {
        std::forward<Recover>(recover)();
    } catch (const PythonError&) {
        PyObject* later = PyErr_GetRaisedException();
        if (later != error.get()) {
            PyException_SetContext(later, error.release());
        }
        PyErr_SetRaisedException(later);
        throw;
    }
    PyErr_SetRaisedException(error.release());
    throw_current();
}

/// As a handler that catches `Exception` does: runs `body`, and when it fails with an error of that kind, calls
/// `handle(error)` with the error object. An error of another kind (an interruption, an exit) goes on.
/// Returns whether `body` succeeded.
template <class Body, class Handle>
bool guarded(Body&& body, Handle&& handle) {
    try {
        std::forward<Body>(body)();
        return true;
    } catch (const PythonError&) {
        if (PyErr_ExceptionMatches(PyExc_Exception) == 0) {
            throw;
        }
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    const Ref error = Ref::steal(PyErr_GetRaisedException());
    finish_late();
    std::forward<Handle>(handle)(error.get());
    return false;
}

}  // namespace health::py
