#include "health/module/state.hpp"

#include "health/python/object.hpp"

namespace health {

namespace {

/// What a module has under a name, borrowed; nullptr if that is nothing, or this is no module.
PyObject* member_of(PyObject* module, PyObject* name) {
    return module != nullptr && PyModule_CheckExact(module) ? py::find(PyModule_GetDict(module), name) : nullptr;
}

bool is_defined_in(PyObject* function, PyObject* module) {
    return PyFunction_GET_GLOBALS(function) == PyModule_GetDict(module);
}

/// Whether an object is a class whose members are those that a module gave it: functions of its own, and constants.
bool is_class_of(PyObject* object, PyObject* module) {
    bool is_own = object != nullptr && PyType_Check(object);
    PyObject* members = is_own ? reinterpret_cast<PyTypeObject*>(object)->tp_dict : nullptr;
    Py_ssize_t position = 0;
    PyObject* member = nullptr;
    while (is_own && PyDict_Next(members, &position, nullptr, &member) != 0) {
        is_own = PyFunction_Check(member)
                     ? is_defined_in(member, module)
                     : PyType_HasFeature(Py_TYPE(member), Py_TPFLAGS_IMMUTABLETYPE) && PyCallable_Check(member) == 0;
    }
    return is_own;
}

/// A type of the runtime's native module `datetime`, borrowed; nullptr where something else stands in its place.
PyObject* native_type(const Names& names, PyObject* globals, Name name) {
    PyObject* type = py::find(globals, names[name]);
    return type != nullptr && PyType_Check(type) &&
                   PyType_HasFeature(reinterpret_cast<PyTypeObject*>(type), Py_TPFLAGS_IMMUTABLETYPE)
               ? type
               : nullptr;
}

}  // namespace

void JsonFunction::remember(const Names& names, PyObject* globals, Name function_name, Name module_name,
                            Name codec_name) {
    PyObject* json = py::find(globals, names[Name::json]);
    PyObject* own = member_of(json, names[function_name]);
    PyObject* submodule = member_of(json, names[module_name]);
    PyObject* type = member_of(json, names[codec_name]);
    if (own == nullptr || submodule == nullptr || !PyFunction_Check(own) || !is_defined_in(own, json) ||
        PyFunction_GET_CLOSURE(own) != nullptr || !PyModule_CheckExact(submodule) || !is_class_of(type, submodule)) {
        return;
    }
    package.remember(json);
    module.remember(submodule);
    function.remember(own);
    codec.remember(type);
}

bool JsonFunction::is_unchanged(PyObject* json) const {
    return package.is(json) && module.is_unchanged() && function.is_unchanged() && codec.is_unchanged();
}

void ModuleState::remember(PyObject* globals) {
    names.intern();
    locks.find();
    clock.remember(py::find(globals, names[Name::time]), names[Name::time]);
    originals.json_dumps.remember(names, globals, Name::dumps, Name::encoder, Name::JSONEncoder);
    originals.json_loads.remember(names, globals, Name::loads, Name::decoder, Name::JSONDecoder);
    originals.json_decoder.remember(member_of(py::find(globals, names[Name::json]), names[Name::_default_decoder]));
    originals.datetime.remember(native_type(names, globals, Name::datetime));
    originals.timezone.remember(native_type(names, globals, Name::timezone));
    originals.sqlite_timestamp.remember(py::find(globals, names[Name::_SQLITE_TIMESTAMP]));
    enabled_answer = py::make_tuple(Py_False, Py_None);
}

}  // namespace health
