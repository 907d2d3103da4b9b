// `health_floor`: a class whose methods take the tracker's arguments and do nothing, and whose property is None. What a
// call of a native method costs is the least that a call of the tracker can cost. Built for the benchmark only.
#include <Python.h>

namespace {

PyObject* do_nothing(PyObject* /*self*/, PyObject* const* /*arguments*/, Py_ssize_t /*count*/, PyObject* /*keywords*/) {
    Py_RETURN_NONE;
}

PyMethodDef method(const char* name) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(do_nothing)),
            METH_FASTCALL | METH_KEYWORDS, nullptr};
}

PyMethodDef methods[] = {method("is_disabled"),
                         method("record_success"),
                         method("record_error"),
                         method("record_call"),
                         {nullptr, nullptr, 0, nullptr}};

PyObject* nothing(PyObject* /*self*/, void* /*closure*/) { Py_RETURN_NONE; }

PyGetSetDef properties[] = {{"has_unsaved_changes", nothing, nullptr, nullptr, nullptr},
                            {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyType_Slot floor_slots[] = {{Py_tp_methods, methods}, {Py_tp_getset, properties}, {0, nullptr}};
PyType_Spec floor_spec = {.name = "health_floor.Floor",
                          .basicsize = sizeof(PyObject),
                          .itemsize = 0,
                          .flags = Py_TPFLAGS_DEFAULT,
                          .slots = floor_slots};

int execute(PyObject* module) {
    PyObject* type = PyType_FromModuleAndSpec(module, &floor_spec, nullptr);
    const int status = PyModule_AddObjectRef(module, "Floor", type);
    Py_XDECREF(type);
    return status;
}

PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(execute)}, {0, nullptr}};
PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                          .m_name = "health_floor",
                          .m_doc = nullptr,
                          .m_size = 0,
                          .m_methods = nullptr,
                          .m_slots = slots,
                          .m_traverse = nullptr,
                          .m_clear = nullptr,
                          .m_free = nullptr};

}  // namespace

PyMODINIT_FUNC PyInit_health_floor() { return PyModuleDef_Init(&definition); }
