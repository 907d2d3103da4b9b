// Sorting by keys that are mostly plain: natively where all are, by the runtime's own sort where any is not.
#pragma once

#include <Python.h>

#include <algorithm>
#include <cstddef>

#include "health/python/memory.hpp"
#include "health/python/object.hpp"

namespace health {

/// The positions of a list's items in ascending order, equal ones in the order they stand in.
using Order = py::Vector<std::size_t>;

/// Orders `count` items by the tuples that `key_of(index)` makes. The members are compared as the runtime compares
/// them, which may run Python code and raise.
template <class KeyOf>
Order order_by_runtime(std::size_t count, KeyOf&& key_of) {
    const py::Ref keys = py::Ref::steal(PyList_New(0));
    PyObject_GC_UnTrack(keys.get());  // so that no Python code finds it through the collector
    for (std::size_t index = 0; index < count; ++index) {
        const py::Ref position = py::Ref::steal(PyLong_FromSize_t(index));
        const py::Ref key = key_of(index);
        py::check(PyList_Append(keys.get(), py::make_tuple(key.get(), position.get()).get()));
    }
    py::check(PyList_Sort(keys.get()));
    Order order;
    order.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        PyObject* key = PyList_GET_ITEM(keys.get(), static_cast<Py_ssize_t>(index));
        order.push_back(PyLong_AsSize_t(PyTuple_GET_ITEM(key, 1)));
    }
    return order;
}

/// Orders native keys, which compare without running Python code; a key's last member is its position.
template <class Key>
Order order_natively(py::Vector<Key> keys) {
    std::sort(keys.begin(), keys.end());
    Order order;
    order.reserve(keys.size());
    for (const Key& key : keys) {
        order.push_back(key.position);
    }
    return order;
}

}  // namespace health
