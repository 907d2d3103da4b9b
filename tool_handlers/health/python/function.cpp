#include "health/python/function.hpp"

#include <structmember.h>

#include <cstddef>

#include "health/python/arguments.hpp"
#include "health/python/object.hpp"

namespace health::py {

namespace {

struct Function {
    PyObject ob_base;
    vectorcallfunc vectorcall;
    const Definition* definition;
    void* context;            // valid while `module` is held
    PyObject* module;         // NULL once the collector has cleared this function
    PyObject* owner;          // the type a method belongs to; NULL for a function of the module
    PyObject* names;          // the parameters' names, interned
    PyObject* name;           // `__name__`
    PyObject* qualname;       // `__qualname__`
    PyObject* module_name;    // `__module__`
    PyObject* globals;        // `__globals__`
    PyObject* documentation;  // `__doc__`
    PyObject* annotations;    // `__annotations__`
    PyObject* defaults;       // `__defaults__`
    PyObject* kwdefaults;     // `__kwdefaults__`
    PyObject* weak_references;
};

Function& as_function(PyObject* object) {
    return *reinterpret_cast<Function*>(object);
}

[[noreturn]] void reject_receiver(const Function& function, PyObject* receiver) {
    raise(PyExc_TypeError, "descriptor '%U' for '%.100s' objects doesn't apply to a '%.100s' object", function.name,
          reinterpret_cast<PyTypeObject*>(function.owner)->tp_name, Py_TYPE(receiver)->tp_name);
}

Ref call_function(const Function& function, PyObject* const* given, Py_ssize_t positional, PyObject* keywords) {
    if (function.module == nullptr) {
        raise(PyExc_RuntimeError, "a function of a module that is gone was called");
    }
    const Arguments arguments(*function.definition, function.names, function.qualname, given, positional, keywords);
    if (function.owner != nullptr &&
        !PyObject_TypeCheck(arguments.data()[0], reinterpret_cast<PyTypeObject*>(function.owner))) {
        reject_receiver(function, arguments.data()[0]);
    }
    return function.definition->implementation(function.context, arguments.data());
}

/// The entry of every call. It guards the C stack, as the runtime's own native functions do: what a call runs may be
/// native, too, and call back here without a Python frame in between. Where depth is left, what `Py_EnterRecursiveCall`
/// and its counterpart do is done here with one look-up of the thread instead of two; where none is, the runtime
/// decides.
PyObject* vectorcall(PyObject* self, PyObject* const* arguments, std::size_t count, PyObject* keywords) {
    PyThreadState* thread = _PyThreadState_UncheckedGet();
    if (thread->c_recursion_remaining > 0) {
        --thread->c_recursion_remaining;
    } else if (Py_EnterRecursiveCall(" while calling a Python object") != 0) {
        return nullptr;
    }
    PyObject* result =
        to_runtime([&] { return call_function(as_function(self), arguments, PyVectorcall_NARGS(count), keywords); });
    ++thread->c_recursion_remaining;
    return result;
}

PyObject* bind_to(PyObject* self, PyObject* object, PyObject* /*type*/) {
    return object == nullptr || object == Py_None ? Py_NewRef(self) : PyMethod_New(self, object);
}

// What tools read off a function.

/// One `inspect.Parameter`.
Ref describe(PyObject* parameter_type, PyObject* empty, const Parameter& parameter) {
    const bool by_name = parameter.kind == Kind::keyword_only;
    const Ref kind = get_attribute(parameter_type, by_name ? "KEYWORD_ONLY" : "POSITIONAL_OR_KEYWORD");
    const Ref name = text(parameter.name);
    const Ref annotation = parameter.annotation == nullptr ? Ref::borrow(empty) : text(parameter.annotation);
    const Ref keywords = make_tuple(text("default").get(), text("annotation").get());
    std::array<PyObject*, 5> arguments{nullptr, name.get(), kind.get(), parameter.defaults_to_none ? Py_None : empty,
                                       annotation.get()};
    return call_vector(parameter_type, arguments.data() + 1, 2, keywords.get());
}

PyObject* get_signature(PyObject* self, void* /*closure*/) {
    return to_runtime([&] {
        const Definition& definition = *as_function(self).definition;
        const Ref inspect = Ref::steal(PyImport_ImportModule("inspect"));
        const Ref parameter_type = get_attribute(inspect.get(), "Parameter");
        const Ref empty = get_attribute(parameter_type.get(), "empty");
        const Ref parameters = Ref::steal(PyList_New(0));
        for (const Parameter& parameter : definition.parameters) {
            check(PyList_Append(parameters.get(), describe(parameter_type.get(), empty.get(), parameter).get()));
        }
        const Ref keywords = make_tuple(text("return_annotation").get());
        const Ref result = text(definition.result);
        std::array<PyObject*, 3> arguments{nullptr, parameters.get(), result.get()};
        return call_vector(get_attribute(inspect.get(), "Signature").get(), arguments.data() + 1, 1, keywords.get());
    });
}

PyObject* represent(PyObject* self) {
    return PyUnicode_FromFormat("<function %U at %p>", as_function(self).qualname, self);
}

/// Functions are copied and pickled by name, as the runtime's own are.
PyObject* reduce(PyObject* self, PyObject* /*none*/) {
    return Py_NewRef(as_function(self).qualname);
}

// Making one.

Ref annotations_of(const Definition& definition) {
    Ref annotations = Ref::steal(PyDict_New());
    for (const Parameter& parameter : definition.parameters) {
        if (parameter.annotation != nullptr) {
            check(PyDict_SetItemString(annotations.get(), parameter.name, text(parameter.annotation).get()));
        }
    }
    check(PyDict_SetItemString(annotations.get(), "return", text(definition.result).get()));
    return annotations;
}

Ref names_of(const Definition& definition) {
    Ref names = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(definition.parameters.size())));
    Py_ssize_t index = 0;
    for (const Parameter& parameter : definition.parameters) {
        PyTuple_SET_ITEM(names.get(), index++, Ref::steal(PyUnicode_InternFromString(parameter.name)).release());
    }
    return names;
}

