// The records `_ToolState` and `_Usage`: genuine dataclasses whose fields live in native slots.
//
// A record type is declared with its annotations and its defaults as class attributes, passed through
// `dataclasses.dataclass`, and then given native member descriptors in place of the defaults. What the decorator
// generated (`__init__`, `__eq__`, `__repr__`, ...) works through the descriptors; the C++ side reads a field in a
// nanosecond. A field holds any value, unchanged; a deleted field is NULL.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <tuple>
#include <utility>

#include "health/python/numbers.hpp"
#include "health/python/object.hpp"
#include "health/python/ref.hpp"
#include "health/python/visit.hpp"
#include "health/records/names.hpp"

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

/// The memory of a record.
template <class Fields>
struct Record {
    PyObject ob_base;
    PyObject* attributes;  // `__dict__`, for what a host adds; made when first needed
    PyObject* weak_references;
    std::array<PyObject*, Fields::names.size()> fields;

    static Record& of(PyObject* object) { return *reinterpret_cast<Record*>(object); }
};

/// One kind of record, as a module made it.
template <class Fields>
class RecordType {
public:
    using Values = std::array<PyObject*, Fields::names.size()>;

    /// Declares the type as `name` of `module`, without passing it through the decorator yet.
    void declare(PyObject* module);
    /// Passes the type through `dataclass` and gives it its native fields. Runs Python code.
    void decorate(PyObject* dataclass);

    [[nodiscard]] PyObject* get() const { return type_; }
    /// Whether `object` is exactly of this type, so that its fields may be reached without Python code.
    [[nodiscard]] bool is_native(PyObject* object) const { return Py_TYPE(object) == type(); }
    /// A new record of these values. Runs no Python code; throws a MemoryError.
    [[nodiscard]] py::Ref make(const Values& values) const;
    /// A new record of the defaults.
    [[nodiscard]] py::Ref make_empty() const { return make(defaults_); }

    /// As `LockMethods::for_each`.
    template <class Visit>
    int for_each(Visit&& visit) {
        return std::apply([&](auto&... defaults) { return py::visit_all(visit, type_, defaults...); }, defaults_);
    }

private:
    [[nodiscard]] PyTypeObject* type() const { return reinterpret_cast<PyTypeObject*>(type_); }

    PyObject* type_;
    Values defaults_;
};

extern template class RecordType<ToolStateFields>;
extern template class RecordType<UsageFields>;

struct RecordTypes {
    RecordType<ToolStateFields> tool_state;
    RecordType<UsageFields> usage;
};

/// Access to the fields of one object in a record's place: natively where it is the module's own record, through
/// attributes where a host put something else there. Borrows the object.
template <class Fields>
class RecordView {
public:
    using Field = typename Fields::Field;

    RecordView(const Names& names, const RecordType<Fields>& type, PyObject* object)
        : names_(names), object_(object), native_(type.is_native(object)) {}

    /// The value of a field. Runs Python code only if the record is not native. Throws an AttributeError where
    /// there is none.
    [[nodiscard]] py::Ref get(Field field) const {
        PyObject* value = native_ ? slots()[field] : nullptr;
        return value != nullptr ? py::Ref::borrow(value) : py::get_attribute(object_, name_of(field));
    }

    /// The value of a field plus one. Runs Python code only if the record is not native or the value not plain.
    [[nodiscard]] py::Ref count_up(Field field) const {
        PyObject* value = peek(field);
        return value != nullptr && py::is_compact(value) ? py::plus_one(value) : py::add_one(get(field).get());
    }

    /// The value of a native record's field; nullptr if there is none or the record is not native. Borrowed, and good
    /// until anything runs Python code.
    [[nodiscard]] PyObject* peek(Field field) const { return native_ ? slots()[field] : nullptr; }

    /// Puts `value` in place. A native record's old value moves into `value`, for the caller to drop when it may
    /// run Python code; and nothing can fail. On other records it runs Python code and may throw.
    void exchange(Field field, PyObject*& value) const {
        if (native_) {
            std::swap(value, slots()[field]);
        } else {
            py::check(PyObject_SetAttr(object_, name_of(field), value));
        }
    }

private:
    [[nodiscard]] auto& slots() const { return Record<Fields>::of(object_).fields; }
    [[nodiscard]] PyObject* name_of(Field field) const { return names_[Fields::names[field]]; }

    const Names& names_;
    PyObject* object_;
    bool native_;
};

using ToolStateView = RecordView<ToolStateFields>;
using UsageView = RecordView<UsageFields>;

}  // namespace health
