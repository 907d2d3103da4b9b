// Set access that runs no Python code.
#pragma once

#include <Python.h>

namespace health::py {

/// Whether a set is seen to hold a text, exactly a str. It looks where the runtime would, but passes over keys that are
/// not plain instead of comparing them. False for nullptr and for what is not exactly a set. Runs no Python code.
inline bool is_seen_in(PyObject* set, PyObject* text) {
    if (set == nullptr || !PySet_CheckExact(set)) {
        return false;
    }
    constexpr std::size_t neighbours = 9;  // looked at before jumping on, unless the table ends
    const auto& table = *reinterpret_cast<PySetObject*>(set);
    const Py_hash_t hash = PyObject_Hash(text);
    const auto mask = static_cast<std::size_t>(table.mask);
    auto perturb = static_cast<std::size_t>(hash);
    for (std::size_t place = perturb & mask;; place = (place * 5 + 1 + perturb) & mask) {
        const setentry* entry = &table.table[place];
        const setentry* last = place + neighbours <= mask ? entry + neighbours : entry;
        for (; entry <= last; ++entry) {
            if (entry->key == nullptr) {
                return false;
            }
            if (entry->key == text ||
                (entry->hash == hash && PyUnicode_CheckExact(entry->key) && _PyUnicode_EQ(entry->key, text) != 0)) {
                return true;
            }
        }
        perturb >>= 5;
    }
}

}  // namespace health::py
