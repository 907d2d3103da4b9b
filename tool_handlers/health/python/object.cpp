#include "health/python/object.hpp"

namespace health::py {

bool has_text_keys(PyObject* dict) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    while (PyDict_Next(dict, &position, &key, nullptr) != 0) {
        if (!PyUnicode_CheckExact(key)) {
            return false;
        }
    }
    return true;
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
