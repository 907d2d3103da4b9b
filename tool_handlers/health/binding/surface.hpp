// The module's public surface: the text that the runtime compiles, and the native functions that stand behind it.
#pragma once

#include <cstddef>
#include <span>

#include "health/python/function.hpp"

namespace health {

/// The code of the module's Python text (surface.py, from which the build makes this), marshalled; to be run in its
/// namespace.
extern const char surface[];
extern const std::size_t surface_size;

/// The module's functions and the tracker's members, properties included.
std::span<const py::FunctionDef> module_functions();
std::span<const py::FunctionDef> tracker_members();

}  // namespace health
