// The change of one record, step by step.
//
//     StateEdit edit(module.state.tool_state);       // before the lock's section: it outlives that
//     ... the section begins ...
//     edit.begin(record);
//     edit.apply([&] {
//         edit.increment(call_count);                // takes effect at once, so host code that looks sees it
//         edit.set(updated_at, now);
//     });
//
// Each step takes effect when it is made, and stays when a later one fails. Only where memory ran out `apply` undoes
// them all. What the steps replaced dies with the edit, when the lock is free: last references may run Python code.
#pragma once

#include <Python.h>

#include <array>
#include <cassert>
#include <cstddef>
#include <span>
#include <utility>

#include "health/python/numbers.hpp"
#include "health/python/recover.hpp"
#include "health/python/ref.hpp"
#include "health/records/view.hpp"

namespace health {

template <class Fields>
class Edit {
public:
    using Field = typename Fields::Field;

    /// A value of the record: borrowed in an elided section, where nothing can drop it, else owned.
    class Held {
    public:
        explicit Held(PyObject* borrowed) : object_(borrowed) {}
        explicit Held(py::Ref owned) : object_(owned.get()), owned_(std::move(owned)) {}
        [[nodiscard]] PyObject* get() const { return object_; }

    private:
        PyObject* object_;
        py::Ref owned_;
    };

    explicit Edit(ObjectClass<Fields>& record_class) : class_(record_class) {}
    Edit(const Edit&) = delete;
    Edit& operator=(const Edit&) = delete;

    // In an elided section nothing ends the thread before the values die, and an error comes only while all of them are
    // new plain ones: they need no look at the thread. (Measured: 5 % of record_success.)
    ~Edit() noexcept(false) {
        if (values_ != nullptr) {
            for (const Step& step : steps()) {
                Py_XDECREF(step.replaced);
            }
            return;
        }
        drop_steps();
    }

    /// In an elided section: the values of the record to change, which a mapping keeps alive, one for each field.
    void begin_elided(PyObject** values) { values_ = values; }

    /// In any other: the record to change.
    void begin(py::Ref record) { record_ = std::move(record); }
    /// The same for a record that was just put into a mapping, to be removed when the steps are undone.
    void begin_added(py::Ref record, py::Ref mapping, PyObject* key) {
        record_ = std::move(record);
        mapping_ = std::move(mapping);
        key_ = py::Ref::borrow(key);
    }

    /// Runs the steps. Throws what they throw, after they were undone if that is a MemoryError.
    template <class Steps>
    void apply(Steps&& make_steps) {
        py::Ref error = py::error_of(std::forward<Steps>(make_steps));
        if (error) {
            if (PyErr_GivenExceptionMatches(error.get(), PyExc_MemoryError) != 0) {
                undo();
            }
            py::rethrow(std::move(error));
        }
    }

    /// A field's value, held where it could vanish. As `View::get`.
    [[nodiscard]] Held get(Field field) const {
        return values_ != nullptr ? Held(values_[field]) : Held(view().get(field));
    }

    // These are forced inline, and what an elided section does not need is kept out of them. (Measured: 7 % of
    // record_success, 4 % of record_call.)

    /// `record.field = value`, once for each field. May run Python code where the record is not plain.
    [[gnu::always_inline]] void set(Field field, py::Ref value) {
        if (values_ != nullptr) {
            replace_elided(field, std::move(value));
        } else {
            set_by_view(field, std::move(value));
        }
    }

    /// `record.field += 1`.
    [[gnu::always_inline]] void increment(Field field) {
        if (values_ != nullptr && py::is_compact(values_[field])) {
            replace_elided(field, py::integer(py::compact_value(values_[field]) + 1));
        } else {
            increment_any(field);
        }
    }

    /// Keeps something else that was replaced until the edit dies.
    void retire(py::Ref value) { retired_ = std::move(value); }

private:
    struct Step {
        Field field;
        PyObject* replaced;  // owned; NULL where there was nothing, or where it cannot be put back
        PyObject* put;       // owned; what the step put in place. NULL in an elided section, where nothing else can
    };

    [[nodiscard]] View<Fields> view() const { return {class_, record_.get()}; }
    [[nodiscard]] std::span<Step> steps() { return std::span(steps_).first(count_); }

    void add_step(Step step) {
        assert(count_ < steps_.size());
        steps_[count_++] = step;
    }
    [[gnu::always_inline]] void replace_elided(Field field, py::Ref value) {
        add_step({.field = field, .replaced = std::exchange(values_[field], value.release()), .put = nullptr});
    }
    [[gnu::noinline]] void set_by_view(Field field, py::Ref value) {
        py::Ref put = py::Ref::borrow(value.get());
        py::Ref replaced = view().exchange(field, std::move(value));
        add_step({.field = field, .replaced = replaced.release(), .put = put.release()});
    }
    [[gnu::noinline]] void increment_any(Field field) { set(field, py::incremented(get(field).get())); }

    [[gnu::noinline]] void drop_steps() {
        for (const Step& step : steps()) {
            const py::Ref put = py::Ref::steal_optional(step.put);
            const py::Ref replaced = py::Ref::steal_optional(step.replaced);
        }
    }

    /// Exchanges the values back, which needs no memory; but not what other calls, made by host code in the middle of
    /// this one, have put in place since.
    void undo() {
        bool is_undone = true;
        for (Step& step : steps()) {
            if (values_ != nullptr) {
                std::swap(step.replaced, values_[step.field]);
            } else {
                is_undone = undo_by_view(step) && is_undone;
            }
        }
        if (mapping_ && is_undone) {
            const py::Ref failure = py::error_of([&] { remove_added(); });
        }
    }

    void remove_added() {
        if (py::get_item(mapping_.get(), key_.get()).get() == record_.get()) {
            py::check(PyObject_DelItem(mapping_.get(), key_.get()));
        }
    }

    bool undo_by_view(Step& step) {
        bool is_undone = false;
        const py::Ref failure = py::error_of([&] {
            if (step.replaced != nullptr && view().get_stored(step.field) == step.put) {
                py::Ref value = py::Ref::steal(std::exchange(step.replaced, nullptr));
                step.replaced = view().exchange(step.field, std::move(value)).release();
                is_undone = true;
            }
        });
        return is_undone;
    }

    ObjectClass<Fields>& class_;
    PyObject** values_ = nullptr;                   // of the record, in an elided section only
    std::array<Step, Fields::names.size()> steps_;  // NOLINT: the first `count_` are there
    std::size_t count_ = 0;
    py::Ref record_;
    py::Ref mapping_;
    py::Ref key_;
    py::Ref retired_;
};

}  // namespace health
