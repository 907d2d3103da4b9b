// Attribute, item and call access that throws.
//
// Everything here may run Python code and so release the GIL, but for what says otherwise.
#pragma once

#include <Python.h>

#include <array>

#include "health/python/error.hpp"
#include "health/python/ref.hpp"

namespace health::py {

inline Ref get_attribute(PyObject* object, PyObject* name) { return Ref::steal(PyObject_GetAttr(object, name)); }

/// Reads one attribute of objects that are mostly of one class.
class PlainAttribute {
public:
    /// The attribute if the class has plain access to it; else empty, with no error set. It runs Python code only where
    /// an odd key in a namespace is compared with the name; so read what you rely on afterwards.
    Ref get(PyObject* object, PyObject* name);

private:
    static bool is_plain(PyTypeObject* type, PyObject* name);

    unsigned int version_ = 0;  // of the class for which the attribute was last found plain; 0 for none
};

inline Ref get_item(PyObject* container, PyObject* key) { return Ref::steal(PyObject_GetItem(container, key)); }

/// `sequence[0]` of any object that can be indexed by position.
Ref first_item(PyObject* sequence);

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
