// The records `_ToolState`, what is known of one tool's health, and `_Usage`, how many calls one usage key counts; and
// the usage key.
#pragma once

#include <Python.h>

#include <array>

#include "health/module/context.hpp"
#include "health/python/object_class.hpp"

namespace health {

// The fields of the records, in their order.

struct ToolStateFields {
    enum Field : unsigned char { call_count, error_count, last_error, disabled_at, updated_at, consecutive_errors };
    static constexpr std::array names{"call_count",  "error_count", "last_error",
                                      "disabled_at", "updated_at",  "consecutive_errors"};
};

struct UsageFields {
    enum Field : unsigned char { calls, timed_calls, total_ms };
    static constexpr std::array names{"calls", "timed_calls", "total_ms"};
};

using ToolStateView = py::View<ToolStateFields>;
using UsageView = py::View<UsageFields>;

inline ToolStateView view_tool_state(const Context& context, PyObject* record) {
    return {context.state.tool_state, record};
}
inline UsageView view_usage(const Context& context, PyObject* record) { return {context.state.usage, record}; }

// New records, of the types that the namespace holds. Python code runs only if those were replaced or changed. Throws a
// MemoryError, a NameError, and what that code raises.

/// `_ToolState()`
py::Ref make_tool_state(const Context& context);
/// The same with all fields but `consecutive_errors`, given by name.
py::Ref make_tool_state(const Context& context, PyObject* call_count, PyObject* error_count, PyObject* last_error,
                        PyObject* disabled_at, PyObject* updated_at);
/// `_Usage()`
py::Ref make_usage(const Context& context);
/// `_Usage(calls, timed_calls, total_ms)`
py::Ref make_usage(const Context& context, PyObject* calls, PyObject* timed_calls, PyObject* total_ms);

/// The members of a usage key: the tool, the action or None, the outcome, whether a synonym was used.
enum KeyMember : unsigned char { key_tool, key_action, key_outcome, key_alias_hit };
using KeyParts = std::array<PyObject*, 4>;  // before they are a tuple

/// A key of a mapping as a tuple of these members: the key itself if it is one, else it is unpacked, which may run
/// Python code; throws what an unpacking into four raises.
py::Ref key_tuple(py::Ref key);

/// A member of such a tuple, borrowed.
inline PyObject* member_of(const py::Ref& key, KeyMember member) { return PyTuple_GET_ITEM(key.get(), member); }

}  // namespace health
