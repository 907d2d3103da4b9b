#include "health/python/function.hpp"

#include <array>
#include <cstdint>
#include <type_traits>

#include "health/python/object.hpp"
#include "health/python/recover.hpp"

namespace health::py {

namespace {

struct NativeFunction {
    PyObject ob_base;
    const FunctionDef* definition;
    PyObject* owner;  // of the state; a strong reference
    void* state;
    std::uint32_t code_version;  // of the code that it was put into; no other code has it
};
static_assert(std::is_standard_layout_v<NativeFunction> && std::is_trivially_destructible_v<NativeFunction>);

NativeFunction& as_native(PyObject* object) { return *reinterpret_cast<NativeFunction*>(object); }

void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    Py_CLEAR(as_native(self).owner);
    type->tp_free(self);
    Py_DECREF(type);
}

constexpr Py_ssize_t native_place = 1;  // among the code's constants; the first is the documentation

/// The native function of a Python function; nullptr where a host has put another code in place.
inline const NativeFunction* native_of(PyObject* function) {
    PyObject* code = PyFunction_GET_CODE(function);
    PyObject* constants = reinterpret_cast<PyCodeObject*>(code)->co_consts;
    if (PyTuple_GET_SIZE(constants) <= native_place) {
        return nullptr;
    }
    PyObject* native = PyTuple_GET_ITEM(constants, native_place);
    const bool is_own = Py_TYPE(native)->tp_dealloc == deallocate &&
                        as_native(native).code_version == version_of(reinterpret_cast<PyCodeObject*>(code));
    return is_own ? &as_native(native) : nullptr;
}

/// Whether a call gives every argument, each where its parameter stands.
inline bool are_in_order(const PyCodeObject& code, Py_ssize_t positional, PyObject* keywords) {
    const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    if (positional > code.co_argcount || positional + named != code.co_argcount + code.co_kwonlyargcount) {
        return false;
    }
    for (Py_ssize_t index = 0; index < named; ++index) {
        if (PyTuple_GET_ITEM(keywords, index) != PyTuple_GET_ITEM(variables_of(&code), positional + index)) {
            return false;
        }
    }
    return true;
}

/// Runs the implementation. It guards the C stack as the runtime's own native functions do: what a call runs may be
/// native, too, and call back here without a Python frame in between.
inline PyObject* run(const NativeFunction& native, PyObject* globals, PyObject* const* arguments) {
    PyThreadState* thread = thread_state();
    if (!enter_native(thread)) {
        return nullptr;
    }
    const FunctionContext context{.state = native.state, .globals = globals};
    PyObject* owner = Py_NewRef(native.owner);  // what runs may drop every function, or put other code in its place
    Py_INCREF(globals);
    PyObject* result = to_runtime([&] { return native.definition->implementation(context, arguments); });
    Py_DECREF(globals);
    Py_DECREF(owner);
    leave_native(thread);
    return result;
}

PyObject* vectorcall(PyObject* function, PyObject* const* arguments, std::size_t count, PyObject* keywords) {
    const NativeFunction* native = native_of(function);
    if (native == nullptr || !are_in_order(*reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function)),
                                           PyVectorcall_NARGS(count), keywords)) {
        return call_interpreted(function, arguments, count, keywords);
    }
    return run(*native, PyFunction_GET_GLOBALS(function), arguments);
}

/// The call out of the function's body, with all arguments bound.
PyObject* call_bound(PyObject* self, PyObject* const* arguments, Py_ssize_t count) {
    const NativeFunction& native = as_native(self);
    PyObject* globals = PyEval_GetGlobals();
    if (static_cast<std::size_t>(count) != native.definition->parameter_count || globals == nullptr) {
        PyErr_Format(PyExc_TypeError, "%s() is to be called by the function of that name", native.definition->name);
        return nullptr;
    }
    return run(native, globals, arguments);
}

