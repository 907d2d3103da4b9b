// Dictionary access: borrowed look-ups, and the version by which a dictionary tells that it has not changed.
#pragma once

#include <Python.h>

#include <cstdint>

#include "health/python/error.hpp"

namespace health::py {

/// The value under `key`, or nullptr. Borrowed: hold it with a `Ref` before anything may run Python code.
/// Runs Python code only if `key`, or a key of the same hash, is of a type with its own `__eq__`.
inline PyObject* find(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr && PyErr_Occurred() != nullptr) {
        throw_current();
    }
    return value;
}

/// Whether all keys of a dictionary are exactly texts: then a look-up of a text runs no Python code. Runs none itself.
inline bool has_plain_keys(PyObject* dict) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    bool are_plain = true;
    while (are_plain && PyDict_Next(dict, &position, &key, nullptr) != 0) {
        are_plain = PyUnicode_CheckExact(key);
    }
    return are_plain;
}

/// A number that no other state of any dictionary of this interpreter has: while it stays the same, the
/// dictionary holds the same keys and values. Runs nothing.
inline std::uint64_t version_of(PyObject* dict) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // gone in later runtimes; this module is built for one
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
}

}  // namespace health::py
