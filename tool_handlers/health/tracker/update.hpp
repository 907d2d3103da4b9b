// A change of one record, worked out in full before any of it takes effect.
//
// Declare an update before the section's guard: it outlives the guard, and with it die the values that were
// replaced, and a record that nobody else holds any more. Their last references may run Python code, which then
// finds the lock free.
#pragma once

#include <Python.h>

#include <array>
#include <cassert>
#include <cstddef>
#include <span>
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

    // In a quiet section nothing ends the thread before the values die, and an error comes only while all of them are
    // new plain ones: they need no look at the thread.
    ~Update() noexcept(false) {
        const bool is_quiet = !held_;
        if (is_quiet) {
            for (const Change& change : changes()) {
                Py_XDECREF(change.value);
            }
            return;
        }
        for (const Change& change : changes()) {
            const py::Ref dropped = py::Ref::steal_optional(change.value);
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

    /// A field's value once the update is applied; once for each field. Returns the value, borrowed, and good until
    /// then.
    PyObject* set(Field field, py::Ref value) {
        assert(count_ < changes_.size());
        return (changes_[count_++] = {.field = field, .value = value.release()}).value;
    }

    /// Puts the new values in place, in the order they were set. On the module's own records nothing can fail and no
    /// Python code runs.
    void apply(const RecordView<Fields>& record) {
        for (Change& change : changes()) {
            record.exchange(change.field, change.value);
        }
    }

    /// Keeps a value that was replaced until the update dies.
    void bury(py::Ref value) { buried_ = std::move(value); }

    [[nodiscard]] PyObject* record() const { return record_; }
    [[nodiscard]] bool is_new() const { return is_new_; }

private:
    struct Change {
        Field field;
        PyObject* value;  // owned: the new one, then the one it replaced; NULL where a field was deleted
    };

    [[nodiscard]] std::span<Change> changes() { return std::span(changes_).first(count_); }

    std::array<Change, Fields::names.size()> changes_;  // NOLINT: the first `count_` are there
    std::size_t count_ = 0;
    PyObject* record_ = nullptr;
    py::Ref held_;
    py::Ref buried_;
    bool is_new_ = false;
};

}  // namespace health
