#include "health/host/clock.hpp"

#include "health/python/dict.hpp"
#include "health/python/object.hpp"

namespace health {

using py::Ref;

ClockReading Clock::read_natively(const Names& names, PyObject* globals) {
    if (py::version_of(globals) != globals_version_ || py::version_of(module_globals_) != module_version_) {
        look_up(names, globals);
    }
    if (function_ == nullptr) {
        return {};
    }
    PyObject* function = Py_NewRef(function_);  // without a guard: this is on every call's path
    PyObject* now = PyCFunction_GET_FUNCTION(function)(PyCFunction_GET_SELF(function), nullptr);
    Ref error = Ref::steal_optional(now == nullptr ? PyErr_GetRaisedException() : nullptr);
    Py_DECREF(function);
    return {.now = Ref::steal_optional(now), .error = std::move(error)};
}

void Clock::look_up(const Names& names, PyObject* globals) {
    *this = {};
    if (!py::has_plain_keys(globals)) {
        return;
    }
    PyObject* module = py::find(globals, names[Name::time]);
    if (module == nullptr || !PyModule_CheckExact(module) || !py::has_plain_keys(PyModule_GetDict(module))) {
        return;
    }
    module_globals_ = PyModule_GetDict(module);
    PyObject* function = py::find(module_globals_, names[Name::time]);
    if (function != nullptr && PyCFunction_CheckExact(function) && PyCFunction_GET_FLAGS(function) == METH_NOARGS) {
        function_ = function;
    }
    globals_version_ = py::version_of(globals);
    module_version_ = py::version_of(module_globals_);
}

Ref Clock::read(const Names& names, PyObject* globals) {
    PyObject* module = py::find(globals, names[Name::time]);
    if (module == nullptr) {
        py::raise(PyExc_NameError, "name 'time' is not defined");
    }
    return py::call_method(Ref::borrow(module).get(), names[Name::time]);
}

}  // namespace health
