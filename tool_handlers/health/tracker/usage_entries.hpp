// The usage counts as the flush and the summary walk over them.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"
#include "health/python/ref_vector.hpp"

namespace health {

/// A usage key and its record.
struct UsageEntry {
    py::Ref key;
    py::Ref record;
};

/// Every entry of `_usage`, or of a dictionary like it, in its order. Runs no Python code, so it is one state of the
/// dictionary whatever happens to that later.
py::RefVector<UsageEntry> list_entries(PyObject* usage);

/// The places of a usage key's members.
enum KeyMember : unsigned char { key_tool, key_action, key_outcome, key_alias_hit };

/// A usage key as a tuple of its four members: the key itself if it is one, else it is unpacked, which may run Python
/// code; throws what an unpacking into four raises.
py::Ref key_tuple(py::Ref key);

/// A member of such a tuple, borrowed.
inline PyObject* member_of(const py::Ref& key, KeyMember member) {
    return PyTuple_GET_ITEM(key.get(), member);
}

}  // namespace health
