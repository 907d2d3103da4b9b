// The change of one record, in one of two ways. The same steps serve both:
//
//     template <class Change>
//     void count(Change& record) {
//         record.increment(calls);
//         record.set(total_ms, ...);
//     }
//
// PlainChange is for a direct record of plain values. The steps make new values; `commit` puts them in place together,
// which cannot fail. A step that fails for lack of memory leaves the record as it was.
//
// StepwiseChange is for any other. Each step takes effect at once and stays, as a statement of Python does: host code
// that a later one runs sees it. What was replaced dies with the change. Make that before the section, so that the lock
// is free by then: last references may run Python code.
#pragma once

#include <Python.h>

#include <algorithm>
#include <array>
#include <utility>

#include "health/python/numbers.hpp"
#include "health/python/object_class.hpp"
#include "health/python/ref.hpp"

namespace health {

template <class Fields>
class PlainChange {
    struct Borrowed {
        PyObject* object;
        [[nodiscard]] PyObject* get() const { return object; }
    };

public:
    using Field = typename Fields::Field;

    // All of this is forced inline: then the compiler keeps the values in registers. (Measured: 7 % of record_success.)

    /// `values`: of a direct record, all plain. They stay in place, and no Python code runs, until this has died.
    [[gnu::always_inline]] explicit PlainChange(PyObject** values) : values_(values) { assert_plain(); }
    PlainChange(const PlainChange&) = delete;
    PlainChange& operator=(const PlainChange&) = delete;

    // Plain values die without running Python code, so nothing can end the thread here. (A look at the thread for each
    // of them, as `Ref` takes it, measured: 5 % of record_success.)
    [[gnu::always_inline]] ~PlainChange() {
        for (PyObject* value : others_) {
            Py_XDECREF(value);
        }
    }

    /// `record.field`, as the steps so far have it; borrowed until the next.
    [[gnu::always_inline, nodiscard]] Borrowed get(Field field) const {
        return {others_[field] != nullptr ? others_[field] : values_[field]};
    }
    /// `record.field = value`, which is plain.
    [[gnu::always_inline]] void set(Field field, py::Ref value) {
        HEALTH_ASSERT(py::is_plain(value.get()), "a new value is not plain");
        value.swap_with(others_[field]);
    }
    /// `record.field += 1`. Throws a MemoryError.
    [[gnu::always_inline]] void increment(Field field) { set(field, py::incremented(values_[field])); }

    /// Puts the new values in place. Cannot fail.
    [[gnu::always_inline]] void commit() {
        assert_plain();
        for (std::size_t field = 0; field < others_.size(); ++field) {
            if (others_[field] != nullptr) {
                std::swap(others_[field], values_[field]);
            }
        }
    }

private:
    void assert_plain() const {
        HEALTH_ASSERT(std::all_of(values_, values_ + others_.size(),
                                  [](PyObject* value) { return value != nullptr && py::is_plain(value); }),
                      "a value is not plain");
    }

    PyObject** values_;
    std::array<PyObject*, Fields::names.size()> others_{};  // owned: the new values, then those that they replaced
};

template <class Fields>
class StepwiseChange {
public:
    using Field = typename Fields::Field;

    explicit StepwiseChange(py::ObjectClass& record_class) : class_(record_class) {}

    /// The record to change, kept until this dies. To be called once, before everything else.
    void begin(py::Ref record) { record_ = std::move(record); }
    [[nodiscard]] PyObject* record() const { return record_.get(); }

    // As of `View`: Python code may run, and what it raises is thrown.

    [[nodiscard]] py::Ref get(Field field) const { return view().get(field); }
    void set(Field field, py::Ref value) { replaced_[field] = view().exchange(field, std::move(value)); }
    void increment(Field field) { set(field, py::incremented(get(field).get())); }

private:
    [[nodiscard]] py::View<Fields> view() const { return {class_, record_.get()}; }

    py::ObjectClass& class_;
    py::Ref record_;
    std::array<py::Ref, Fields::names.size()> replaced_;
};

}  // namespace health
