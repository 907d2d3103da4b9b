// The tracker's two mappings, `_state` and `_usage`. They are dictionaries unless a host put another mapping in place;
// then its own methods are used.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"
#include "health/python/memory.hpp"
#include "health/python/object.hpp"
#include "health/tracker/fields.hpp"

namespace health {

/// `mapping.get(key)`, empty for None; and what was found is kept in the cache, for `LookupCache::find` by the parts of
/// the key. Runs Python code where the mapping is no dictionary, or comparing keys does. Throws what that raises.
template <std::size_t Count>
py::Ref look_up(const Context& context, PyObject* mapping, const py::LookupCache::Key<Count>& parts, PyObject* key) {
    if (PyDict_CheckExact(mapping)) {
        PyObject* found = py::find(mapping, key);
        if (found == nullptr || found == Py_None) {
            return {};
        }
        context.state.lookups.remember(mapping, parts, key, found);
        return py::Ref::borrow(found);
    }
    py::Ref found = py::call_method(mapping, context[Name::get], key);
    return found.get() == Py_None ? py::Ref() : std::move(found);
}

/// The record of a tool, borrowed, if it is found without running Python code; else nullptr. `fields`: of a direct
/// tracker, or nullptr.
inline PyObject* find_known_tool(const Context& context, PyObject** fields, PyObject* tool_name) {
    return fields != nullptr && PyUnicode_CheckExact(tool_name)
               ? context.state.lookups.find<1>(fields[TrackerFields::state], {tool_name})
               : nullptr;
}

struct MappingEntry {
    py::Ref key;
    py::Ref record;
};

/// `list(mapping.items())`. Of a dictionary it runs no Python code, so it is one state of it whatever happens later.
py::RefVector<MappingEntry> list_entries(const Context& context, PyObject* mapping);

}  // namespace health
