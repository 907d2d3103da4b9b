// A cache of dictionary look-ups that have been made, as the runtime's own cache of type attributes is one.
//
// An entry holds a key, the value borrowed from the dictionary, and the dictionary's version: a number that no other
// state of any dictionary of this interpreter has. It serves while the dictionary has that version and the value is
// not dying (see `version_of`), so its answer is that of a look-up. It is found without running Python code, and
// without building the key where that is a tuple. Each key has one place; another that has the same one takes it over.
//
// An entry keeps its key alive until another takes its place, also when the dictionary is gone: at most 1,024 keys.
//
// Only such keys are held as are compared and dropped without Python code: a text, exactly a str, or a tuple of parts
// that are exactly str, None or bool.
#pragma once

#include <Python.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "health/python/ref.hpp"
#include "health/python/runtime.hpp"

namespace health::py {

class LookupCache {
public:
    template <std::size_t Count>
    using Key = std::array<PyObject*, Count>;  // the parts of a tuple; a single one stands for itself

    /// The value under a key of `dict`, which may be any object or nullptr; nullptr if it is not known. Borrowed, and
    /// good until Python code may run; runs none itself.
    template <std::size_t Count>
    PyObject* find(PyObject* dict, const Key<Count>& key) const {
        if (dict == nullptr || !PyDict_CheckExact(dict)) {
            return nullptr;
        }
        const Entry& entry = entries_[place_of(dict, key)];
        if (entry.version != version_of(dict) || !is_same_key(entry.key.get(), key) || is_dying(entry.value)) {
            return nullptr;
        }
        HEALTH_ASSERT(is_held(dict, entry.value), "the look-up cache knows a value that its dictionary does not hold");
        return entry.value;
    }

    /// Keeps what a look-up in a dictionary, exactly a dict, has just found; nothing for any other key. Runs nothing.
    template <std::size_t Count>
    void remember(PyObject* dict, const Key<Count>& parts, PyObject* key, PyObject* value) {
        for (PyObject* part : parts) {
            if (!PyUnicode_CheckExact(part) && part != Py_None && !PyBool_Check(part)) {
                return;
            }
        }
        Entry& entry = entries_[place_of(dict, parts)];
        entry.version = version_of(dict);
        entry.value = value;
        entry.key = Ref::borrow(key);
    }

private:
    struct Entry {
        std::uint64_t version = 0;  // that no dictionary has
        PyObject* value = nullptr;  // borrowed from the dictionary while it has that version
        Ref key;
    };

    static constexpr std::size_t size = 1024;

    static std::size_t hash_of(PyObject* part) {
        return PyUnicode_CheckExact(part) ? static_cast<std::size_t>(hash_of_text(part))
                                          : reinterpret_cast<std::uintptr_t>(part) >> 4;
    }

    template <std::size_t Count>
    static std::size_t place_of(PyObject* dict, const Key<Count>& key) {
        std::size_t hash = reinterpret_cast<std::uintptr_t>(dict) >> 4;
        for (PyObject* part : key) {
            hash = std::rotl(hash, 5) ^ hash_of(part);
        }
        return (hash ^ hash >> 10) % size;
    }

    /// Whether the dictionary holds the value, under whatever key.
    static bool is_held(PyObject* dict, PyObject* value) {
        Py_ssize_t position = 0;
        PyObject* held = nullptr;
        while (held != value && PyDict_Next(dict, &position, nullptr, &held) != 0) {}
        return held == value;
    }

    static bool is_same(PyObject* left, PyObject* right) {
        return left == right ||
               (PyUnicode_CheckExact(left) && PyUnicode_CheckExact(right) && is_same_text(left, right));
    }

    template <std::size_t Count>
    static bool is_same_key(PyObject* held, const Key<Count>& key) {
        PyObject* const* parts = &held;
        if constexpr (Count > 1) {
            if (!PyTuple_CheckExact(held) || PyTuple_GET_SIZE(held) != static_cast<Py_ssize_t>(Count)) {
                return false;
            }
            parts = PySequence_Fast_ITEMS(held);
        }
        return std::equal(key.begin(), key.end(), parts, is_same);
    }

    std::array<Entry, size> entries_;
};

}  // namespace health::py
