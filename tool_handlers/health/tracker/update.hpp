// A change of one record, worked out in full before any of it takes effect.
//
// Declare an update before the section's guard: it outlives the guard, and with it die the values that were
// replaced, and a record that nobody else holds any more. Their last references may run Python code, which then
// finds the lock free.
#pragma once

#include <Python.h>

#include <array>
#include <utility>

#include "health/python/ref.hpp"
#include "health/records/record.hpp"

namespace health {

template <class Fields>
class Update {
public:
    using Field = typename Fields::Field;

    Update() = default;
    Update(const Update&) = delete;
    Update& operator=(const Update&) = delete;
    Update(Update&&) = delete;
    Update& operator=(Update&&) = delete;

    // As references die, but one look at the thread serves all values.
    ~Update() noexcept(false) {
        if (!py::is_attached()) {
            return;
        }
        const bool is_unwinding = !is_applied_ && py::is_unwinding();
        for (PyObject* value : values_) {
            if (!(value != nullptr && is_unwinding && py::drop_later(value))) {
                Py_XDECREF(value);
            }
        }
    }

    /// The record to change, which a mapping keeps alive: no Python code runs before the update is applied.
    void begin_quietly(PyObject* record) { record_ = record; }

    /// The record to change, kept alive from here on. `is_new`: no mapping holds it yet.
    void begin(py::Ref record, bool is_new) {
        record_ = record.get();
        is_new_ = is_new;
        held_ = std::move(record);
    }

    /// A field's value once the update is applied.
    void set(Field field, py::Ref value) { value.swap_with(values_[field]); }

    /// Puts the new values in place. On the module's own records nothing can fail and no Python code runs.
    void apply(const RecordView<Fields>& record) {
        for (std::size_t field = 0; field < values_.size(); ++field) {
            if (values_[field] != nullptr) {
                record.exchange(static_cast<Field>(field), values_[field]);
            }
        }
        is_applied_ = true;
    }

    /// Keeps a value that was replaced until the update dies.
    void bury(py::Ref value) { buried_ = std::move(value); }

    [[nodiscard]] PyObject* record() const { return record_; }
    [[nodiscard]] bool is_new() const { return is_new_; }

private:
    // Owned: the new values, and once they are in place those they replaced.
    std::array<PyObject*, Fields::names.size()> values_{};
    PyObject* record_ = nullptr;
    py::Ref held_;
    py::Ref buried_;
    bool is_new_ = false;
    bool is_applied_ = false;  // then only a new record's first values can die while an exception is on its way
};

}  // namespace health
