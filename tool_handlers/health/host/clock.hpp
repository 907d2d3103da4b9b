// The wall clock: `time.time`, in epoch seconds. It is read in sections only.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"
#include "health/python/object.hpp"

namespace health {

/// The time by the runtime's own clock, a float; empty where a host put another in its place. `module`: what the
/// namespace has as `time`; may be nullptr. Runs no Python code; throws a MemoryError.
inline py::Ref read_original_clock(const Context& context, PyObject* module) {
    return context.state.clock.call(module);
}

/// `time.time()`, whatever stands in its place. May run Python code; throws what that raises, and a NameError.
inline py::Ref read_clock(const Context& context) {
    return py::call_method(context.get(Name::time).get(), context[Name::time]);
}

}  // namespace health
