// Set access that runs no Python code.
#pragma once

#include <Python.h>

#include <algorithm>

namespace health::py {

/// Whether a set, exactly a set or anything else, is seen to hold a text, exactly a str: found where a look-up would
/// look first. False where that takes comparing keys that are not plain, or a longer search. Runs no Python code.
inline bool is_seen_in(PyObject* set, PyObject* text) {
    if (set == nullptr || !PySet_CheckExact(set)) {
        return false;
    }
    constexpr Py_ssize_t neighbours = 9;
    const Py_hash_t hash = PyObject_Hash(text);
    const auto& table = *reinterpret_cast<PySetObject*>(set);
    const auto first = static_cast<Py_ssize_t>(static_cast<std::size_t>(hash) & static_cast<std::size_t>(table.mask));
    const Py_ssize_t last = std::min(first + neighbours, table.mask);
    for (Py_ssize_t place = first; place <= last; ++place) {
        const setentry& entry = table.table[place];
        if (entry.key == text ||
            (entry.hash == hash && PyUnicode_CheckExact(entry.key) && _PyUnicode_EQ(entry.key, text) != 0)) {
            return true;
        }
    }
    return false;
}

}  // namespace health::py
