// What follows a failure: the API boundary, handlers, undoing.
#pragma once

#include <Python.h>

#include <new>
#include <utility>

#include "health/python/error.hpp"
#include "health/python/ref.hpp"

namespace health::py {

/// Runs `body`; the error it ends with, taken out of the indicator, or an empty reference. The caller takes what was
/// deferred meanwhile. Everything that catches is made of this.
template <class Body>
Ref caught_error_of(Body&& body) {
    try {
        std::forward<Body>(body)();
        return {};
    } catch (const PythonError&) {
        // The error is set.
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    if (PyErr_Occurred() == nullptr) {
        PyErr_NoMemory();  // which the runtime leaves unsaid here and there
    }
    return Ref::steal_optional(PyErr_GetRaisedException());
}

/// The same, and drops what was deferred.
template <class Body>
Ref error_of(Body&& body) {
    Ref error = caught_error_of(std::forward<Body>(body));
    if (error) {
        const DeferredRefs dropped;
    }
    return error;
}

/// Sets an error of `error_of` again, and throws.
[[noreturn]] inline void rethrow(Ref error) {
    PyErr_SetRaisedException(error.release());
    throw_current();
}

/// The API boundary. Runs `body` (which returns a `Ref`) for the runtime: a new reference, or NULL with the error set.
template <class Body>
PyObject* to_runtime(Body&& body) {
    PyObject* result = nullptr;
    Ref error = error_of([&] { result = body().release(); });
    if (error) {
        PyErr_SetRaisedException(error.release());
    }
    return result;
}

/// While it lives, an error is the one being handled: `sys.exc_info()` shows it, and errors raised meanwhile have it as
/// their context, as in an `except` block.
class HandledError {
public:
    explicit HandledError(PyObject* error) : outer_(Ref::steal_optional(PyErr_GetHandledException())) {
        PyErr_SetHandledException(error);
    }
    HandledError(const HandledError&) = delete;
    HandledError& operator=(const HandledError&) = delete;
    ~HandledError() noexcept(false) {
        if (is_attached()) {
            PyErr_SetHandledException(outer_.get());
        }
    }

private:
    Ref outer_;
};

/// `try: body() except BaseException: recover(); raise`.
template <class Body, class Recover>
void recovering(Body&& body, Recover&& recover) {
    Ref error = error_of(std::forward<Body>(body));
    if (error) {
        const HandledError handled(error.get());
        std::forward<Recover>(recover)();
        rethrow(std::move(error));
    }
}

/// `try: body() except Exception as error: handle(error)`. Whether `body` succeeded.
template <class Body, class Handle>
bool guarded(Body&& body, Handle&& handle) {
    Ref error = error_of(std::forward<Body>(body));
    if (!error) {
        return true;
    }
    if (PyErr_GivenExceptionMatches(error.get(), PyExc_Exception) == 0) {
        rethrow(std::move(error));
    }
    const HandledError handled(error.get());
    std::forward<Handle>(handle)(error.get());
    return false;
}

}  // namespace health::py
