// Making a tracker: its fields, then its history.
#include "health/host/settings.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

namespace {

void put(PyObject*& field, Ref value) {
    value.swap_with(field);
}

Ref make_lock(const Host& host) {
    return py::call_method(host.get(Name::threading).get(), host.names[Name::Lock]);
}

}  // namespace

void initialise(Tracker& tracker, const Host& host, PyObject* repository, PyObject* limits) {
    put(tracker.repo, Ref::borrow(repository));
    put(tracker.limits, limits == Py_None ? default_settings(host) : Ref::borrow(limits));
    put(tracker.lock, make_lock(host));
    put(tracker.state, Ref::steal(PyDict_New()));
    put(tracker.dirty, Ref::steal(PySet_New(nullptr)));
    put(tracker.usage, Ref::steal(PyDict_New()));
    put(tracker.usage_dirty, py::boolean(false));
    put(tracker.owed, Ref());
    py::call_method(tracker.object(), host.names[Name::_load]);
    py::call_method(tracker.object(), host.names[Name::_load_usage]);
}

Ref limits(const Tracker& tracker) {
    return Ref::borrow(require(tracker.limits, "_limits"));
}

}  // namespace health
