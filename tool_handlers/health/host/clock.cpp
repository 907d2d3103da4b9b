#include "health/host/clock.hpp"

#include "health/python/dict.hpp"
#include "health/python/object.hpp"

namespace health {

using py::Ref;

void Clock::learn(PyObject* time_module) {
    module_ = Py_NewRef(time_module);
    Ref function = py::get_attribute(time_module, "time");
    if (PyModule_CheckExact(time_module) && PyCFunction_CheckExact(function.get()) &&
        PyCFunction_GET_FLAGS(function.get()) == METH_NOARGS && PyCFunction_GET_SELF(function.get()) == time_module) {
        module_globals_ = Py_NewRef(PyModule_GetDict(time_module));
        read_ = PyCFunction_GET_FUNCTION(function.get());
        self_ = PyCFunction_GET_SELF(function.get());
        own_ = function.release();
    }
}

bool Clock::is_quiet(const Names& names, PyObject* globals) {
    if (own_ == nullptr || !PyModule_CheckExact(module_)) {
        return false;
    }
    const std::uint64_t globals_version = py::version_of(globals);
    const std::uint64_t module_version = py::version_of(module_globals_);
    if (globals_version == globals_version_ && module_version == module_version_) {
        return true;
    }
    if (!py::has_plain_keys(globals) || !py::has_plain_keys(module_globals_) ||
        py::find(globals, names[Name::time]) != module_ || py::find(module_globals_, names[Name::time]) != own_) {
        return false;
    }
    globals_version_ = globals_version;
    module_version_ = module_version;
    return true;
}

Ref Clock::read(const Names& names, PyObject* globals) {
    if (is_quiet(names, globals)) {
        return read_quietly();
    }
    PyObject* module = py::find(globals, names[Name::time]);
    if (module == nullptr) {
        py::raise(PyExc_NameError, "name 'time' is not defined");
    }
    return py::call_method(Ref::borrow(module).get(), names[Name::time]);
}

}  // namespace health
