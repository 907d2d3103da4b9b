#include "health/python/lock.hpp"

#include "health/python/object.hpp"

namespace health::py {

namespace {

/// A method of a context manager's type, as a `with` statement looks it up. `missed` ends the error's text where there
/// is none.
Ref manager_method(PyObject* manager, const char* name, const char* missed) {
    Ref method = Ref::steal_optional(PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(manager)), name));
    if (method) {
        return method;
    }
    if (PyErr_ExceptionMatches(PyExc_AttributeError) != 0) {
        raise(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s",
              Py_TYPE(manager)->tp_name, missed);
    }
    throw_current();
}

}  // namespace

LockMethods::LockMethods(PyObject* lock_type) {
    const Ref locked = get_attribute(lock_type, "locked");
    if (!PyType_Check(lock_type) || !Py_IS_TYPE(locked.get(), &PyMethodDescr_Type)) {
        raise(PyExc_TypeError, "threading.Lock must make native locks");
    }
    const PyMethodDef& method = *reinterpret_cast<PyMethodDescrObject*>(locked.get())->d_method;
    if (method.ml_flags != METH_NOARGS) {
        raise(PyExc_TypeError, "threading.Lock must make native locks");
    }
    Ref acquire = get_attribute(lock_type, "acquire");
    release_ = get_attribute(lock_type, "release").release();
    acquire_ = acquire.release();
    type_ = Py_NewRef(lock_type);
    locked_ = method.ml_meth;
}

void LockMethods::acquire(PyObject* lock) const {
    const Ref done = Ref::steal(PyObject_CallOneArg(acquire_, lock));
}

bool LockMethods::try_acquire(PyObject* lock) const {
    return is_true(call(acquire_, lock, Py_False).get());
}

void LockMethods::release(PyObject* lock) const {
    const Ref done = Ref::steal(PyObject_CallOneArg(release_, lock));
}

void LockGuard::take(PyObject* lock) {
    lock_ = Ref::borrow(lock);
    if (!methods_.is_native(lock)) {
        const Ref enter = manager_method(lock, "__enter__", "");
        exit_ = manager_method(lock, "__exit__", " (missed __exit__ method)");
        call(enter.get(), lock);
        return;
    }
    // Once the interpreter finalises, the other threads have ended wherever they were: a lock that cannot be had stays
    // held, and this last thread is alone without it.
    if (_Py_IsFinalizing() != 0) {
        abandoned_ = !methods_.try_acquire(lock_.get());
    } else {
        methods_.acquire(lock_.get());
    }
}

void LockGuard::leave() {
    if (abandoned_ || !is_attached()) {
        return;
    }
    if (exit_ && is_unwinding() && leave_later(lock_.get(), exit_.get())) {
        static_cast<void>(lock_.release());
        static_cast<void>(exit_.release());
        return;
    }
    PyObject* error = PyErr_GetRaisedException();
    try {
        release();
    } catch (const PythonError&) {
        PyErr_WriteUnraisable(lock_.get());
    }
    PyErr_SetRaisedException(error);
    if (!is_unwinding()) {
        finish_late();  // of what failed here; otherwise the frontier does it
    }
}

void LockGuard::release() {
    if (exit_) {
        call(exit_.get(), lock_.get(), Py_None, Py_None, Py_None);
    } else {
        methods_.release(lock_.get());
    }
}

}  // namespace health::py
