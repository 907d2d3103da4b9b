// Attribute, item and call access that throws.
//
// Everything here may run Python code and so release the GIL, but for what says otherwise.
#pragma once

#include <Python.h>

#include <array>
#include <string_view>

#include "health/python/error.hpp"
#include "health/python/ref.hpp"

namespace health::py {

inline Ref get_attribute(PyObject* object, PyObject* name) { return Ref::steal(PyObject_GetAttr(object, name)); }

/// The value under `key` of a dict, or nullptr. Borrowed: hold it with a `Ref` before anything may run Python code.
/// Runs Python code only if `key`, or a key of the same hash, is of a type with its own `__eq__`.
inline PyObject* find(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr && PyErr_Occurred() != nullptr) {
        throw_current();
    }
    return value;
}

/// Whether all keys of a dict are exactly str: then looking up a text runs no Python code. Runs none itself.
bool has_text_keys(PyObject* dict);

/// `container[key] = value`. Of a dict as `find`.
inline void set_item(PyObject* container, PyObject* key, PyObject* value) {
    check(PyDict_CheckExact(container) ? PyDict_SetItem(container, key, value)
                                       : PyObject_SetItem(container, key, value));
}

/// A new container, taken over, that Python code cannot find through the collector: for what is made bit by bit.
inline Ref hidden(PyObject* container) {
    Ref held = Ref::steal(container);
    PyObject_GC_UnTrack(held.get());
    return held;
}

inline Ref get_item(PyObject* container, PyObject* key) { return Ref::steal(PyObject_GetItem(container, key)); }

/// `sequence[0]` of any object that can be indexed by position.
inline Ref first_item(PyObject* sequence) { return get_item(sequence, Ref::steal(PyLong_FromLong(0)).get()); }

inline bool is_true(PyObject* object) { return check(PyObject_IsTrue(object)) != 0; }

inline bool compares(PyObject* left, PyObject* right, int operation) {
    return is_true(Ref::steal(PyObject_RichCompare(left, right, operation)).get());
}

/// Calls with `count` positional arguments from `arguments`, whose slot before the first may be written to.
Ref call_vector(PyObject* callable, PyObject* const* arguments, std::size_t count, PyObject* keywords = nullptr);

template <class... Arguments>
Ref call(PyObject* callable, Arguments... arguments) {
    std::array<PyObject*, sizeof...(arguments) + 1> stack{nullptr, arguments...};
    return call_vector(callable, stack.data() + 1, sizeof...(arguments));
}

/// `object.name(...)`, without making the method where that can be saved. As `call_vector`, `arguments` stands behind a
/// slot that may be written to, and begins with the object.
Ref call_method_vector(PyObject* name, PyObject* const* arguments, std::size_t count);

template <class... Arguments>
Ref call_method(PyObject* object, PyObject* name, Arguments... arguments) {
    std::array<PyObject*, sizeof...(arguments) + 2> stack{nullptr, object, arguments...};
    return call_method_vector(name, stack.data() + 1, sizeof...(arguments) + 1);
}

/// A new text that holds `value`.
inline Ref text(const char* value) { return Ref::steal(PyUnicode_FromString(value)); }

/// The only attribute access by a C string: for set-up, where no interned name is kept.
inline Ref get_attribute(PyObject* object, const char* name) {
    return Ref::steal(PyObject_GetAttrString(object, name));
}

/// Whether an object is exactly a str, of ASCII characters only.
inline bool is_ascii(PyObject* object) { return PyUnicode_CheckExact(object) && PyUnicode_IS_COMPACT_ASCII(object); }

/// The characters of such a text, for as long as it lives.
inline std::string_view ascii_of(PyObject* text) {
    return {static_cast<const char*>(PyUnicode_DATA(text)), static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))};
}

/// `str(object)`, and what an f-string makes of an object.
inline Ref to_text(PyObject* object) { return Ref::steal(PyObject_Str(object)); }
inline Ref formatted(PyObject* object) { return Ref::steal(PyObject_Format(object, nullptr)); }

template <class... Items>
Ref make_tuple(Items... items) {
    return Ref::steal(PyTuple_Pack(sizeof...(items), items...));
}

/// The next item of an iterator; empty at its end.
Ref next_item(PyObject* iterator);

/// The members of an iterable of exactly as many as `items` holds, as an unpacking assignment takes them,
/// with its errors.
void unpack(PyObject* iterable, Ref* items, Py_ssize_t count);

template <std::size_t Count>
std::array<Ref, Count> unpack(PyObject* iterable) {
    std::array<Ref, Count> items;
    unpack(iterable, items.data(), Count);
    return items;
}

}  // namespace health::py
