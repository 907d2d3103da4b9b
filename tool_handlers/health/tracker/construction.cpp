// Making a tracker: its fields, then its history.
#include "health/host/settings.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;
using enum TrackerFields::Field;

void initialise(const Module& module, PyObject* self, PyObject* repository, PyObject* limits) {
    const TrackerView tracker = module.tracker(self);
    tracker.set(repo, Ref::borrow(repository));
    tracker.set(TrackerFields::limits, limits == Py_None ? default_settings(module) : Ref::borrow(limits));
    tracker.set(lock, py::call_method(module.get(Name::threading).get(), module[Name::Lock]));
    tracker.set(state, Ref::steal(PyDict_New()));
    tracker.set(dirty, Ref::steal(PySet_New(nullptr)));
    tracker.set(usage, Ref::steal(PyDict_New()));
    tracker.set(usage_dirty, py::boolean(false));
    py::call_method(self, module[Name::_load]);
    py::call_method(self, module[Name::_load_usage]);
}

Ref limits_of(const Module& module, PyObject* self) { return module.tracker(self).get(limits); }

}  // namespace health
