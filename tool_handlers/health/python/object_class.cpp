#include "health/python/object_class.hpp"

#include <algorithm>

namespace health::py {

namespace {

/// Whether what a class or a base of it has under a name takes no part in attribute access, and cannot come to without
/// another version of the class. `member` may be nullptr.
bool is_bystander(PyObject* member) {
    const PyTypeObject* type = member == nullptr ? nullptr : Py_TYPE(member);  // one that can change may get `__get__`
    return type == nullptr || ((type->tp_flags & Py_TPFLAGS_IMMUTABLETYPE) != 0 && type->tp_descr_get == nullptr &&
                               type->tp_descr_set == nullptr);
}

}  // namespace

void ObjectClass::learn(PyObject* type, std::span<const char* const> names) {
    for (const char* name : names) {
        names_.push_back(Ref::steal(PyUnicode_InternFromString(name)));
    }
    if (!PyType_Check(type)) {
        return;
    }
    type_ = reinterpret_cast<PyTypeObject*>(type);
    weak_type_ = Ref::steal(PyWeakref_NewRef(type, nullptr));
    if ((type_->tp_flags & Py_TPFLAGS_MANAGED_DICT) == 0 || type_->tp_new != PyBaseObject_Type.tp_new ||
        type_->tp_basicsize != PyBaseObject_Type.tp_basicsize || !leaves_access_alone()) {
        return;
    }
    Vector<PyObject*> wanted;
    for (const Ref& name : names_) {
        wanted.push_back(name.get());
    }
    const Ref first = make(wanted);  // which fixes the order of the places
    PyObject** values = values_of_word(attributes_word(first.get()));
    if (values != nullptr && std::equal(wanted.begin(), wanted.end(), values)) {
        direct_type_ = type_;
        initialiser_name_ = Ref::steal(PyUnicode_InternFromString("__init__"));
        initialiser_.remember(find_in_class(type_, initialiser_name_.get()));
    }
}

Ref ObjectClass::make(std::span<PyObject* const> values) const {
    const Ref no_arguments = Ref::steal(PyTuple_New(0));
    Ref made = Ref::steal(PyBaseObject_Type.tp_new(type_, no_arguments.get(), nullptr));
    for (std::size_t place = 0; place < values.size(); ++place) {
        check(PyObject_GenericSetAttr(made.get(), name(place), values[place]));
    }
    return made;
}

/// Whether the values, which may be nullptr, are what attribute access gives.
bool ObjectClass::is_read_back(PyObject* object, PyObject* const* values) const {
    PyObject* error = PyErr_GetRaisedException();
    bool is_same = true;
    for (std::size_t place = 0; values != nullptr && place < names_.size(); ++place) {
        const Ref value =
            values[place] == nullptr ? Ref() : Ref::steal_optional(PyObject_GenericGetAttr(object, name(place)));
        is_same = is_same && value.get() == values[place];
    }
    PyErr_SetRaisedException(error);
    return is_same;
}

/// Looks whether nothing takes part in the access in the version that the class has now, and notes that version if so.
bool ObjectClass::is_left_alone_now() {
    if (type_->tp_getattro != PyObject_GenericGetAttr || type_->tp_setattro != PyObject_GenericSetAttr ||
        PyWeakref_GET_OBJECT(weak_type_.get()) != reinterpret_cast<PyObject*>(type_)) {
        return false;
    }
    const bool is_left_alone =
        std::ranges::all_of(names_, [&](const Ref& name) { return is_bystander(find_in_class(type_, name.get())); });
    version_ = is_left_alone && version_of(type_) != 0 ? version_of(type_) : no_version;
    return version_ != no_version;
}

Ref CachedAttribute::get(PyObject* object, PyObject* name) {
    Py_INCREF(object);  // without a guard: this is on every failed call's path
    PyTypeObject* type = Py_TYPE(object);
    if (version_of(type) != version_ || version_ == 0) {
        const Ref kept = Ref::borrow(reinterpret_cast<PyObject*>(type));  // the object may get another class meanwhile
        PyObject* member = find_in_class(type, name);                     // a slot of the class is fine, too
        const bool is_simple = Py_TYPE(object) == type && type->tp_getattro == PyObject_GenericGetAttr &&
                               (is_bystander(member) || Py_IS_TYPE(member, &PyMemberDescr_Type));
        version_ = is_simple ? version_of(type) : 0;
    }
    PyObject* value = version_ == 0 ? nullptr : PyObject_GenericGetAttr(object, name);
    if (value == nullptr) {
        PyErr_Clear();
    }
    Py_DECREF(object);
    return Ref::steal_optional(value);
}

}  // namespace health::py
