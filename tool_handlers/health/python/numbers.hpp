// Plain values, and arithmetic on them: short ways for plain numbers, the runtime's own for all others.
//
// A value is plain when it is exactly an int, a float, a str, a bool or None: neither using it nor dropping it runs
// Python code.
#pragma once

#include <Python.h>

#include "health/python/object.hpp"
#include "health/python/ref.hpp"

namespace health::py {

static_assert(sizeof(long) == 8, "counts are read as long");

inline bool is_plain_number(PyObject* object) { return PyLong_CheckExact(object) || PyFloat_CheckExact(object); }

/// Whether an object, which may be nullptr, is exactly of a type.
inline bool is_a(PyObject* object, const PyTypeObject& type) { return object != nullptr && Py_TYPE(object) == &type; }

inline bool is_plain(PyObject* object) {
    const PyTypeObject* type = Py_TYPE(object);
    return type == &PyLong_Type || type == &PyFloat_Type || type == &PyUnicode_Type || type == &PyBool_Type ||
           object == Py_None;
}

/// `left + right` as `+=` makes it. Runs Python code unless both are plain.
inline Ref add(PyObject* left, PyObject* right) {
    if (PyFloat_CheckExact(left) && PyFloat_CheckExact(right)) {
        return Ref::steal(PyFloat_FromDouble(PyFloat_AS_DOUBLE(left) + PyFloat_AS_DOUBLE(right)));
    }
    return Ref::steal(PyNumber_InPlaceAdd(left, right));
}

/// Whether an object is a plain int of one digit, as nearly all are.
inline bool is_compact(PyObject* object) {
    return PyLong_CheckExact(object) && PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(object)) != 0;
}

inline Py_ssize_t compact_value(PyObject* number) {
    return PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(number));
}

inline Ref integer(long value) { return Ref::steal(PyLong_FromLong(value)); }

/// `number + 1` as `+=` makes it. Runs Python code unless `number` is plain.
inline Ref incremented(PyObject* number) {
    return is_compact(number) ? integer(compact_value(number) + 1) : add(number, integer(1).get());
}

/// `-number`. Runs Python code unless it is plain.
inline Ref minus(PyObject* number) { return Ref::steal(PyNumber_Negative(number)); }

/// `left >= right`. Runs Python code unless both are plain.
inline bool is_at_least(PyObject* left, PyObject* right) {
    return is_compact(left) && is_compact(right) ? compact_value(left) >= compact_value(right)
                                                 : compares(left, right, Py_GE);
}

/// `round(value, digits)`. Runs Python code unless `value` is plain.
inline Ref round_by_runtime(PyObject* value, int digits) {
    const Ref round = get_item(PyEval_GetBuiltins(), text("round").get());
    return call(round.get(), value, integer(digits).get());
}

}  // namespace health::py
