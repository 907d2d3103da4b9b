#include "health/records/record.hpp"

#include <structmember.h>

namespace health {

namespace {

using py::Ref;

enum class Default : unsigned char { zero, zero_float, none };

struct FieldRow {
    const char* name;
    const char* annotation;
    Default standard;
};

template <class Fields>
struct Declaration;

template <>
struct Declaration<ToolStateFields> {
    static constexpr const char* name = "quorl_dendra.tool_handlers.health._ToolState";
    static constexpr const char* documentation =
        "What is known about one tool's health.\n"
        "\n"
        "    ``error_count`` is every error the tool has had; ``consecutive_errors`` the run of them since\n"
        "    its last success, which disables it (kept in memory only: a restart starts a new run, and a\n"
        "    disabled tool stays disabled by ``disabled_at``).\n"
        "    ";
    static constexpr std::array<FieldRow, 6> rows{{{"call_count", "int", Default::zero},
                                                   {"error_count", "int", Default::zero},
                                                   {"last_error", "str | None", Default::none},
                                                   {"disabled_at", "float | None", Default::none},
                                                   {"updated_at", "float", Default::zero_float},
                                                   {"consecutive_errors", "int", Default::zero}}};
};

template <>
struct Declaration<UsageFields> {
    static constexpr const char* name = "quorl_dendra.tool_handlers.health._Usage";
    static constexpr const char* documentation =
        "How many calls one usage key counts, and the time their handlers took.";
    static constexpr std::array<FieldRow, 3> rows{{{"calls", "int", Default::zero},
                                                   {"timed_calls", "int", Default::zero},
                                                   {"total_ms", "float", Default::zero_float}}};
};

Ref make_default(Default standard) {
    switch (standard) {
        case Default::zero:
            return Ref::steal(PyLong_FromLong(0));
        case Default::zero_float:
            return Ref::steal(PyFloat_FromDouble(0.0));
        case Default::none:
            break;
    }
    return py::none();
}

template <class Fields>
int traverse(PyObject* self, visitproc visit, void* arg) {
    Record<Fields>& record = Record<Fields>::of(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(record.attributes);
    for (PyObject* value : record.fields) {
        Py_VISIT(value);
    }
    return 0;
}

template <class Fields>
int clear(PyObject* self) {
    Record<Fields>& record = Record<Fields>::of(self);
    Py_CLEAR(record.attributes);
    for (PyObject*& value : record.fields) {
        Py_CLEAR(value);
    }
    return 0;
}

/// Records may be chained to any depth through their fields: the trashcan keeps the C stack flat.
template <class Fields>
void deallocate(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Py_TRASHCAN_BEGIN(self, deallocate<Fields>);
    if (Record<Fields>::of(self).weak_references != nullptr) {
        PyObject_ClearWeakRefs(self);
    }
    clear<Fields>(self);
    type->tp_free(self);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

/// The fields by name, without those that were deleted.
template <class Fields>
Ref fields_of(PyObject* self) {
    Ref fields = Ref::steal(PyDict_New());
    for (std::size_t index = 0; index < Fields::names.size(); ++index) {
        PyObject* value = Record<Fields>::of(self).fields[index];
        if (value != nullptr) {
            py::check(PyDict_SetItemString(fields.get(), Declaration<Fields>::rows[index].name, value));
        }
    }
    return fields;
}

/// `(attributes or None, fields)`: the state of a type with slots, from which the runtime makes copies and pickles.
template <class Fields>
PyObject* get_state(PyObject* self, PyObject* /*none*/) {
    return py::to_runtime([&] {
        PyObject* attributes = Record<Fields>::of(self).attributes;
        return py::make_tuple(attributes == nullptr ? Py_None : attributes, fields_of<Fields>(self).get());
    });
}

template <class Fields>
PyMemberDef layout[] = {
    {"__dictoffset__", T_PYSSIZET, offsetof(Record<Fields>, attributes), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(Record<Fields>, weak_references), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef computed[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

template <class Fields>
PyMethodDef methods[] = {
    {"__getstate__", get_state<Fields>, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

template <class Fields>
PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>(Declaration<Fields>::documentation)},
    {Py_tp_members, layout<Fields>},
    {Py_tp_getset, computed},
    {Py_tp_methods, methods<Fields>},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse<Fields>)},
    {Py_tp_clear, reinterpret_cast<void*>(clear<Fields>)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate<Fields>)},
    {0, nullptr},
};

template <class Fields>
PyType_Spec type_spec = {
    .name = Declaration<Fields>::name,
    .basicsize = sizeof(Record<Fields>),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    .slots = slots<Fields>,
};

/// The descriptors of the fields, for `PyDescr_NewMember`, which keeps pointers into them.
template <class Fields>
auto field_members = [] {
    std::array<PyMemberDef, Fields::names.size()> members{};
    for (std::size_t index = 0; index < members.size(); ++index) {
        const std::size_t offset = offsetof(Record<Fields>, fields) + index * sizeof(PyObject*);
        members[index] = {Declaration<Fields>::rows[index].name, T_OBJECT_EX, static_cast<Py_ssize_t>(offset), 0,
                          nullptr};
    }
    return members;
}();

}  // namespace

template <class Fields>
void RecordType<Fields>::declare(PyObject* module) {
    const Ref type = py::make_type(module, type_spec<Fields>);
    py::check(PyObject_SetAttrString(type.get(), "__module__", py::get_attribute(module, "__name__").get()));
    const Ref annotations = Ref::steal(PyDict_New());
    for (std::size_t index = 0; index < defaults_.size(); ++index) {
        const FieldRow& row = Declaration<Fields>::rows[index];
        Ref standard = make_default(row.standard);
        py::check(PyDict_SetItemString(annotations.get(), row.name, py::text(row.annotation).get()));
        py::check(PyObject_SetAttrString(type.get(), row.name, standard.get()));
        defaults_[index] = standard.release();
    }
    py::check(PyObject_SetAttrString(type.get(), "__annotations__", annotations.get()));
    type_ = Py_NewRef(type.get());
}

template <class Fields>
void RecordType<Fields>::decorate(PyObject* dataclass) {
    py::call(dataclass, get());
    for (PyMemberDef& member : field_members<Fields>) {
        const Ref descriptor = Ref::steal(PyDescr_NewMember(type(), &member));
        py::check(PyObject_SetAttrString(get(), member.name, descriptor.get()));
    }
}

template <class Fields>
Ref RecordType<Fields>::make(const Values& values) const {
    Ref made = Ref::steal(type()->tp_alloc(type(), 0));
    auto& fields = Record<Fields>::of(made.get()).fields;
    for (std::size_t index = 0; index < values.size(); ++index) {
        fields[index] = Py_NewRef(values[index]);
    }
    return made;
}

template class RecordType<ToolStateFields>;
template class RecordType<UsageFields>;

}  // namespace health
