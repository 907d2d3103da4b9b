#include "health/python/lock.hpp"

#include "health/python/object.hpp"

namespace health::py {

namespace {

/// A special method as a `with` statement looks it up: on the type, and bound. `missed` ends the text of the error
/// where there is none.
Ref manager_method(PyObject* manager, const char* name, const char* missed) {
    PyTypeObject* type = Py_TYPE(manager);
    Ref method = Ref::borrow_optional(find_in_class(type, Ref::steal(PyUnicode_InternFromString(name)).get()));
    if (!method) {
        raise(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s", type->tp_name,
              missed);
    }
    descrgetfunc get = Py_TYPE(method.get())->tp_descr_get;
    return get == nullptr ? std::move(method)
                          : Ref::steal(get(method.get(), manager, reinterpret_cast<PyObject*>(type)));
}

}  // namespace

void LockMethods::find() {
    const Ref threads = Ref::steal_optional(PyImport_GetModule(text("_thread").get()));
    const Ref type = threads ? Ref::steal_optional(PyObject_GetAttrString(threads.get(), "LockType")) : Ref();
    PyErr_Clear();
    if (!type || !PyType_Check(type.get()) ||
        !PyType_HasFeature(reinterpret_cast<PyTypeObject*>(type.get()), Py_TPFLAGS_IMMUTABLETYPE)) {
        return;
    }
    PyObject* members = reinterpret_cast<PyTypeObject*>(type.get())->tp_dict;
    const auto method = [&](const char* name) {
        PyObject* found = members == nullptr ? nullptr : PyDict_GetItemString(members, name);
        return Ref::borrow_optional(found != nullptr && Py_IS_TYPE(found, &PyMethodDescr_Type) ? found : nullptr);
    };
    const Ref locked = method("locked");
    acquire_ = method("acquire");
    release_ = method("release");
    if (locked && acquire_ && release_) {
        locked_ = reinterpret_cast<PyMethodDescrObject*>(locked.get())->d_method->ml_meth;  // which takes no arguments
        type_ = Ref::borrow(type.get());
    }
}

void LockMethods::acquire(PyObject* lock) const { call(acquire_.get(), lock); }

bool LockMethods::try_acquire(PyObject* lock) const { return is_true(call(acquire_.get(), lock, Py_False).get()); }

void LockMethods::release(PyObject* lock) const { call(release_.get(), lock); }

EnteredLock::EnteredLock(const LockMethods& methods, PyObject* lock) : methods_(methods), lock_(Ref::borrow(lock)) {
    if (!methods_.is_native(lock)) {
        const Ref enter = manager_method(lock, "__enter__", "");
        exit_ = manager_method(lock, "__exit__", " (missed __exit__ method)");
        call(enter.get());
    } else if (is_finalizing()) {
        // The other threads have ended wherever they were: a lock that cannot be had stays held, and this last thread
        // is alone without it.
        is_abandoned_ = !methods_.try_acquire(lock);
    } else {
        methods_.acquire(lock);
    }
}

void EnteredLock::leave() {
    if (exit_) {
        call(exit_.get(), Py_None, Py_None, Py_None);
    } else if (!is_abandoned_) {
        methods_.release(lock_.get());
    }
}

void EnteredLock::leave_with(Ref error) {
    const HandledError handled(error.get());
    if (!exit_) {
        leave();
    } else if (is_swallowed(error.get())) {
        return;
    }
    rethrow(std::move(error));
}

/// Tells the context manager of the error; whether it swallows that.
bool EnteredLock::is_swallowed(PyObject* error) const {
    const Ref traceback = Ref::steal_optional(PyException_GetTraceback(error));
    const Ref answer =
        call(exit_.get(), reinterpret_cast<PyObject*>(Py_TYPE(error)), error, traceback ? traceback.get() : Py_None);
    return is_true(answer.get());
}

}  // namespace health::py
