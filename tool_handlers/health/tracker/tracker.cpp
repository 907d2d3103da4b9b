#include "health/tracker/tracker.hpp"

#include <structmember.h>

#include <cstddef>

namespace health {

namespace {

constexpr const char* documentation =
    "Track tool call success/failure and auto-disable unhealthy tools.\n"
    "\n"
    "    Every tool call asks :meth:`is_disabled` first and reports its outcome afterwards, so\n"
    "    none of that may wait for the database: a long write anywhere (an index batch, a\n"
    "    swap, ``ANALYZE``) would hold every call, and on the event loop every repository's\n"
    "    worker, behind it. The state therefore lives in memory. The ``tool_health`` table is\n"
    "    its mirror: it seeds the state when the tracker is created, and :meth:`flush` writes\n"
    "    what changed, from a thread that may wait.\n"
    "\n"
    "    A tool that fails ``tools.disable_after_errors`` calls in a row is disabled and is tried\n"
    "    again after ``tools.disable_cooldown_s`` seconds (the ``tools`` section of the\n"
    "    configuration). The agent is told when a tool is disabled.\n"
    "\n"
    "    Thread safety: every method may be called from any thread.\n"
    "    ";

[[noreturn]] void reject(const char* name, const char* wanted, PyObject* value) {
    py::raise(PyExc_TypeError, "ToolHealthTracker.%s must be a %s, not %.100s", name, wanted, Py_TYPE(value)->tp_name);
}

py::Ref hold_dict(PyObject* field, const char* name) {
    PyObject* value = require(field, name);
    if (!PyDict_CheckExact(value)) {
        reject(name, "dict", value);
    }
    return py::Ref::borrow(value);
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    const Tracker& tracker = Tracker::of(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(tracker.repo);
    Py_VISIT(tracker.limits);
    Py_VISIT(tracker.lock);
    Py_VISIT(tracker.state);
    Py_VISIT(tracker.dirty);
    Py_VISIT(tracker.usage);
    Py_VISIT(tracker.usage_dirty);
    Py_VISIT(tracker.owed);
    return _PyObject_VisitManagedDict(self, visit, arg);
}

int clear(PyObject* self) {
    Tracker& tracker = Tracker::of(self);
    Py_CLEAR(tracker.repo);
    Py_CLEAR(tracker.limits);
    Py_CLEAR(tracker.lock);
    Py_CLEAR(tracker.state);
    Py_CLEAR(tracker.dirty);
    Py_CLEAR(tracker.usage);
    Py_CLEAR(tracker.usage_dirty);
    Py_CLEAR(tracker.owed);
    _PyObject_ClearManagedDict(self);
    return 0;
}

/// Trackers may be chained to any depth through their fields: the trashcan keeps the C stack flat.
void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Py_TRASHCAN_BEGIN(self, deallocate);
    PyObject_ClearWeakRefs(self);
    Tracker::of(self).known_usage.forget();
    clear(self);
    type->tp_free(self);
    Py_DECREF(type);
    Py_TRASHCAN_END;
}

PyMemberDef members[] = {
    {"_repo", T_OBJECT_EX, offsetof(Tracker, repo), 0, nullptr},
    {"_limits", T_OBJECT_EX, offsetof(Tracker, limits), 0, nullptr},
    {"_lock", T_OBJECT_EX, offsetof(Tracker, lock), 0, nullptr},
    {"_state", T_OBJECT_EX, offsetof(Tracker, state), 0, nullptr},
    {"_dirty", T_OBJECT_EX, offsetof(Tracker, dirty), 0, nullptr},
    {"_usage", T_OBJECT_EX, offsetof(Tracker, usage), 0, nullptr},
    {"_usage_dirty", T_OBJECT_EX, offsetof(Tracker, usage_dirty), 0, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef computed[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>(documentation)},
    {Py_tp_members, members},
    {Py_tp_getset, computed},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {0, nullptr},
};

PyType_Spec type_spec = {
    .name = "quorl_dendra.tool_handlers.health.ToolHealthTracker",
    .basicsize = sizeof(Tracker),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_MANAGED_DICT |
             Py_TPFLAGS_MANAGED_WEAKREF,
    .slots = slots,
};

}  // namespace

py::Ref make_tracker_type(PyObject* module) {
    py::Ref type = py::make_type(module, type_spec);
    py::check(PyObject_SetAttrString(type.get(), "__module__", py::get_attribute(module, "__name__").get()));
    return type;
}

PyObject* require(PyObject* field, const char* name) {
    if (field == nullptr) {
        py::raise(PyExc_AttributeError, "'ToolHealthTracker' object has no attribute '%s'", name);
    }
    return field;
}

py::Ref hold_state(const Tracker& tracker) {
    return hold_dict(tracker.state, "_state");
}

py::Ref hold_usage(const Tracker& tracker) {
    return hold_dict(tracker.usage, "_usage");
}

py::Ref hold_dirty(const Tracker& tracker) {
    PyObject* value = require(tracker.dirty, "_dirty");
    if (!PySet_CheckExact(value)) {
        reject("_dirty", "set", value);
    }
    return py::Ref::borrow(value);
}

}  // namespace health
