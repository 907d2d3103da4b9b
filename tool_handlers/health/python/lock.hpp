// Sections that only one thread may be in.
//
// The lock is a `threading.Lock`, which Python code can see and take. Taking and releasing it costs more than most
// sections do, and often that can be elided. A thread that holds the GIL is alone until it runs Python code or waits:
// nothing else gives the GIL away (in this runtime not even an allocation does: collections run between bytecodes
// only). So a section that does neither is alone from its first step to its last, unless another thread stopped in the
// middle of a section of its own; and that one holds the lock. An elided section only looks that the lock is free:
//
//     thread 1   look: free | elided section |                           look: held, so take: waits ... | section
//     thread 2                                 take | section, which runs Python code, which  | release
//     GIL        1                             2      gives the GIL away:     1 (looks)         2         1
//
// A section that may run Python code takes the lock, and so does one that finds it held. Waiting lets other threads
// run: so such a section reads everything anew.
#pragma once

#include <Python.h>

#include <utility>

#include "health/python/recover.hpp"
#include "health/python/ref.hpp"

namespace health::py {

/// The methods of `threading.Lock`, whose type is immutable: so they stay as they are.
class LockMethods {
public:
    /// Finds them. Where the runtime's lock type was replaced, no lock will be native. Throws a MemoryError.
    void find();

    [[nodiscard]] bool is_native(PyObject* lock) const {
        return reinterpret_cast<PyObject*>(Py_TYPE(lock)) == type_.get();
    }
    /// Whether a section may be elided: `lock`, which may be nullptr, is native and nobody holds it. Runs no Python
    /// code.
    [[nodiscard]] bool is_free(PyObject* lock) const {
        return lock != nullptr && is_native(lock) && locked_(lock, nullptr) == Py_False;
    }
    /// Waits for a native lock, letting other threads run. Throws when a signal handler does.
    void acquire(PyObject* lock) const;
    /// Takes a native lock if that needs no waiting; whether it did.
    [[nodiscard]] bool try_acquire(PyObject* lock) const;
    /// Releases a native lock. Runs no Python code; throws if nobody holds it.
    void release(PyObject* lock) const;

private:
    Ref type_;
    Ref acquire_;
    Ref release_;
    PyCFunction locked_ = nullptr;
};

/// A lock that was entered as by a `with` statement, to be left once. A thread that is ended in between leaves it held.
class EnteredLock {
public:
    /// Enters; any context manager serves as a lock. Throws what that raises.
    EnteredLock(const LockMethods& methods, PyObject* lock);

    /// Leaves after a block that succeeded. Throws what leaving raises.
    void leave();

    /// Leaves after a block that ended with `error`, of which a context manager is told, and throws it again, unless
    /// the context manager swallows it. Throws what leaving raises.
    void leave_with(Ref error);

private:
    [[nodiscard]] bool is_swallowed(PyObject* error) const;

    const LockMethods& methods_;
    Ref lock_;
    Ref exit_;  // the bound `__exit__` of a lock that is not native
    bool is_abandoned_ = false;
};

/// `with lock: return body()`; None where the lock swallowed an error. `body` gives a `Ref`. May wait, and runs Python
/// code if the lock is not native.
template <class Body>
Ref with_lock(const LockMethods& methods, PyObject* lock, Body&& body) {
    EnteredLock entered(methods, lock);
    Ref result = none();
    Ref error = error_of([&] { result = std::forward<Body>(body)(); });
    if (error) {
        entered.leave_with(std::move(error));
    } else {
        entered.leave();
    }
    return result;
}

}  // namespace health::py
