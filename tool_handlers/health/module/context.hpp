// The context of one call: the state of the module, and the namespace of the function that was called. Every operation
// takes it.
//
// Names of the daemon (`TOOLS`, `is_slow_call`, ...), the constants and the module's own helpers are read from the
// namespace at each use, so that a replacement takes effect.
#pragma once

#include <Python.h>

#include <type_traits>
#include <utility>

#include "health/module/state.hpp"
#include "health/python/function.hpp"
#include "health/python/object.hpp"

namespace health {

class Context {
public:
    ModuleState& state;
    PyObject* globals;  // the namespace; borrowed

    Context(ModuleState& module_state, PyObject* function_globals) : state(module_state), globals(function_globals) {}

    /// The interned text of a name.
    [[nodiscard]] PyObject* operator[](Name name) const { return state.names[name]; }

    // Names are looked up once for each version of the namespace. That runs Python code only where it has a key that is
    // not exactly a str.

    /// The value of a name in the namespace, as it is now, borrowed; nullptr if there is none.
    [[nodiscard]] PyObject* find(Name name) const {
        ModuleState::Found& found = state.found[static_cast<std::size_t>(name)];
        if (found.version != py::version_of(globals) || (found.value != nullptr && py::is_dying(found.value))) {
            PyObject* value = py::find(globals, (*this)[name]);
            found = {.version = py::version_of(globals), .value = value};
        }
        return found.value;
    }

    /// The same, or that of a builtin; throws a NameError.
    [[nodiscard]] py::Ref get(Name name) const {
        PyObject* value = find(name);  // what is not there the runtime looks for, or says so
        return value != nullptr
                   ? py::Ref::borrow(value)
                   : py::Ref::steal(PyRun_String(PyUnicode_AsUTF8((*this)[name]), Py_eval_input, globals, globals));
    }

    /// Whether a name leads to what is remembered, unchanged, or to the module's own function.
    [[nodiscard]] bool is_original(Name name, const py::Original& original) const { return original.is(find(name)); }
    [[nodiscard]] bool is_original(Name name, const py::FunctionDef& definition) const {
        PyObject* function = find(name);
        return function != nullptr && py::is_original(function, definition, globals);
    }
};

/// `name(...)`: natively where the name leads to the module's own function, which `implementation` and `definition`
/// are.
template <auto implementation, class... Arguments>
py::Ref call_by_name(const Context& context, Name name, const py::FunctionDef& definition, Arguments*... arguments) {
    return context.is_original(name, definition) ? implementation(context, arguments...)
                                                 : py::call(context.get(name).get(), arguments...);
}

/// Makes the row of a function out of what implements it: `Ref f(const Context&, PyObject*...)`, or `void` for None.
template <auto function>
struct Implementation;

template <class Result, class... Parameters, Result (*function)(const Context&, Parameters...)>
struct Implementation<function> {
    static py::Ref run(const py::FunctionContext& called, PyObject* const* arguments) {
        const Context context(*static_cast<ModuleState*>(called.state), called.globals);
        return [&]<std::size_t... place>(std::index_sequence<place...>) {
            if constexpr (std::is_void_v<Result>) {
                function(context, arguments[place]...);
                return py::none();
            } else {
                return function(context, arguments[place]...);
            }
        }
        (std::index_sequence_for<Parameters...>());
    }

    static constexpr py::FunctionDef define(const char* name, const char* parameters, bool has_frame = false) {
        return {name, parameters, sizeof...(Parameters), run, has_frame};
    }
};

}  // namespace health
