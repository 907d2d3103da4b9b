// The guard of a section that only one thread may be in.
//
// The lock is a `threading.Lock`, which Python code can see and take. Taking and releasing it costs more than
// most sections do, and often it can be saved. A thread that holds the GIL is alone until it runs Python code or
// waits, for nothing else gives the GIL away (in this runtime not even an allocation does: collections run between
// bytecodes only). So a section that does neither, a *quiet* one, is alone from its first step to its last,
// provided that no other thread stopped in the middle of a section of its own; such a thread holds the lock. A quiet
// section therefore needs only to look that the lock is free. Who holds the lock meanwhile still keeps everybody out,
// since everybody looks.
//
// A section that may run Python code takes the lock for real, and so does a quiet one that finds it held. Waiting lets
// other threads run: whatever was read before the guard was made must then be read again.
#pragma once

#include <Python.h>

#include "health/python/ref.hpp"
#include "health/python/visit.hpp"

namespace health::py {

/// The native methods of `threading.Lock`, looked up once.
class LockMethods {
public:
    LockMethods() = default;
    /// Reads them off `lock_type`. Throws a TypeError if its methods are not native.
    explicit LockMethods(PyObject* lock_type);

    [[nodiscard]] bool is_native(PyObject* lock) const { return Py_TYPE(lock) == type(); }
    /// Whether a native lock is held by anybody. Runs no Python code.
    [[nodiscard]] bool is_held(PyObject* lock) const { return locked_(lock, nullptr) == Py_True; }
    /// The look of a quiet section: whether `lock` is native and nobody holds it. Runs no Python code.
    [[nodiscard]] bool is_free(PyObject* lock) const { return is_native(lock) && !is_held(lock); }
    /// Waits for a native lock, letting other threads run. Throws when a signal handler does.
    void acquire(PyObject* lock) const;
    /// Takes a native lock if that needs no waiting; whether it did.
    [[nodiscard]] bool try_acquire(PyObject* lock) const;
    /// Releases a native lock. Runs no Python code; throws if nobody holds it.
    void release(PyObject* lock) const;

    /// Calls `visit` with each reference held, until one answers other than 0; the last answer.
    template <class Visit>
    int for_each(Visit&& visit) {
        return visit_all(visit, type_, acquire_, release_);
    }

private:
    [[nodiscard]] PyTypeObject* type() const { return reinterpret_cast<PyTypeObject*>(type_); }

    // Strong references, which live and die with the module's state.
    PyObject* type_ = nullptr;
    PyObject* acquire_ = nullptr;
    PyObject* release_ = nullptr;
    PyCFunction locked_ = nullptr;
};

class LockGuard {
public:
    /// Enters the section. `quiet`: it runs no Python code and does not wait, and neither did what led up to it
    /// since the caller last read the state. Any object with a context manager's methods serves as a lock.
    LockGuard(const LockMethods& methods, PyObject* lock, bool quiet = false) : methods_(methods) {
        if (!quiet || !methods.is_free(lock)) {
            take(lock);
        }
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
    LockGuard(LockGuard&&) = delete;
    LockGuard& operator=(LockGuard&&) = delete;
    /// Leaves the section, whatever error is on its way; a context manager is not told of it. A failure to leave is
    /// reported as one that nobody can catch. A thread ended by a finalising interpreter leaves the lock as it is.
    ~LockGuard() noexcept(false) {
        if (!only_looked()) {
            leave();
        }
    }

    /// Whether a look was enough: then nothing has changed since the caller read the state.
    [[nodiscard]] bool only_looked() const { return !lock_; }

private:
    void take(PyObject* lock);
    void leave();
    void release();

    const LockMethods& methods_;
    Ref lock_;  // held while the guard lives; empty when a look was enough
    Ref exit_;  // the `__exit__` of a lock that is not native
    bool abandoned_ = false;
};

}  // namespace health::py
