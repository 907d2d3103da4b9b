// `PyInit_health`: the module's definition, and how it is executed.
#include <Python.h>
#include <marshal.h>

#include <new>

#include "health/binding/surface.hpp"
#include "health/module/state.hpp"
#include "health/records/records.hpp"
#include "health/tracker/fields.hpp"

namespace health {

namespace {

using py::Ref;

void delete_state(PyObject* capsule) {
    auto* state = static_cast<ModuleState*>(PyCapsule_GetPointer(capsule, nullptr));
    state->~ModuleState();
    PyMem_Free(state);
}

/// A capsule with a new state, which dies with the last function that holds it.
Ref make_state() {
    void* memory = PyMem_Malloc(sizeof(ModuleState));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    auto* state = new (memory) ModuleState;
    PyObject* capsule = PyCapsule_New(state, nullptr, delete_state);
    if (capsule == nullptr) {
        state->~ModuleState();
        PyMem_Free(memory);
    }
    return Ref::steal(capsule);
}

/// Runs the module's text in its namespace.
void run_surface(PyObject* module) {
    PyObject* globals = PyModule_GetDict(module);
    const Ref code = Ref::steal(PyMarshal_ReadObjectFromString(surface, static_cast<Py_ssize_t>(surface_size)));
    const Ref done = Ref::steal(PyEval_EvalCode(code.get(), globals, globals));
}

/// No object of the classes was made yet.
void learn_classes(PyObject* module, ModuleState& state) {
    state.tool_state.learn(py::get_attribute(module, "_ToolState").get(), ToolStateFields::names);
    state.usage.learn(py::get_attribute(module, "_Usage").get(), UsageFields::names);
    const Ref tracker = py::get_attribute(module, "ToolHealthTracker");
    state.tracker.learn(tracker.get(), TrackerFields::names);
    PyObject* cooldown =
        py::find_in_class(reinterpret_cast<PyTypeObject*>(tracker.get()), state.names[Name::cooldown_s]);
    state.originals.cooldown_getter.remember(py::getter_of(cooldown));
}

/// The Python function behind a name of a namespace; a property's is its getter.
Ref function_of(PyObject* owner, const char* name) {
    Ref member = py::get_attribute(owner, name);
    return PyObject_TypeCheck(member.get(), &PyProperty_Type) != 0 ? py::get_attribute(member.get(), "fget")
                                                                   : std::move(member);
}

void make_functions_native(PyObject* module, PyObject* state) {
    const Ref type = py::make_native_function_type();
    const auto make_native = [&](PyObject* owner, const py::FunctionDef& definition) {
        py::make_native(function_of(owner, definition.name).get(), definition, type.get(), state);
    };
    for (const py::FunctionDef& definition : module_functions()) {
        make_native(module, definition);
    }
    const Ref tracker = py::get_attribute(module, "ToolHealthTracker");
    for (const py::FunctionDef& definition : tracker_members()) {
        make_native(tracker.get(), definition);
    }
}

int execute(PyObject* module) {
    PyObject* done = py::to_runtime([&] {
        const Ref capsule = make_state();
        auto& state = *static_cast<ModuleState*>(PyCapsule_GetPointer(capsule.get(), nullptr));
        run_surface(module);
        state.remember(PyModule_GetDict(module));
        learn_classes(module, state);
        make_functions_native(module, capsule.get());
        return py::none();
    });
    Py_XDECREF(done);
    return done == nullptr ? -1 : 0;
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                          .m_name = "health",
                          .m_doc = nullptr,
                          .m_size = 0,
                          .m_methods = nullptr,
                          .m_slots = slots,
                          .m_traverse = nullptr,
                          .m_clear = nullptr,
                          .m_free = nullptr};

}  // namespace

}  // namespace health

PyMODINIT_FUNC PyInit_health() { return PyModuleDef_Init(&health::definition); }
