// The `tools` settings, read at each use from the object that the tracker was given. Each function gives a setting that
// is a plain number, as `CachedAttribute::get` reads it. For any other it gives nothing: read that as an attribute.
// `limits` may be nullptr.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"
#include "health/python/numbers.hpp"

namespace health {

inline py::Ref plain_setting(PyObject* limits, py::CachedAttribute& attribute, PyObject* name) {
    py::Ref value = limits == nullptr ? py::Ref() : attribute.get(limits, name);
    return value && py::is_plain_number(value.get()) ? std::move(value) : py::Ref();
}

/// How many errors in a row disable a tool.
inline py::Ref plain_disable_after_errors(const Context& context, PyObject* limits) {
    return plain_setting(limits, context.state.disable_after_errors, context[Name::disable_after_errors]);
}

/// How long a disabled tool stays disabled, in seconds.
inline py::Ref plain_disable_cooldown_s(const Context& context, PyObject* limits) {
    return plain_setting(limits, context.state.disable_cooldown_s, context[Name::disable_cooldown_s]);
}

}  // namespace health
