// Errors of the runtime as C++ exceptions.
//
// A failed call of the C API has set the runtime's error; `PythonError` says so and carries nothing.
// It is thrown by `check`, `Ref::steal` and `raise`, and caught by `error_of` (health/python/recover.hpp) alone. Only
// named types are ever caught: a daemon thread that asks for the GIL of a finalising interpreter is unwound by force,
// and `catch (...)` would abort the process.
#pragma once

#include <Python.h>

/// In builds with HEALTH_ASSERTIONS (the presets debug and sanitize), ends the process with `text` where `condition`
/// does not hold. In others nothing, and `condition` is not evaluated.
#ifdef HEALTH_ASSERTIONS
#define HEALTH_ASSERT(condition, text) ((condition) ? static_cast<void>(0) : Py_FatalError(text))
#else
#define HEALTH_ASSERT(condition, text) static_cast<void>(0)
#endif

namespace health::py {

/// The runtime's error indicator is set.
struct PythonError {};

[[noreturn]] inline void throw_current() {
    HEALTH_ASSERT(PyErr_Occurred() != nullptr, "a call failed without an error");
    throw PythonError{};
}

/// Sets an error of `type` with a text made as `PyErr_Format` makes it, and throws.
template <class... Values>
[[noreturn]] void raise(PyObject* type, const char* format, Values... values) {
    PyErr_Format(type, format, values...);
    throw_current();
}

/// Passes on a status of the C API; throws when it is negative.
inline int check(int status) {
    if (status < 0) {
        throw_current();
    }
    return status;
}

}  // namespace health::py
