#include "health/python/lock.hpp"

#include "health/python/object.hpp"

namespace health::py {

namespace {

/// A method of a context manager's type, as a `with` statement looks it up.
Ref manager_method(PyObject* manager, const char* name) {
    Ref method = Ref::steal_optional(PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(manager)), name));
    if (method) {
        return method;
    }
    if (PyErr_ExceptionMatches(PyExc_AttributeError) != 0) {
        raise(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
              Py_TYPE(manager)->tp_name);
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
    if (!methods_.is_native(lock_.get())) {
        call(manager_method(lock_.get(), "__enter__").get(), lock_.get());
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
    PyObject* error = PyErr_GetRaisedException();
    try {
        release();
    } catch (const PythonError&) {
        PyErr_WriteUnraisable(lock_.get());
    }
    PyErr_SetRaisedException(error);
    if (!is_unwinding()) {
        drop_late();  // of what failed here; otherwise the frontier does it
    }
}

void LockGuard::release() {
    if (methods_.is_native(lock_.get())) {
        methods_.release(lock_.get());
    } else {
        call(manager_method(lock_.get(), "__exit__").get(), lock_.get(), Py_None, Py_None, Py_None);
    }
}

}  // namespace health::py
