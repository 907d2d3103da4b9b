// The module's functions: Python functions that run native code.
//
// A function is made by the runtime from its text, so it is one in every respect: signature, annotations, defaults,
// attributes, the words of its argument errors. Its body only hands the bound arguments on:
//
//     def _known(tool: str, action: str | None) -> bool:                       the text, which gives the signature
//         """Whether a usage row names a tool, and an action of it, ..."""
//         return (...).call(tool, action)
//
//     {.name = "_known", .parameters = "tool action", .implementation = known}  its row
//
// `make_native` puts a native function in the place of `...`, among the constants of the code, and gives the function a
// native vectorcall. A call that gives every argument in order goes straight from there to the implementation; any
// other call is bound by the runtime and comes by way of the body. So does every call once a host has put another code
// in place, and then that code runs. A function that logs has no native vectorcall: the record of a log names the
// function whose frame is on top.
//
// The native function, what it refers to, and the code that holds it must not refer back to the functions: the
// collector does not see through code objects.
#pragma once

#include <Python.h>

#include <cstddef>

#include "health/python/ref.hpp"

namespace health::py {

/// What a call works with besides its arguments.
struct FunctionContext {
    void* state;        // of `make_native`
    PyObject* globals;  // the function's; borrowed
};

struct FunctionDef {
    const char* name;
    const char* parameters;  // their names in their order, with a blank between two
    std::size_t parameter_count;
    /// Takes one borrowed reference per parameter, in their order. The arguments live until it returns.
    Ref (*implementation)(const FunctionContext& context, PyObject* const* arguments);
    bool has_frame;  // because it logs
};

/// The type of the native functions; each module makes its own. Throws a MemoryError.
Ref make_native_function_type();

/// Has a Python function run `definition`, which must live as long as the program. `state` is a capsule whose pointer
/// the implementation gets; the function holds it. Throws a SystemError where the function has not got the form above
/// or other parameters, and a MemoryError. Runs Python code of the runtime's only.
void make_native(PyObject* function, const FunctionDef& definition, PyObject* native_function_type, PyObject* state);

/// Whether an object is the function of `globals` that runs `definition`'s implementation, with the code that it was
/// made with: then running the implementation is the same as calling it. Runs no Python code.
bool is_original(PyObject* object, const FunctionDef& definition, PyObject* globals);

}  // namespace health::py
