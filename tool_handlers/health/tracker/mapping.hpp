// The tracker's two mappings, `_state` and `_usage`. They are dictionaries unless a host put another mapping in place;
// then its own methods are used.
#pragma once

#include <Python.h>

#include <array>

#include "health/module/state.hpp"
#include "health/python/ref_vector.hpp"

namespace health {

/// `mapping.get(key)`, empty for None; and what was found is kept in the cache, for `LookupCache::find` by the parts of
/// the key. Runs Python code where the mapping is no dictionary or a key in it is not plain.
template <std::size_t Count>
py::Ref look_up(const Module& module, PyObject* mapping, const py::LookupCache::Key<Count>& parts, PyObject* key) {
    if (PyDict_CheckExact(mapping)) {
        PyObject* found = py::find(mapping, key);
        if (found == nullptr || found == Py_None) {
            return {};
        }
        module.state.lookups.remember(mapping, parts, key, found);
        return py::Ref::borrow(found);
    }
    py::Ref found = py::call_method(mapping, module[Name::get], key);
    return found.get() == Py_None ? py::Ref() : std::move(found);
}

/// `mapping[key] = record`. As above.
inline void put(PyObject* mapping, PyObject* key, PyObject* record) {
    py::check(PyDict_CheckExact(mapping) ? PyDict_SetItem(mapping, key, record)
                                         : PyObject_SetItem(mapping, key, record));
}

struct MappingEntry {
    py::Ref key;
    py::Ref record;
};

/// `list(mapping.items())`. Of a dictionary it runs no Python code, so it is one state of it whatever happens later.
py::RefVector<MappingEntry> list_entries(const Module& module, PyObject* mapping);

/// The places of a usage key's members.
enum KeyMember : unsigned char { key_tool, key_action, key_outcome, key_alias_hit };

/// A usage key as a tuple of its four members: the key itself if it is one, else it is unpacked, which may run Python
/// code; throws what an unpacking into four raises.
py::Ref key_tuple(py::Ref key);

/// A member of such a tuple, borrowed.
inline PyObject* member_of(const py::Ref& key, KeyMember member) { return PyTuple_GET_ITEM(key.get(), member); }

}  // namespace health
