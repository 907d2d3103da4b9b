// The wall clock: `time.time`, as the module's namespace and the runtime's `time` module have it at that moment.
#pragma once

#include <Python.h>

#include <cstdint>

#include "health/module/names.hpp"
#include "health/python/ref.hpp"

namespace health {

/// What the clock gave: a value, or the error that it raised; neither if it was not read.
struct ClockReading {
    py::Ref now;  // epoch seconds
    py::Ref error;
};

class Clock {
public:
    /// Reads it if `time.time` is a native function without parameters, called through its method definition: a library
    /// that freezes time exchanges the function there. What the function does is its own matter and may run Python
    /// code: only what is read afterwards holds. `globals` is the module's namespace.
    ClockReading read_natively(const Names& names, PyObject* globals);

    /// `time.time()`, whatever stands in its place. May run Python code.
    static py::Ref read(const Names& names, PyObject* globals);

private:
    void look_up(const Names& names, PyObject* globals);

    // What was found in this state of the two namespaces. Borrowed from them while they have it.
    std::uint64_t globals_version_ = 0;
    std::uint64_t module_version_ = 0;
    PyObject* module_globals_ = nullptr;  // of the `time` module
    PyObject* function_ = nullptr;        // if it is native; else nullptr
};

}  // namespace health
