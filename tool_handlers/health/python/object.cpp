#include "health/python/object.hpp"

namespace health::py {

Ref PlainAttribute::get(PyObject* object, PyObject* name) {
    PyTypeObject* type = Py_TYPE(object);
    Py_INCREF(object);  // without a guard: this is on every failed call's path
    if ((version_ == 0 || type->tp_version_tag != version_) && is_plain(type, name)) {
        version_ = type->tp_version_tag;
    }
    const bool is_known = version_ != 0 && type->tp_version_tag == version_;
    PyObject* value = is_known ? PyObject_GenericGetAttr(object, name) : nullptr;
    if (is_known && value == nullptr) {
        PyErr_Clear();
    }
    Py_DECREF(object);
    return Ref::steal_optional(value);
}

bool PlainAttribute::is_plain(PyTypeObject* type, PyObject* name) {
    if (type->tp_getattro != PyObject_GenericGetAttr) {
        return false;
    }
    PyObject* descriptor = _PyType_Lookup(type, name);  // which also gives the class a version
    return descriptor == nullptr || Py_TYPE(descriptor)->tp_descr_get == nullptr ||
           Py_IS_TYPE(descriptor, &PyMemberDescr_Type);
}

Ref first_item(PyObject* sequence) {
    if (PyTuple_CheckExact(sequence) && PyTuple_GET_SIZE(sequence) > 0) {
        return Ref::borrow(PyTuple_GET_ITEM(sequence, 0));
    }
    const Ref zero = Ref::steal(PyLong_FromLong(0));
    return get_item(sequence, zero.get());
}

Ref call_vector(PyObject* callable, PyObject* const* arguments, std::size_t count, PyObject* keywords) {
    return Ref::steal(PyObject_Vectorcall(callable, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET, keywords));
}

Ref call_method_vector(PyObject* name, PyObject* const* arguments, std::size_t count) {
    return Ref::steal(PyObject_VectorcallMethod(name, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

Ref next_item(PyObject* iterator) {
    Ref item = Ref::steal_optional(PyIter_Next(iterator));
    if (!item && PyErr_Occurred() != nullptr) {
        throw_current();
    }
    return item;
}

void unpack(PyObject* iterable, Ref* items, Py_ssize_t count) {
    if (PyTuple_CheckExact(iterable) && PyTuple_GET_SIZE(iterable) == count) {
        for (Py_ssize_t index = 0; index < count; ++index) {
            items[index] = Ref::borrow(PyTuple_GET_ITEM(iterable, index));
        }
        return;
    }
    if (Py_TYPE(iterable)->tp_iter == nullptr && !PySequence_Check(iterable)) {
        raise(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(iterable)->tp_name);
    }
    const Ref iterator = Ref::steal(PyObject_GetIter(iterable));
    for (Py_ssize_t index = 0; index < count; ++index) {
        items[index] = next_item(iterator.get());
        if (!items[index]) {
            raise(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)", count, index);
        }
    }
    if (next_item(iterator.get())) {
        raise(PyExc_ValueError, "too many values to unpack (expected %zd)", count);
    }
}

}  // namespace health::py
