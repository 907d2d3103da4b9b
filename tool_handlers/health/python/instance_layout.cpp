#include "health/python/instance_layout.hpp"

namespace health::py {

void InstanceLayout::bind(PyObject* type, std::span<const Ref> names) {
    if (!PyType_Check(type)) {
        return;
    }
    type_ = reinterpret_cast<PyTypeObject*>(type);
    names_ = names;
    weak_type_ = Ref::steal(PyWeakref_NewRef(type, nullptr));
    if ((type_->tp_flags & Py_TPFLAGS_MANAGED_DICT) != 0 && type_->tp_new == PyBaseObject_Type.tp_new &&
        type_->tp_basicsize == PyBaseObject_Type.tp_basicsize && is_plain_now() && reads_back()) {
        plain_type_ = type_;
        bound_version_ = version_;
    }
}

Ref InstanceLayout::make_bare() const {
    const Ref no_arguments = Ref::steal(PyTuple_New(0));
    return Ref::steal(PyBaseObject_Type.tp_new(type_, no_arguments.get(), nullptr));
}

/// Whether an attribute that is set on a first object, which fixes the order, is found where it should be.
bool InstanceLayout::reads_back() const {
    const Ref object = make_bare();
    for (const Ref& name : names_) {
        check(PyObject_GenericSetAttr(object.get(), name.get(), name.get()));
    }
    char* word = word_of(object.get());
    if (!is_tagged(word)) {
        return false;
    }
    auto* const* values = reinterpret_cast<PyObject**>(word + tag);
    for (const Ref& name : names_) {
        if (*values++ != name.get()) {
            return false;
        }
    }
    return true;
}

#ifdef HEALTH_ASSERTIONS
/// Ends the process if the values are not what attribute access gives.
void InstanceLayout::assert_reads_back(PyObject* object, PyObject** values) const {
    PyObject* error = PyErr_GetRaisedException();
    for (std::size_t place = 0; place < names_.size(); ++place) {
        PyObject* value = values[place] == nullptr ? nullptr : PyObject_GenericGetAttr(object, names_[place].get());
        if (value != values[place]) {
            Py_FatalError("an attribute is not in its place");
        }
        Py_XDECREF(value);
    }
    PyErr_SetRaisedException(error);
}
#endif

/// Looks whether attribute access is the plain one for the class as it is now, and notes its version if so.
bool InstanceLayout::is_plain_now() {
    if (type_->tp_getattro != PyObject_GenericGetAttr || type_->tp_setattro != PyObject_GenericSetAttr ||
        PyWeakref_GET_OBJECT(weak_type_.get()) != reinterpret_cast<PyObject*>(type_)) {
        return false;
    }
    for (const Ref& name : names_) {
        PyObject* found = _PyType_Lookup(type_, name.get());  // which also gives the class a version
        if (found != nullptr && Py_TYPE(found)->tp_descr_set != nullptr) {
            return false;
        }
    }
    const bool has_version = type_->tp_version_tag != 0;
    version_ = has_version ? type_->tp_version_tag : no_version;
    return has_version;
}

}  // namespace health::py
