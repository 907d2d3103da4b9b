#include "health/host/registry.hpp"

namespace health {

using py::Ref;

namespace {

/// `TOOLS.get(tool)`: the tool's description, or None.
Ref look_up(const Module& module, PyObject* tool) {
    return py::call_method(module.get(Name::TOOLS).get(), module[Name::get], tool);
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
