// Catching errors: the API boundary, and Python's `try` statements.
#pragma once

#include <Python.h>

#include <new>
#include <utility>

#include "health/python/error.hpp"
#include "health/python/ref.hpp"

namespace health::py {

/// Runs `body`. The error that it throws, taken out of the indicator; an empty reference if none. Nothing else catches.
template <class Body>
Ref error_of(Body&& body) {
    try {
        std::forward<Body>(body)();
        return {};
    } catch (const PythonError&) {
        // The error is set.
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    if (PyErr_Occurred() == nullptr) {
        PyErr_SetString(PyExc_SystemError, "error return without exception set");  // as the runtime says it
    }
    return Ref::steal_optional(PyErr_GetRaisedException());
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
    if (error && PyErr_GivenExceptionMatches(error.get(), PyExc_Exception) == 0) {
        rethrow(std::move(error));
    }
    if (error) {
        const HandledError handled(error.get());
        std::forward<Handle>(handle)(error.get());
    }
    return !error;
}

}  // namespace health::py
