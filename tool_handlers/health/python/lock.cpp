#include "health/python/lock.hpp"

#include "health/python/object.hpp"

namespace health::py {

namespace {

/// The definition of a native method of a type, of its own and no other's, if it is called so; else nullptr.
PyMethodDef* own_method(PyTypeObject* type, const char* name, int flags) {
    PyObject* method = PyDict_GetItemString(type->tp_dict, name);
    if (method == nullptr || !Py_IS_TYPE(method, &PyMethodDescr_Type) || PyDescr_TYPE(method) != type) {
        return nullptr;
    }
    PyMethodDef* definition = reinterpret_cast<PyMethodDescrObject*>(method)->d_method;
    return definition->ml_flags == flags ? definition : nullptr;
}

/// A special method as a `with` statement looks it up: on the type, and bound. `missed` ends the text of the error
/// where there is none.
Ref manager_method(PyObject* manager, const char* name, const char* missed) {
    PyTypeObject* type = Py_TYPE(manager);
    Ref method = Ref::borrow_optional(_PyType_Lookup(type, Ref::steal(PyUnicode_InternFromString(name)).get()));
    if (!method) {
        raise(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s", type->tp_name,
              missed);
    }
    descrgetfunc bind = Py_TYPE(method.get())->tp_descr_get;
    return bind == nullptr ? std::move(method)
                           : Ref::steal(bind(method.get(), manager, reinterpret_cast<PyObject*>(type)));
}

}  // namespace

void LockMethods::bind() {
    const Ref threads = Ref::steal_optional(PyImport_GetModule(text("_thread").get()));
    const Ref type = threads ? Ref::steal_optional(PyObject_GetAttrString(threads.get(), "LockType")) : Ref();
    PyErr_Clear();
    auto* lock_type = reinterpret_cast<PyTypeObject*>(type.get());
    if (!type || !PyType_Check(type.get()) || !PyType_HasFeature(lock_type, Py_TPFLAGS_IMMUTABLETYPE) ||
        !PyType_HasFeature(lock_type, Py_TPFLAGS_HEAPTYPE)) {
        return;
    }
    const PyMethodDef* locked = own_method(lock_type, "locked", METH_NOARGS);
    const PyMethodDef* acquire = own_method(lock_type, "acquire", METH_VARARGS | METH_KEYWORDS);
    const PyMethodDef* release = own_method(lock_type, "release", METH_NOARGS);
    if (locked != nullptr && acquire != nullptr && release != nullptr) {
        locked_ = locked->ml_meth;
        acquire_ = reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(acquire->ml_meth));
        release_ = release->ml_meth;
        type_ = Ref::borrow(type.get());
    }
}

void LockMethods::acquire(PyObject* lock) const {
    const Ref no_arguments = Ref::steal(PyTuple_New(0));
    const Ref done = Ref::steal(acquire_(lock, no_arguments.get(), nullptr));
}

bool LockMethods::try_acquire(PyObject* lock) const {
    return is_true(Ref::steal(acquire_(lock, make_tuple(Py_False).get(), nullptr)).get());
}

void LockMethods::release(PyObject* lock) const { const Ref done = Ref::steal(release_(lock, nullptr)); }

EnteredLock::EnteredLock(const LockMethods& methods, PyObject* lock) : methods_(methods), lock_(Ref::borrow(lock)) {
    if (!methods_.is_native(lock)) {
        const Ref enter = manager_method(lock, "__enter__", "");
        exit_ = manager_method(lock, "__exit__", " (missed __exit__ method)");
        call(enter.get());
    } else if (_Py_IsFinalizing() != 0) {
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
    } else {
        release();
    }
}

void EnteredLock::leave_with(Ref error) {
    const DeferredRefs dropped;  // when the lock is free
    const HandledError handled(error.get());
    if (!exit_) {
        release();
    } else if (is_swallowed(error.get())) {
        return;
    }
    rethrow(std::move(error));
}

void EnteredLock::release() const {
    if (!is_abandoned_) {
        methods_.release(lock_.get());
    }
}

/// Tells the context manager of the error; whether it swallows that.
bool EnteredLock::is_swallowed(PyObject* error) const {
    const Ref traceback = Ref::steal_optional(PyException_GetTraceback(error));
    const Ref answer =
        call(exit_.get(), reinterpret_cast<PyObject*>(Py_TYPE(error)), error, traceback ? traceback.get() : Py_None);
    return is_true(answer.get());
}

}  // namespace health::py
