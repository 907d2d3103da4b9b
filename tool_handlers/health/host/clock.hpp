// The wall clock: `time.time`, as the module's namespace and the runtime's `time` module have it at that moment.
#pragma once

#include <Python.h>

#include <cstdint>

#include "health/python/ref.hpp"
#include "health/python/visit.hpp"
#include "health/records/names.hpp"

namespace health {

class Clock {
public:
    /// Learns the runtime's own clock from its `time` module. Throws what the import throws.
    void learn(PyObject* time_module);

    /// Whether the clock is the runtime's own now, so that reading it runs no Python code.
    /// `globals` is the module's namespace. Runs none itself.
    bool is_quiet(const Names& names, PyObject* globals);

    /// Epoch seconds now, as the clock gives them. Call only right after `is_quiet` said yes.
    [[nodiscard]] py::Ref read_quietly() const { return py::Ref::steal(read_(self_, nullptr)); }

    /// Epoch seconds now, by whatever stands in the clock's place. May run Python code.
    py::Ref read(const Names& names, PyObject* globals);

    /// As `LockMethods::for_each`.
    template <class Visit>
    int for_each(Visit&& visit) {
        return py::visit_all(visit, module_, own_, module_globals_);
    }

private:
    PyObject* module_ = nullptr;  // the runtime's `time` module
    // As it was when this module was imported, if it was native and the module a plain one:
    PyObject* own_ = nullptr;             // its `time` function
    PyObject* module_globals_ = nullptr;  // its namespace
    PyCFunction read_ = nullptr;          // what the function does ...
    PyObject* self_ = nullptr;            // ... and its first argument; borrowed from `own_`
    // The states of the two dictionaries in which the clock was last found to be `own_`.
    std::uint64_t globals_version_ = 0;
    std::uint64_t module_version_ = 0;
};

}  // namespace health
