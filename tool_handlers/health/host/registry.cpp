#include "health/host/registry.hpp"

namespace health {

using py::Ref;

namespace {

/// `TOOLS.get(tool)`: the tool's description, or None.
Ref look_up(const Context& context, PyObject* tool) {
    return py::call_method(context.get(Name::TOOLS).get(), context[Name::get], tool);
}

}  // namespace

bool has_tool(const Context& context, PyObject* tool) { return look_up(context, tool).get() != Py_None; }

Ref known(const Context& context, PyObject* tool, PyObject* action) {
    const Ref description = look_up(context, tool);
    if (description.get() == Py_None || action == Py_None) {
        return py::boolean(description.get() != Py_None);
    }
    return py::boolean(py::call_method(description.get(), context[Name::action], action).get() != Py_None);
}

bool is_known(const Context& context, PyObject* tool, PyObject* action) {
    return py::is_true(call_by_name<known>(context, Name::_known, known_def, tool, action).get());
}

}  // namespace health
