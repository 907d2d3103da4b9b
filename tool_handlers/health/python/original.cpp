#include "health/python/original.hpp"

#include <algorithm>

#include "health/python/object.hpp"

namespace health::py {

namespace {

/// The `__dict__` of a module or an instance; empty if it has none.
Ref dict_of(PyObject* object) {
    Ref dict = Ref::steal_optional(PyObject_GenericGetDict(object, nullptr));
    PyErr_Clear();
    return dict;
}

}  // namespace

void Original::remember(PyObject* object) {
    *this = {};
    if (object == nullptr) {
        return;
    }
    if (PyType_Check(object)) {
        auto* type = reinterpret_cast<PyTypeObject*>(object);
        find_in_class(type, Ref::steal(PyUnicode_InternFromString("__init__")).get());  // which gives it a version
        version_ = version_of(type);
        Py_ssize_t position = 0;
        PyObject* member = nullptr;
        while (type->tp_dict != nullptr && PyDict_Next(type->tp_dict, &position, nullptr, &member) != 0) {
            if (PyFunction_Check(member)) {
                remember_function(member);
            }
        }
    } else if (PyFunction_Check(object)) {
        remember_function(object);
    } else {
        kept_ = Ref::borrow(object);
    }
    if (PyCFunction_CheckExact(object)) {
        native_ = PyCFunction_GET_FUNCTION(object);
    } else if (kept_ && (members_ = dict_of(object))) {
        type_ = Py_TYPE(object);
        version_ = version_of(members_.get());
    }
    object_ = object;
}

void Original::remember_function(PyObject* function) {
    PyObject* keyword_defaults = PyFunction_GET_KW_DEFAULTS(function);
    functions_.push_back({.function = function,
                          .code = Ref::borrow(PyFunction_GET_CODE(function)),
                          .defaults = Ref::borrow_optional(PyFunction_GET_DEFAULTS(function)),
                          .keyword_defaults = Ref::borrow_optional(keyword_defaults),
                          .keyword_version = keyword_defaults == nullptr ? 0 : version_of(keyword_defaults)});
}

bool Original::is_same(const Function& function) {
    if (!PyFunction_Check(function.function)) {
        return false;  // something else in the place of a function that has died
    }
    PyObject* keyword_defaults = PyFunction_GET_KW_DEFAULTS(function.function);
    return PyFunction_GET_CODE(function.function) == function.code.get() &&
           PyFunction_GET_DEFAULTS(function.function) == function.defaults.get() &&
           keyword_defaults == function.keyword_defaults.get() &&
           (keyword_defaults == nullptr || version_of(keyword_defaults) == function.keyword_version);
}

bool Original::is(PyObject* object) const {
    if (object == nullptr || object != object_) {
        return false;
    }
    if (PyCFunction_CheckExact(object)) {
        return PyCFunction_GET_FUNCTION(object) == native_;
    }
    if (members_) {
        return Py_IS_TYPE(object, type_) && dict_of(object).get() == members_.get() &&
               version_of(members_.get()) == version_;
    }
    if (PyType_Check(object)) {
        const auto* type = reinterpret_cast<PyTypeObject*>(object);
        if (version_ == 0 || version_of(type) != version_ || !Py_IS_TYPE(object, &PyType_Type)) {
            return false;
        }
    }
    return std::ranges::all_of(functions_, is_same);
}

void ModuleFunction::remember(PyObject* module, PyObject* name) {
    if (module == nullptr || !PyModule_CheckExact(module)) {
        return;
    }
    module_ = Ref::borrow(module);
    name_ = Ref::borrow(name);
    members_ = PyModule_GetDict(module);
    find();
    const bool is_own = function_ != nullptr && PyCFunction_CheckExact(function_) &&
                        PyCFunction_GET_FLAGS(function_) == METH_NOARGS && PyCFunction_GET_SELF(function_) == module &&
                        is_in_library_of(module, PyCFunction_GET_FUNCTION(function_));
    original_.remember(is_own ? function_ : nullptr);
}

void ModuleFunction::find() {
    function_ = has_text_keys(members_) ? py::find(members_, name_.get()) : nullptr;
    version_ = version_of(members_);
}

}  // namespace health::py
