// Arithmetic on the runtime's numbers: short ways for plain ones, the runtime's own for all others.
//
// A number is plain when it is exactly an int or a float: its arithmetic runs no Python code.
#pragma once

#include <Python.h>

#include "health/python/ref.hpp"

namespace health::py {

inline bool is_plain_number(PyObject* object) {
    return PyLong_CheckExact(object) || PyFloat_CheckExact(object);
}

/// `left + right` as `+=` makes it. Runs Python code unless both are plain.
inline Ref add(PyObject* left, PyObject* right) {
    if (PyFloat_CheckExact(left) && PyFloat_CheckExact(right)) {
        return Ref::steal(PyFloat_FromDouble(PyFloat_AS_DOUBLE(left) + PyFloat_AS_DOUBLE(right)));
    }
    return Ref::steal(PyNumber_InPlaceAdd(left, right));
}

/// `number + 1`. Runs Python code unless `number` is plain.
inline Ref plus_one(PyObject* number) {
    if (PyLong_CheckExact(number) && PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(number)) != 0) {
        return Ref::steal(
            PyLong_FromSsize_t(PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(number)) + 1));
    }
    const Ref one = Ref::steal(PyLong_FromLong(1));
    return add(number, one.get());
}

/// The nearest double to the exact value of `value` rounded to `digits` decimals, a tie going to the even digit.
/// Plain C++; `digits` is small.
double round_to(double value, int digits);

/// `round(value, digits)`. Runs Python code unless `value` is plain.
Ref round_by_runtime(PyObject* value, int digits);

}  // namespace health::py
