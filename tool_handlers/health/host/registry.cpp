#include "health/host/registry.hpp"

namespace health {

using py::Ref;

namespace {

/// `TOOLS.get(tool)`: the tool's description, or None.
Ref look_up(const Module& module, PyObject* tool) {
    return py::call_method(module.get(Name::TOOLS).get(), module[Name::get], tool);
}

}  // namespace

bool has_tool(const Module& module, PyObject* tool) { return look_up(module, tool).get() != Py_None; }

Ref known(const Module& module, PyObject* tool, PyObject* action) {
    const Ref description = look_up(module, tool);
    if (description.get() == Py_None || action == Py_None) {
        return py::boolean(description.get() != Py_None);
    }
    return py::boolean(py::call_method(description.get(), module[Name::action], action).get() != Py_None);
}

bool is_known(const Module& module, PyObject* tool, PyObject* action) {
    const bool is_own = module.is_original(Name::_known, known_def);
    const Ref answer = is_own ? known(module, tool, action) : py::call(module.get(Name::_known).get(), tool, action);
    return py::is_true(answer.get());
}

}  // namespace health
