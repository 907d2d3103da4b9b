#include "health/host/host.hpp"

#include "health/python/dict.hpp"

namespace health {

using py::Ref;

Ref Host::get(Name name) const {
    PyObject* value = py::find(globals, names[name]);
    if (value == nullptr) {
        py::raise(PyExc_NameError, "name '%U' is not defined", names[name]);
    }
    return Ref::borrow(value);
}

bool Host::is_own(Name name, PyObject* function) const {
    return py::find(globals, names[name]) == function;
}

void warn(const Host& host, const char* format, PyObject* error) {
    py::call_method(host.get(Name::logger).get(), host.names[Name::warning], py::text(format).get(), error);
}

Ref make_tool_state(const Host& host) {
    const Ref type = host.get(Name::_ToolState);
    return type.get() == host.records.tool_state.get() ? host.records.tool_state.make_empty() : py::call(type.get());
}

Ref make_tool_state(const Host& host, PyObject* call_count, PyObject* error_count, PyObject* last_error,
                    PyObject* disabled_at, PyObject* updated_at) {
    const Ref type = host.get(Name::_ToolState);
    if (type.get() == host.records.tool_state.get()) {
        const Ref no_run = Ref::steal(PyLong_FromLong(0));
        return host.records.tool_state.make(
            {call_count, error_count, last_error, disabled_at, updated_at, no_run.get()});
    }
    const Names& names = host.names;
    const Ref keywords = py::make_tuple(names[Name::call_count], names[Name::error_count], names[Name::last_error],
                                        names[Name::disabled_at], names[Name::updated_at]);
    std::array<PyObject*, 6> arguments{nullptr, call_count, error_count, last_error, disabled_at, updated_at};
    return py::call_vector(type.get(), arguments.data() + 1, 0, keywords.get());
}

Ref make_usage(const Host& host) {
    const Ref type = host.get(Name::_Usage);
    return type.get() == host.records.usage.get() ? host.records.usage.make_empty() : py::call(type.get());
}

Ref make_usage(const Host& host, PyObject* calls, PyObject* timed_calls, PyObject* total_ms) {
    const Ref type = host.get(Name::_Usage);
    return type.get() == host.records.usage.get() ? host.records.usage.make({calls, timed_calls, total_ms})
                                                  : py::call(type.get(), calls, timed_calls, total_ms);
}

Ref SlowCalls::ask(PyObject* tool, PyObject* action) {
    if (const std::uint64_t version = py::version_of(host_.globals); version != version_) {
        version_ = version;
        function_ = host_.get(Name::is_slow_call);
    }
    return py::call(function_.get(), tool, action);
}

}  // namespace health