/// Throws where code does not have the parameters of its definition.
void check_parameters(const PyCodeObject* code, const FunctionDef& definition) {
    const int count = code->co_argcount + code->co_kwonlyargcount;
    const Ref names = Ref::steal(PyTuple_GetSlice(variables_of(code), 0, count));
    const Ref joined = Ref::steal(PyUnicode_Join(text(" ").get(), names.get()));
    if (PyUnicode_CompareWithASCIIString(joined.get(), definition.parameters) != 0 ||
        static_cast<std::size_t>(count) != definition.parameter_count) {
        raise(PyExc_SystemError, "%s() has other parameters than: %s", definition.name, definition.parameters);
    }
}

/// The constants of a function's code with the native function in the place of `...`.
Ref constants_with(PyObject* constants, PyObject* native) {
    if (PyTuple_GET_SIZE(constants) <= native_place || PyTuple_GET_ITEM(constants, native_place) != Py_Ellipsis) {
        raise(PyExc_SystemError, "%s() has no place for its native code", as_native(native).definition->name);
    }
    const Ref changed = Ref::steal(PySequence_List(constants));
    check(PyList_SetItem(changed.get(), native_place, Py_NewRef(native)));
    return Ref::steal(PySequence_Tuple(changed.get()));
}

PyMethodDef methods[] = {
    {"call", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(call_bound)), METH_FASTCALL, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_methods, methods},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {0, nullptr},
};

PyType_Spec type_spec = {
    .name = "quorl_dendra.tool_handlers.health.native_function",
    .basicsize = sizeof(NativeFunction),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
    .slots = slots,
};

}  // namespace

Ref make_native_function_type() {
    PyObject* type = PyType_FromSpec(&type_spec);
    if (type == nullptr && PyErr_Occurred() == nullptr) {
        PyErr_NoMemory();  // the runtime leaves it unsaid when there is no memory for the type's name
    }
    return Ref::steal(type);
}

void make_native(PyObject* function, const FunctionDef& definition, PyObject* native_function_type, PyObject* state) {
    if (!PyFunction_Check(function)) {
        raise(PyExc_TypeError, "%s must be a function, not %.100s", definition.name, Py_TYPE(function)->tp_name);
    }
    const Ref code = Ref::borrow(PyFunction_GET_CODE(function));
    check_parameters(reinterpret_cast<PyCodeObject*>(code.get()), definition);
    auto* type = reinterpret_cast<PyTypeObject*>(native_function_type);
    const Ref native = Ref::steal(type->tp_alloc(type, 0));
    as_native(native.get()).definition = &definition;
    as_native(native.get()).owner = Py_NewRef(state);
    as_native(native.get()).state = PyCapsule_GetPointer(state, nullptr);
    const Ref constants = constants_with(reinterpret_cast<PyCodeObject*>(code.get())->co_consts, native.get());
    const Ref keywords = make_tuple(text("co_consts").get());
    std::array<PyObject*, 2> arguments{nullptr, constants.get()};
    const Ref replace = get_attribute(code.get(), "replace");
    const Ref changed = call_vector(replace.get(), arguments.data() + 1, 0, keywords.get());
    check(PyObject_SetAttrString(function, "__code__", changed.get()));
    as_native(native.get()).code_version = version_of(reinterpret_cast<PyCodeObject*>(changed.get()));
    if (!definition.has_frame) {
        PyFunction_SetVectorcall(reinterpret_cast<PyFunctionObject*>(function), vectorcall);
    }
}

bool is_original(PyObject* object, const FunctionDef& definition, PyObject* globals) {
    if (!PyFunction_Check(object) || reinterpret_cast<PyFunctionObject*>(object)->vectorcall != vectorcall ||
        PyFunction_GET_GLOBALS(object) != globals) {
        return false;
    }
    const NativeFunction* native = native_of(object);
    return native != nullptr && native->definition->implementation == definition.implementation;
}

}  // namespace health::py
