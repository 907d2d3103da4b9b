#include "health/records/records.hpp"

#include "health/python/numbers.hpp"

namespace health {

using py::Ref;

Ref make_tool_state(const Context& context) {
    const Ref type = context.get(Name::_ToolState);
    py::ObjectClass& own = context.state.tool_state;
    if (!own.is_made_by(type.get())) {
        return py::call(type.get());
    }
    const Ref zero = py::integer(0);
    const Ref never = Ref::steal(PyFloat_FromDouble(0.0));
    return own.make(std::array{zero.get(), zero.get(), Py_None, Py_None, never.get(), zero.get()});
}

Ref make_tool_state(const Context& context, PyObject* call_count, PyObject* error_count, PyObject* last_error,
                    PyObject* disabled_at, PyObject* updated_at) {
    const Ref type = context.get(Name::_ToolState);
    py::ObjectClass& own = context.state.tool_state;
    if (own.is_made_by(type.get())) {
        const Ref no_run = py::integer(0);
        return own.make(std::array{call_count, error_count, last_error, disabled_at, updated_at, no_run.get()});
    }
    const Ref keywords = py::make_tuple(own.name(0), own.name(1), own.name(2), own.name(3), own.name(4));
    std::array<PyObject*, 6> arguments{nullptr, call_count, error_count, last_error, disabled_at, updated_at};
    return py::call_vector(type.get(), arguments.data() + 1, 0, keywords.get());
}

Ref make_usage(const Context& context) {
    const Ref type = context.get(Name::_Usage);
    py::ObjectClass& own = context.state.usage;
    if (!own.is_made_by(type.get())) {
        return py::call(type.get());
    }
    const Ref zero = py::integer(0);
    const Ref no_time = Ref::steal(PyFloat_FromDouble(0.0));
    return own.make(std::array{zero.get(), zero.get(), no_time.get()});
}

Ref make_usage(const Context& context, PyObject* calls, PyObject* timed_calls, PyObject* total_ms) {
    const Ref type = context.get(Name::_Usage);
    py::ObjectClass& own = context.state.usage;
    return own.is_made_by(type.get()) ? own.make(std::array{calls, timed_calls, total_ms})
                                      : py::call(type.get(), calls, timed_calls, total_ms);
}

Ref key_tuple(Ref key) {
    if (PyTuple_CheckExact(key.get()) && PyTuple_GET_SIZE(key.get()) == 4) {
        return key;
    }
    const auto [tool, action, outcome, alias_hit] = py::unpack<4>(key.get());
    return py::make_tuple(tool.get(), action.get(), outcome.get(), alias_hit.get());
}

}  // namespace health
