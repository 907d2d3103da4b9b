// The `tools` settings, read at each use from the object the tracker was given.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"

namespace health {

/// New settings with the configuration's defaults: `ToolsConfig()`. Runs Python code.
py::Ref default_settings(const Host& host);

/// How many errors in a row disable a tool. May run Python code.
py::Ref disable_after_errors(const Host& host, PyObject* limits);

/// The same if it is a plain number that can be read without running Python code, else empty.
py::Ref disable_after_errors_quietly(const Host& host, PyObject* limits);

/// How long a disabled tool stays disabled, in seconds. May run Python code.
py::Ref disable_cooldown_s(const Host& host, PyObject* limits);

}  // namespace health
