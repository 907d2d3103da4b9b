// The type of the module's functions and methods.
//
// One `Definition` describes a function: its parameters with kind, annotation and default, its result, its
// documentation and its implementation. It feeds the calls, the argument errors and all that the runtime's tools
// read off a function (`inspect.signature`, `help`, annotations, defaults), so that a native function looks to
// its host as one written in Python does, and costs what a native call costs.
#pragma once

#include <Python.h>

#include <cstddef>
#include <span>

#include "health/python/ref.hpp"

namespace health::py {

enum class Kind : unsigned char { positional_or_keyword, keyword_only };

struct Parameter {
    const char* name;
    const char* annotation = nullptr;  // its text; nullptr for `self`
    Kind kind = Kind::positional_or_keyword;
    bool defaults_to_none = false;  // no other default is needed
};

inline constexpr std::size_t max_parameters = 6;

struct Definition {
    const char* name;
    /// Positional ones first, then those by name only. A method's first is `self`.
    std::span<const Parameter> parameters;
    const char* result;  // the annotation of the result, as text
    const char* documentation;
    /// Takes one borrowed reference per parameter, in their order; absent ones hold their default.
    Ref (*implementation)(void* context, PyObject* const* arguments);
};

/// What the functions of one module share. Outlives them: each holds a reference to `module`.
struct FunctionHome {
    PyTypeObject* function_type;  // made by `make_function_type`
    PyObject* module;
    void* context;  // handed to every implementation
};

/// The native function type; each module makes its own. New reference.
Ref make_function_type(PyObject* module);

/// A function of the module; `definition` must live as long as the program.
Ref make_function(const FunctionHome& home, const Definition& definition);

/// A method of `owner`, which its first argument must be an instance of.
Ref make_method(const FunctionHome& home, const Definition& definition, PyTypeObject* owner);

}  // namespace health::py
