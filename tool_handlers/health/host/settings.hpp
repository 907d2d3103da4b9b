// The `tools` settings, read at each use from the object the tracker was given.
#pragma once

#include <Python.h>

#include "health/module/state.hpp"
#include "health/python/numbers.hpp"

namespace health {

/// New settings with the configuration's defaults: `ToolsConfig()`. Runs Python code.
inline py::Ref default_settings(const Module& module) { return py::call(module.get(Name::ToolsConfig).get()); }

/// How many errors in a row disable a tool. May run Python code.
inline py::Ref disable_after_errors(const Module& module, PyObject* limits) {
    return py::get_attribute(limits, module[Name::disable_after_errors]);
}

/// How long a disabled tool stays disabled, in seconds. May run Python code.
inline py::Ref disable_cooldown_s(const Module& module, PyObject* limits) {
    return py::get_attribute(limits, module[Name::disable_cooldown_s]);
}

/// A setting, read by `attribute`, if it is a plain number and reading it runs no Python code; else empty. `limits` may
/// be nullptr.
inline py::Ref plain_setting(PyObject* limits, py::PlainAttribute& attribute, PyObject* name) {
    py::Ref value = limits == nullptr ? py::Ref() : attribute.get(limits, name);
    return value && py::is_plain_number(value.get()) ? std::move(value) : py::Ref();
}

}  // namespace health
