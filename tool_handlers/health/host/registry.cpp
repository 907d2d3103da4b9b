#include "health/host/registry.hpp"

#include "health/python/dict.hpp"

namespace health {

using py::Ref;

namespace {

/// `TOOLS.get(tool)`: the tool's description, or None.
Ref look_up(const Module& module, PyObject* tool) {
    const Ref tools = module.get(Name::TOOLS);
    if (!PyDict_CheckExact(tools.get())) {
        return py::call_method(tools.get(), module[Name::get], tool);
    }
    PyObject* found = py::find(tools.get(), tool);
    return Ref::borrow(found == nullptr ? Py_None : found);
}

}  // namespace

bool has_tool(const Module& module, PyObject* tool) {
    return look_up(module, tool).get() != Py_None;
}

bool has_action(const Module& module, PyObject* tool, PyObject* action) {
    const Ref description = look_up(module, tool);
    if (description.get() == Py_None) {
        return false;
    }
    return action == Py_None || py::call_method(description.get(), module[Name::action], action).get() != Py_None;
}

Ref known(const Module& module, PyObject* tool, PyObject* action) {
    return py::boolean(has_action(module, tool, action));
}

bool is_known(const Module& module, PyObject* tool, PyObject* action) {
    if (module.is_original(Name::_known, known_def)) {
        return has_action(module, tool, action);
    }
    return py::is_true(py::call(module.get(Name::_known).get(), tool, action).get());
}

}  // namespace health
