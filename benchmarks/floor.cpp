// `health_floor`: a class whose methods take the tracker's arguments and do nothing, made of the module's own native
// functions. What a call of one costs is the least that a call of the tracker can cost. Built for the benchmark only.
#include <Python.h>

#include <array>
#include <span>

#include "health/python/function.hpp"
#include "health/python/object.hpp"

namespace {

using health::py::Definition;
using health::py::FunctionHome;
using health::py::Kind;
using health::py::Parameter;
using health::py::Ref;

Ref do_nothing(void* /*context*/, PyObject* const* /*arguments*/) {
    return health::py::none();
}

constexpr Parameter self{.name = "self"};
constexpr Parameter tool_name{.name = "tool_name", .annotation = "str"};
constexpr std::array tool_only{self, tool_name};
constexpr std::array tool_and_error{self, tool_name, Parameter{.name = "error", .annotation = "str"}};
constexpr std::array one_call{
    self,
    tool_name,
    Parameter{.name = "action", .annotation = "str | None"},
    Parameter{.name = "outcome", .annotation = "str"},
    Parameter{.name = "alias_hit", .annotation = "bool", .kind = Kind::keyword_only},
    Parameter{.name = "duration_ms", .annotation = "float | None", .kind = Kind::keyword_only},
};

constexpr Definition define(const char* name, std::span<const Parameter> parameters) {
    return {
        .name = name, .parameters = parameters, .result = "None", .documentation = "", .implementation = do_nothing};
}

constexpr std::array methods{define("is_disabled", tool_only), define("record_success", tool_only),
                             define("record_error", tool_and_error), define("record_call", one_call)};

PyType_Slot floor_slots[] = {{0, nullptr}};
PyType_Spec floor_spec = {.name = "health_floor.Floor",
                          .basicsize = sizeof(PyObject),
                          .itemsize = 0,
                          .flags = Py_TPFLAGS_DEFAULT,
                          .slots = floor_slots};

int execute(PyObject* module) {
    PyObject* done = health::py::to_runtime([&] {
        const Ref type = health::py::make_type(module, floor_spec);
        const Ref function_type = health::py::make_function_type(module);
        const FunctionHome home{.function_type = reinterpret_cast<PyTypeObject*>(function_type.get()),
                                .module = module,
                                .context = nullptr};
        for (const Definition& definition : methods) {
            const Ref method = health::py::make_method(home, definition, reinterpret_cast<PyTypeObject*>(type.get()));
            health::py::check(PyObject_SetAttrString(type.get(), definition.name, method.get()));
        }
        health::py::check(PyModule_AddObjectRef(module, "Floor", type.get()));
        return health::py::none();
    });
    return done == nullptr ? -1 : 0;
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

PyMODINIT_FUNC PyInit_health_floor() {
    return PyModuleDef_Init(&definition);
}