/// The tuple of the defaults, or None where there are none.
Ref defaults_of(const Definition& definition) {
    Py_ssize_t count = 0;
    for (const Parameter& parameter : definition.parameters) {
        count += parameter.defaults_to_none ? 1 : 0;
    }
    if (count == 0) {
        return none();
    }
    Ref defaults = Ref::steal(PyTuple_New(count));
    for (Py_ssize_t index = 0; index < count; ++index) {
        PyTuple_SET_ITEM(defaults.get(), index, Py_NewRef(Py_None));
    }
    return defaults;
}

Ref make(const FunctionHome& home, const Definition& definition, PyTypeObject* owner) {
    Ref made = Ref::steal(home.function_type->tp_alloc(home.function_type, 0));
    Function& function = as_function(made.get());
    function.vectorcall = vectorcall;
    function.definition = &definition;
    function.context = home.context;
    function.module = Py_NewRef(home.module);
    function.owner = Py_XNewRef(reinterpret_cast<PyObject*>(owner));
    function.names = names_of(definition).release();
    function.name = Ref::steal(PyUnicode_InternFromString(definition.name)).release();
    function.qualname =
        owner == nullptr
            ? Py_NewRef(function.name)
            : Ref::steal(PyUnicode_FromFormat("%U.%s",
                                              get_attribute(reinterpret_cast<PyObject*>(owner), "__qualname__").get(),
                                              definition.name))
                  .release();
    function.module_name = get_attribute(home.module, "__name__").release();
    function.globals = Py_NewRef(PyModule_GetDict(home.module));
    function.documentation = text(definition.documentation).release();
    function.annotations = annotations_of(definition).release();
    function.defaults = defaults_of(definition).release();
    function.kwdefaults = Py_NewRef(Py_None);
    return made;
}

// The type.

int traverse(PyObject* self, visitproc visit, void* arg) {
    const Function& function = as_function(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(function.module);
    Py_VISIT(function.owner);
    Py_VISIT(function.globals);
    Py_VISIT(function.annotations);
    Py_VISIT(function.defaults);
    Py_VISIT(function.kwdefaults);
    return 0;
}

int clear(PyObject* self) {
    Function& function = as_function(self);
    Py_CLEAR(function.module);
    Py_CLEAR(function.owner);
    Py_CLEAR(function.globals);
    Py_CLEAR(function.annotations);
    Py_CLEAR(function.defaults);
    Py_CLEAR(function.kwdefaults);
    return 0;
}

void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Function& function = as_function(self);
    if (function.weak_references != nullptr) {
        PyObject_ClearWeakRefs(self);
    }
    clear(self);
    Py_CLEAR(function.names);
    Py_CLEAR(function.name);
    Py_CLEAR(function.qualname);
    Py_CLEAR(function.module_name);
    Py_CLEAR(function.documentation);
    type->tp_free(self);
    Py_DECREF(type);
}

constexpr auto offset_of_vectorcall = static_cast<Py_ssize_t>(offsetof(Function, vectorcall));

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offset_of_vectorcall, READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(Function, weak_references), READONLY, nullptr},
    {"__name__", T_OBJECT_EX, offsetof(Function, name), READONLY, nullptr},
    {"__qualname__", T_OBJECT_EX, offsetof(Function, qualname), READONLY, nullptr},
    {"__module__", T_OBJECT_EX, offsetof(Function, module_name), READONLY, nullptr},
    {"__globals__", T_OBJECT_EX, offsetof(Function, globals), READONLY, nullptr},
    {"__doc__", T_OBJECT_EX, offsetof(Function, documentation), READONLY, nullptr},
    {"__annotations__", T_OBJECT_EX, offsetof(Function, annotations), READONLY, nullptr},
    {"__defaults__", T_OBJECT_EX, offsetof(Function, defaults), READONLY, nullptr},
    {"__kwdefaults__", T_OBJECT_EX, offsetof(Function, kwdefaults), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef computed[] = {
    {"__signature__", get_signature, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef methods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(bind_to)},
    {Py_tp_repr, reinterpret_cast<void*>(represent)},
    {Py_tp_members, members},
    {Py_tp_getset, computed},
    {Py_tp_methods, methods},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {0, nullptr},
};

PyType_Spec type_spec = {
    .name = "quorl_dendra.tool_handlers.health.function",
    .basicsize = sizeof(Function),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
             Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
    .slots = slots,
};

}  // namespace

Ref make_function_type(PyObject* module) {
    return make_type(module, type_spec);
}

Ref make_function(const FunctionHome& home, const Definition& definition) {
    return make(home, definition, nullptr);
}

Ref make_method(const FunctionHome& home, const Definition& definition, PyTypeObject* owner) {
    return make(home, definition, owner);
}

}  // namespace health::py
