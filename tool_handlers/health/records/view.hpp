// Reading and writing the fields of the module's objects: records and trackers.
//
// The objects are plain Python objects. A field of a plain one is read and exchanged in place (see
// health/python/instance_layout.hpp); of any other, by the runtime's attribute access, which a host may have
// overridden.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <utility>

#include "health/module/names.hpp"
#include "health/python/dict.hpp"
#include "health/python/instance_layout.hpp"
#include "health/python/object.hpp"
#include "health/python/ref.hpp"

namespace health {

/// The fields of a `_ToolState`, in their order.
struct ToolStateFields {
    enum Field : unsigned char { call_count, error_count, last_error, disabled_at, updated_at, consecutive_errors };
    static constexpr std::array names{Name::call_count,  Name::error_count, Name::last_error,
                                      Name::disabled_at, Name::updated_at,  Name::consecutive_errors};
};

/// The fields of a `_Usage`, in their order.
struct UsageFields {
    enum Field : unsigned char { calls, timed_calls, total_ms };
    static constexpr std::array names{Name::calls, Name::timed_calls, Name::total_ms};
};

/// The fields of a `ToolHealthTracker`, in the order in which its constructor sets them.
struct TrackerFields {
    enum Field : unsigned char { repo, limits, lock, state, dirty, usage, usage_dirty };
    static constexpr std::array names{Name::_repo,  Name::_limits, Name::_lock,       Name::_state,
                                      Name::_dirty, Name::_usage,  Name::_usage_dirty};
};

/// What a module knows of one of its classes.
template <class Fields>
struct ObjectClass {
    static constexpr std::size_t size = Fields::names.size();

    std::array<py::Ref, size> names;
    py::InstanceLayout layout;

    /// As `InstanceLayout::bind`.
    void bind(const Names& texts, PyObject* type) {
        for (std::size_t index = 0; index < size; ++index) {
            names[index] = py::Ref::borrow(texts[Fields::names[index]]);
        }
        layout.bind(type, names);
    }

    /// Whether calling `type` makes a record of this class as it was declared.
    [[nodiscard]] bool is_made_by(PyObject* type) const { return layout.is_exactly(type) && layout.is_pristine(); }

    /// A new record of these values. Runs no Python code; throws a MemoryError.
    [[nodiscard]] py::Ref make(const std::array<PyObject*, size>& values) const {
        py::Ref made = layout.make_bare();
        for (std::size_t index = 0; index < size; ++index) {
            py::check(PyObject_GenericSetAttr(made.get(), names[index].get(), values[index]));
        }
        return made;
    }
};

/// Access to the fields of one object. Borrows the object, which the caller keeps alive.
template <class Fields>
class View {
public:
    using Field = typename Fields::Field;

    View(ObjectClass<Fields>& object_class, PyObject* object) : class_(object_class), object_(object) {}

    [[nodiscard]] PyObject* object() const { return object_; }

    /// The value of a plain object's field; nullptr if there is none or the object is not plain. Borrowed, and good
    /// until Python code may run.
    [[nodiscard]] PyObject* get_borrowed(Field field) const {
        PyObject** values = class_.layout.values_of(object_);
        return values != nullptr ? values[field] : nullptr;
    }

    /// The same, also for an object that is plain but for having been asked for its `__dict__`.
    [[nodiscard]] PyObject* get_stored(Field field) const {
        if (PyObject** values = class_.layout.values_of(object_)) {
            return values[field];
        }
        const py::Ref dict = py::Ref::borrow_optional(class_.layout.dict_of(object_));
        return dict ? py::find(dict.get(), name_of(field)) : nullptr;
    }

    /// The value of a field. Runs Python code only if the object is not plain. Throws an AttributeError where there is
    /// none.
    [[nodiscard]] py::Ref get(Field field) const {
        PyObject* value = get_stored(field);
        return value != nullptr ? py::Ref::borrow(value) : py::get_attribute(object_, name_of(field));
    }

    /// Puts `value` in place and returns the value it replaced, for the caller to drop when it may run Python code;
    /// empty where there was none, or where the object has attribute access of its own. On a plain object with a value
    /// nothing can fail, and no Python code runs; on others it may.
    [[nodiscard]] py::Ref exchange(Field field, py::Ref value) const {
        PyObject** values = class_.layout.values_of(object_);
        if (values != nullptr && values[field] != nullptr) {
            value.swap_with(values[field]);
            return value;
        }
        const py::Ref dict = py::Ref::borrow_optional(class_.layout.dict_of(object_));
        if (!dict) {
            py::check(PyObject_SetAttr(object_, name_of(field), value.get()));
            return {};
        }
        py::Ref replaced = py::Ref::borrow_optional(py::find(dict.get(), name_of(field)));
        py::check(PyDict_SetItem(dict.get(), name_of(field), value.get()));
        return replaced;
    }

    /// `object.field = value`.
    void set(Field field, py::Ref value) const { const py::Ref replaced = exchange(field, std::move(value)); }

private:
    [[nodiscard]] PyObject* name_of(Field field) const { return class_.names[field].get(); }

    ObjectClass<Fields>& class_;
    PyObject* object_;
};

using ToolStateView = View<ToolStateFields>;
using UsageView = View<UsageFields>;
using TrackerView = View<TrackerFields>;

}  // namespace health
