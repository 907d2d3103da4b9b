// Owning references to the runtime's objects.
//
// Rules of use: `steal` takes over a new reference (NULL throws the error that made it NULL), `borrow` makes
// one more reference to an object somebody else owns, `release` gives ownership away.
// A parameter or result of type `PyObject*` is always borrowed.
#pragma once

#include <Python.h>

#include <utility>

#include "health/python/error.hpp"
#include "health/python/runtime.hpp"

namespace health::py {

class Ref {
public:
    Ref() = default;
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

    // The new value is in place before the old one is dropped: dropping it may run Python code that looks here.
    Ref& operator=(Ref&& other) {
        PyObject* old = std::exchange(object_, std::exchange(other.object_, nullptr));
        drop(old);
        return *this;
    }

    // Dropping a last reference may run Python code, in which a finalising interpreter may end the thread by a forced
    // unwind: so neither this nor any destructor of what holds a reference is `noexcept`.
    ~Ref() noexcept(false) { drop(object_); }

    [[nodiscard]] static Ref steal(PyObject* object) {
        if (object == nullptr) {
            throw_current();
        }
        return Ref(object);
    }

    [[nodiscard]] static Ref borrow(PyObject* object) { return Ref(Py_NewRef(object)); }

    // The same where NULL is no error, but an empty reference.
    [[nodiscard]] static Ref steal_optional(PyObject* object) { return Ref(object); }
    [[nodiscard]] static Ref borrow_optional(PyObject* object) { return Ref(Py_XNewRef(object)); }

    [[nodiscard]] PyObject* get() const { return object_; }
    [[nodiscard]] PyObject* release() { return std::exchange(object_, nullptr); }
    explicit operator bool() const { return object_ != nullptr; }

    /// Exchanges the reference held here with the one held in `slot`; runs nothing.
    void swap_with(PyObject*& slot) { std::swap(object_, slot); }

private:
    explicit Ref(PyObject* object) : object_(object) {}

    // Immortal objects (None, the bools, small integers) need no look at the thread either.
    static void drop(PyObject* object) {
        if (object != nullptr && !is_immortal(object) && is_attached()) {
            Py_DECREF(object);
        }
    }

    PyObject* object_ = nullptr;
};

inline Ref none() { return Ref::borrow(Py_None); }

inline Ref boolean(bool value) { return Ref::borrow(value ? Py_True : Py_False); }

}  // namespace health::py
