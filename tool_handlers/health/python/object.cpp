#include "health/python/object.hpp"

namespace health::py {

namespace {

void enter_call() {
    if (Py_EnterRecursiveCall(" while calling a Python object") != 0) {
        throw_current();
    }
}

}  // namespace

Ref get_plain_attribute(PyObject* object, PyObject* name) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr) {
        return {};
    }
    PyObject* descriptor = _PyType_Lookup(type, name);
    if (descriptor != nullptr && Py_TYPE(descriptor)->tp_descr_get != nullptr &&
        !Py_IS_TYPE(descriptor, &PyMemberDescr_Type)) {
        return {};
    }
    Py_INCREF(object);  // without a guard: this is on every failed call's path
    PyObject* value = PyObject_GenericGetAttr(object, name);
    Py_DECREF(object);
    if (value == nullptr) {
        PyErr_Clear();
        return {};
    }
    return Ref::steal(value);
}

Ref first_item(PyObject* sequence) {
    if (PyTuple_CheckExact(sequence) && PyTuple_GET_SIZE(sequence) > 0) {
        return Ref::borrow(PyTuple_GET_ITEM(sequence, 0));
    }
    const Ref zero = Ref::steal(PyLong_FromLong(0));
    return get_item(sequence, zero.get());
}

Ref call_vector(PyObject* callable, PyObject* const* arguments, std::size_t count, PyObject* keywords) {
    enter_call();
    PyObject* result = PyObject_Vectorcall(callable, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET, keywords);
    Py_LeaveRecursiveCall();
    return Ref::steal(result);
}

Ref call_method_vector(PyObject* name, PyObject* const* arguments, std::size_t count) {
    enter_call();
    PyObject* result = PyObject_VectorcallMethod(name, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
    Py_LeaveRecursiveCall();
    return Ref::steal(result);
}

Ref make_type(PyObject* module, PyType_Spec& description) {
    PyObject* type = PyType_FromModuleAndSpec(module, &description, nullptr);
    if (type == nullptr && PyErr_Occurred() == nullptr) {
        PyErr_NoMemory();  // the runtime leaves it unsaid when there is no memory for the type's name
    }
    return Ref::steal(type);
}

void unpack(PyObject* iterable, Ref* items, Py_ssize_t count) {
    if (!PyTuple_CheckExact(iterable) && Py_TYPE(iterable)->tp_iter == nullptr && !PySequence_Check(iterable)) {
        raise(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(iterable)->tp_name);
    }
    const Ref members = Ref::steal(PySequence_Tuple(iterable));
    const Py_ssize_t size = PyTuple_GET_SIZE(members.get());
    if (size > count) {
        raise(PyExc_ValueError, "too many values to unpack (expected %zd)", count);
    }
    if (size < count) {
        raise(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)", count, size);
    }
    for (Py_ssize_t index = 0; index < count; ++index) {
        items[index] = Ref::borrow(PyTuple_GET_ITEM(members.get(), index));
    }
}

}  // namespace health::py
