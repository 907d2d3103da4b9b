// The objects of one Python class, whose attributes are read and replaced directly where the runtime keeps them,
// as the interpreter's own specialised instructions do (`attributes_word`, health/python/runtime.hpp).
//
// An object is direct while it is exactly of the class, nobody has asked for its `__dict__`, and nothing in the class
// takes part in the access to its attributes; the latter holds for one version of the class. Every other object is
// served by the runtime's attribute access, which a host may have overridden.
#pragma once

#include <Python.h>

#include <cstddef>
#include <span>
#include <utility>

#include "health/python/memory.hpp"
#include "health/python/object.hpp"
#include "health/python/original.hpp"
#include "health/python/ref.hpp"
#include "health/python/runtime.hpp"

namespace health::py {

class ObjectClass {
public:
    /// Learns where the objects of `type` keep the attributes `names`. They get these before any other, in this order,
    /// and none was made yet. Where they are not kept as they should be, no object will be direct. Throws a
    /// MemoryError. Runs no Python code unless the class has a method that does.
    void learn(PyObject* type, std::span<const char* const> names);

    /// The interned name of an attribute, by its place.
    [[nodiscard]] PyObject* name(std::size_t place) const { return names_[place].get(); }

    /// The values of a direct object, by the places of their names, NULL where there is none; nullptr for any other
    /// object. Good until Python code may run; runs none itself.
    PyObject** values_of(PyObject* object) {
        PyObject** values = has_own_attributes(object) ? values_of_word(attributes_word(object)) : nullptr;
        HEALTH_ASSERT(is_read_back(object, values), "an attribute is not in its place");
        return values;
    }

    /// The `__dict__` of an object that would be direct had nobody asked for it; else nullptr. As above.
    PyObject* dict_of(PyObject* object) {
        return has_own_attributes(object) ? dict_of_word(attributes_word(object)) : nullptr;
    }

    /// Whether calling `type` makes an object of this class, by the `__init__` that it had when it was learnt. (The
    /// version of the class does not tell: the runtime notes things of its own in classes, as at `copy.copy`.)
    [[nodiscard]] bool is_made_by(PyObject* type) {
        return type == reinterpret_cast<PyObject*>(direct_type_) && Py_IS_TYPE(type, &PyType_Type) &&
               leaves_access_alone() && type_->tp_new == PyBaseObject_Type.tp_new &&
               initialiser_.is(find_in_class(type_, initialiser_name_.get()));
    }

    /// What such a call makes, with these values, one for each name. Runs no Python code; throws a MemoryError.
    [[nodiscard]] Ref make(std::span<PyObject* const> values) const;

private:
    bool has_own_attributes(PyObject* object) { return Py_TYPE(object) == direct_type_ && leaves_access_alone(); }
    bool leaves_access_alone() { return version_of(type_) == version_ || is_left_alone_now(); }
    bool is_left_alone_now();
    [[nodiscard]] bool is_read_back(PyObject* object, PyObject* const* values) const;

    static constexpr unsigned int no_version = ~0U;  // that no class has

    PyTypeObject* type_ = nullptr;         // borrowed
    PyTypeObject* direct_type_ = nullptr;  // the same, if its objects are kept as they should be
    Ref weak_type_;                        // a weak reference to it, to tell it from another class in its place
    RefVector<Ref> names_;
    unsigned int version_ = no_version;  // in which nothing takes part in the access
    Ref initialiser_name_;
    Original initialiser_;
};

/// One attribute of objects that are mostly of one class, whatever that is.
class CachedAttribute {
public:
    /// The attribute `name`, an interned text, if nothing in the object's class takes part in the access; else empty,
    /// with no error set. Runs Python code only where a namespace has keys that are not exactly str: read what you
    /// rely on afterwards.
    Ref get(PyObject* object, PyObject* name);

private:
    unsigned int version_ = 0;  // of the class that was last found to leave the access alone; 0 for none
};

/// The fields of one object of such a class. `Fields` has an enum `Field` of their places, and their `names`. Borrows
/// the object, which the caller keeps alive.
template <class Fields>
class View {
public:
    using Field = typename Fields::Field;

    View(ObjectClass& object_class, PyObject* object) : class_(object_class), object_(object) {}

    /// As `ObjectClass::values_of`.
    [[nodiscard]] PyObject** direct() const { return class_.values_of(object_); }

    /// `object.field`. Runs Python code only if the object is not direct. Throws an AttributeError where there is none.
    [[nodiscard]] Ref get(Field field) const {
        if (PyObject** values = direct(); values != nullptr && values[field] != nullptr) {
            return Ref::borrow(values[field]);
        }
        const Ref dict = Ref::borrow_optional(class_.dict_of(object_));  // comparing keys may replace it
        PyObject* value = dict ? find(dict.get(), class_.name(field)) : nullptr;
        return value != nullptr ? Ref::borrow(value) : get_attribute(object_, class_.name(field));
    }

    /// `object.field` of an object of any class, as `CachedAttribute::get` reads it.
    [[nodiscard]] Ref peek(Field field) const { return CachedAttribute().get(object_, class_.name(field)); }

    /// `object.field = value`. Returns what it replaced, for the caller to drop when that may run Python code; empty
    /// where there was nothing, or where the object has attribute access of its own. On a direct object that has the
    /// field nothing can fail, and no Python code runs.
    [[nodiscard]] Ref exchange(Field field, Ref value) const {
        PyObject** values = direct();
        if (values != nullptr && values[field] != nullptr) {
            value.swap_with(values[field]);
            return value;
        }
        const Ref dict = Ref::borrow_optional(class_.dict_of(object_));
        if (!dict) {
            check(PyObject_SetAttr(object_, class_.name(field), value.get()));
            return {};
        }
        Ref replaced = Ref::borrow_optional(find(dict.get(), class_.name(field)));
        check(PyDict_SetItem(dict.get(), class_.name(field), value.get()));
        return replaced;
    }

    /// The same, and drops what it replaced.
    void set(Field field, Ref value) const { const Ref replaced = exchange(field, std::move(value)); }

private:
    ObjectClass& class_;
    PyObject* object_;
};

}  // namespace health::py
