#include "health/host/registry.hpp"

#include "health/python/dict.hpp"

namespace health {

using py::Ref;

namespace {

/// `TOOLS.get(tool)`: the tool's description, or None.
Ref look_up(const Host& host, PyObject* tool) {
    const Ref tools = host.get(Name::TOOLS);
    if (!PyDict_CheckExact(tools.get())) {
        return py::call_method(tools.get(), host.names[Name::get], tool);
    }
    PyObject* found = py::find(tools.get(), tool);
    return Ref::borrow(found == nullptr ? Py_None : found);
}

}  // namespace

bool has_tool(const Host& host, PyObject* tool) {
    return look_up(host, tool).get() != Py_None;
}

bool has_action(const Host& host, PyObject* tool, PyObject* action) {
    const Ref description = look_up(host, tool);
    if (description.get() == Py_None) {
        return false;
    }
    return action == Py_None || py::call_method(description.get(), host.names[Name::action], action).get() != Py_None;
}

bool is_known(const Host& host, PyObject* tool, PyObject* action) {
    if (host.is_own(Name::_known, host.own.known)) {
        return has_action(host, tool, action);
    }
    return py::is_true(py::call(host.get(Name::_known).get(), tool, action).get());
}

}  // namespace health
