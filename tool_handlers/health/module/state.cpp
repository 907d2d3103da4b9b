#include "health/module/state.hpp"

#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"

namespace health {

using py::Ref;

namespace {

/// A dictionary with these keys and False under each.
Ref make_empty(const Names& names, std::span<const Name> keys) {
    Ref empty = Ref::steal(PyDict_New());
    for (const Name key : keys) {
        py::check(PyDict_SetItem(empty.get(), names[key], Py_False));
    }
    return empty;
}

/// What the module `json` has under a name; empty if that is not there.
Ref json_attribute(const Names& names, PyObject* globals, Name name) {
    PyObject* json = py::find(globals, names[Name::json]);
    const bool is_module = json != nullptr && PyModule_CheckExact(json);
    return Ref::borrow_optional(is_module ? py::find(PyModule_GetDict(json), names[name]) : nullptr);
}

/// A function of the module `json`, if it is the one that module defines; else empty.
Ref json_function(const Names& names, PyObject* globals, Name name) {
    Ref function = json_attribute(names, globals, name);
    if (!function || !PyFunction_Check(function.get())) {
        return {};
    }
    const auto& code = *reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function.get()));
    PyObject* json = py::find(globals, names[Name::json]);
    const bool is_own = PyFunction_GET_GLOBALS(function.get()) == PyModule_GetDict(json) && code.co_nfreevars == 0 &&
                        PyUnicode_Compare(code.co_qualname, names[name]) == 0;
    return is_own ? std::move(function) : Ref();
}

/// A type of the runtime's native module `datetime`; empty where something else stands in its place.
Ref native_type(const Names& names, PyObject* globals, Name name) {
    PyObject* type = py::find(globals, names[name]);
    const bool is_native = type != nullptr && PyType_Check(type) &&
                           !PyType_HasFeature(reinterpret_cast<PyTypeObject*>(type), Py_TPFLAGS_HEAPTYPE);
    return is_native ? Ref::borrow(type) : Ref();
}

/// The getter of a property of a class, borrowed; NULL if there is none.
PyObject* getter_of(PyObject* type, PyObject* name) {
    PyObject* property = PyType_Check(type) ? _PyType_Lookup(reinterpret_cast<PyTypeObject*>(type), name) : nullptr;
    const Ref getter = Ref::steal_optional(property == nullptr ? nullptr : PyObject_GetAttrString(property, "fget"));
    PyErr_Clear();
    return getter.get();  // which the property holds
}

PyObject* bound(const Names& names, PyObject* globals, Name name) {
    PyObject* value = py::find(globals, names[name]);
    return value == nullptr ? Py_None : value;
}

}  // namespace

void ModuleState::bind(PyObject* globals) {
    names.intern();
    locks.bind();
    tool_state.bind(names, bound(names, globals, Name::_ToolState));
    usage.bind(names, bound(names, globals, Name::_Usage));
    tracker.bind(names, bound(names, globals, Name::ToolHealthTracker));
    cooldown_getter = getter_of(bound(names, globals, Name::ToolHealthTracker), names[Name::cooldown_s]);
    originals.json_dumps = json_function(names, globals, Name::dumps);
    originals.json_encoder = json_attribute(names, globals, Name::JSONEncoder);
    originals.json_loads = json_function(names, globals, Name::loads);
    originals.datetime = native_type(names, globals, Name::datetime);
    originals.timezone = native_type(names, globals, Name::timezone);
    originals.sqlite_timestamp = Ref::borrow(bound(names, globals, Name::_SQLITE_TIMESTAMP));
    enabled_answer = py::make_tuple(Py_False, Py_None);
    empty_record = make_empty(names, health_record_keys);
    empty_row = make_empty(names, usage_row_keys);
}

Ref Module::get(Name name) const {
    PyObject* value = py::find(globals, (*this)[name]);
    if (value == nullptr) {
        py::raise(PyExc_NameError, "name '%U' is not defined", (*this)[name]);
    }
    return Ref::borrow(value);
}

bool Module::is_original(Name name, const Ref& original) const {
    return original && py::find(globals, (*this)[name]) == original.get();
}

bool Module::is_original(Name name, const py::FunctionDef& definition) const {
    PyObject* function = py::find(globals, (*this)[name]);
    return function != nullptr && py::is_original(function, definition, globals);
}

void Module::reject_tracker(PyObject* object) {
    py::raise(PyExc_TypeError, "a method of 'ToolHealthTracker' objects doesn't apply to a '%.100s' object",
              Py_TYPE(object)->tp_name);
}

void log_failure(const Module& module, const char* format, PyObject* error) {
    py::call_method(module.get(Name::logger).get(), module[Name::warning], py::text(format).get(), error);
}

Ref make_tool_state(const Module& module) {
    const Ref type = module.get(Name::_ToolState);
    if (!module.state.tool_state.is_made_by(type.get())) {
        return py::call(type.get());
    }
    const Ref zero = py::integer(0);
    const Ref never = Ref::steal(PyFloat_FromDouble(0.0));
    return module.state.tool_state.make({zero.get(), zero.get(), Py_None, Py_None, never.get(), zero.get()});
}

Ref make_tool_state(const Module& module, PyObject* call_count, PyObject* error_count, PyObject* last_error,
                    PyObject* disabled_at, PyObject* updated_at) {
    const Ref type = module.get(Name::_ToolState);
    if (module.state.tool_state.is_made_by(type.get())) {
        const Ref no_run = py::integer(0);
        return module.state.tool_state.make(
            {call_count, error_count, last_error, disabled_at, updated_at, no_run.get()});
    }
    const Ref keywords = py::make_tuple(module[Name::call_count], module[Name::error_count], module[Name::last_error],
                                        module[Name::disabled_at], module[Name::updated_at]);
    std::array<PyObject*, 6> arguments{nullptr, call_count, error_count, last_error, disabled_at, updated_at};
    return py::call_vector(type.get(), arguments.data() + 1, 0, keywords.get());
}

Ref make_usage(const Module& module) {
    const Ref type = module.get(Name::_Usage);
    if (!module.state.usage.is_made_by(type.get())) {
        return py::call(type.get());
    }
    const Ref zero = py::integer(0);
    const Ref no_time = Ref::steal(PyFloat_FromDouble(0.0));
    return module.state.usage.make({zero.get(), zero.get(), no_time.get()});
}

Ref make_usage(const Module& module, PyObject* calls, PyObject* timed_calls, PyObject* total_ms) {
    const Ref type = module.get(Name::_Usage);
    return module.state.usage.is_made_by(type.get()) ? module.state.usage.make({calls, timed_calls, total_ms})
                                                     : py::call(type.get(), calls, timed_calls, total_ms);
}

}  // namespace health
