// `PyInit_health`: the module's definition, its state, and the order in which its names are bound.
#include <Python.h>

#include <new>

#include "health/binding/surface.hpp"
#include "health/host/host.hpp"
#include "health/python/function.hpp"
#include "health/records/constants.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

namespace {

using py::Ref;

constexpr const char* documentation =
    "Tool health tracking, the performance stats of the tools, and the process's thread census.\n"
    "\n"
    "``ToolHealthTracker`` disables a tool that keeps failing and tries it again after a\n"
    "cooldown, and counts what each call ran and how it ended, for ``status perf_stats``.\n"
    "``thread_census_report`` measures the threads of the process against the budget its pools\n"
    "allow, for the ``status`` answers.\n";

/// The module's state: all that it holds of the runtime. There is no clearing before the end: whatever could be part
/// of a cycle with it (functions, types, the namespace) breaks that cycle itself, and the state dies with the module.
struct State {
    Host host;
    PyObject* function_type = nullptr;

    /// Calls `visit` with each reference held, until one answers other than 0; the last answer.
    template <class Visit>
    int for_each(Visit&& visit) {
        const int answer = visit(function_type);
        return answer != 0 ? answer : host.for_each(visit);
    }
};

State& state_of(PyObject* module) {
    return *static_cast<State*>(PyModule_GetState(module));
}

/// The steps of executing the module, for the binding list below.
class Binder {
public:
    explicit Binder(PyObject* module) : module_(module), state_(state_of(module)) {}

    void prepare();
    void bind_standard_names();
    void bind_host_names();
    void bind_constants();
    void bind_time_functions();
    void bind_records();
    void bind_registry_check();
    void bind_tracker();
    void bind_reports();

private:
    Host& host() { return state_.host; }
    [[nodiscard]] py::FunctionHome home() const {
        return {.function_type = reinterpret_cast<PyTypeObject*>(state_.function_type),
                .module = module_,
                .context = &state_.host};
    }
    void bind(const char* name, const Ref& value) { py::check(PyModule_AddObjectRef(module_, name, value.get())); }
    Ref make_empty(std::span<const Name> keys);
    Ref bind_import(const char* module_name);
    void bind_from(const char* module_name, std::initializer_list<const char*> names);
    Ref bind_function(const py::Definition& definition);
    template <class Fields>
    void bind_record(RecordType<Fields>& type, const char* name, PyObject* dataclass);

    PyObject* module_;
    State& state_;
};

/// What the steps need, none of it visible: the state comes first, so that a failed import can be cleared up.
void Binder::prepare() {
    host().names.intern();
    host().globals = Py_NewRef(PyModule_GetDict(module_));
    const Ref threads = Ref::steal(PyImport_ImportModule("_thread"));
    host().locks = py::LockMethods(py::get_attribute(threads.get(), "LockType").get());
    host().enabled_answer = py::make_tuple(Py_False, Py_None).release();
    host().empty_record = make_empty(health_record_keys).release();
    host().empty_row = make_empty(usage_row_keys).release();
    state_.function_type = py::make_function_type(module_).release();
}

/// A dictionary with these keys and False under each.
Ref Binder::make_empty(std::span<const Name> keys) {
    Ref empty = Ref::steal(PyDict_New());
    for (const Name key : keys) {
        py::check(PyDict_SetItem(empty.get(), host().names[key], Py_False));
    }
    return empty;
}

Ref Binder::bind_import(const char* module_name) {
    Ref imported = Ref::steal(PyImport_ImportModule(module_name));
    bind(module_name, imported);
    return imported;
}

/// Turns the AttributeError of a name that a module lacks into the ImportError of an import statement.
[[noreturn]] void reject_import(const char* module_name, PyObject* module, const char* name) {
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) {
        py::throw_current();
    }
    PyErr_Clear();
    Ref path = Ref::steal_optional(PyModule_GetFilenameObject(module));
    if (!path) {
        PyErr_Clear();
        path = py::text("unknown location");
    }
    const Ref module_text = py::text(module_name);
    const Ref message =
        Ref::steal(PyUnicode_FromFormat("cannot import name '%s' from '%U' (%U)", name, module_text.get(), path.get()));
    PyErr_SetImportError(message.get(), module_text.get(), path.get());
    py::throw_current();
}

/// `from module_name import names`, with that statement's errors.
void Binder::bind_from(const char* module_name, std::initializer_list<const char*> names) {
    const Ref wanted = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(names.size())));
    Py_ssize_t index = 0;
    for (const char* name : names) {
        PyTuple_SET_ITEM(wanted.get(), index++, py::text(name).release());
    }
    const Ref imported = Ref::steal(PyImport_ImportModuleLevel(module_name, host().globals, nullptr, wanted.get(), 0));
    for (const char* name : names) {
        const Ref value = Ref::steal_optional(PyObject_GetAttrString(imported.get(), name));
        if (!value) {
            reject_import(module_name, imported.get(), name);
        }
        bind(name, value);
    }
}

void Binder::bind_standard_names() {
    const Ref json = bind_import("json");
    host().own.json_dumps = py::get_attribute(json.get(), host().names[Name::dumps]).release();
    host().own.json_loads = py::get_attribute(json.get(), host().names[Name::loads]).release();
    bind_import("logging");
    bind_import("threading");
    host().clock.learn(bind_import("time").get());
    bind_from("dataclasses", {"dataclass"});
    bind_from("datetime", {"datetime", "timezone"});
    bind("TYPE_CHECKING", py::boolean(false));
    bind_from("typing", {"Any"});
}

void Binder::bind_host_names() {
    bind_from("quorl_dendra.config", {"ToolsConfig"});
    bind_from("quorl_dendra.tool_registry", {"TOOLS"});
    bind_from("quorl_dendra.tool_schemas", {"is_slow_call"});
    bind_from("quorl_dendra.utils.process", {"ThreadCensus", "thread_census"});
    bind_from("quorl_dendra.utils.timing", {"get_timing_collector"});
}

void Binder::bind_constants() {
    const Ref logging = py::get_attribute(module_, "logging");
    const Ref name = py::get_attribute(module_, "__name__");
    bind("logger", py::call(py::get_attribute(logging.get(), "getLogger").get(), name.get()));
    bind("_SQLITE_TIMESTAMP", py::text(sqlite_timestamp));
    bind("_TOOL_HEALTH_COLUMNS", py::text(tool_health_columns));
    bind("TOOL_USAGE_KEY", py::text(tool_usage_key));
    bind("_UsageKey", make_usage_key_alias());
}

Ref Binder::bind_function(const py::Definition& definition) {
    Ref function = py::make_function(home(), definition);
    bind(definition.name, function);
    return function;
}

void Binder::bind_time_functions() {
    host().own.sqlite_time = bind_function(sqlite_time_definition).release();
    host().own.epoch = bind_function(epoch_definition).release();
}

template <class Fields>
void Binder::bind_record(RecordType<Fields>& type, const char* name, PyObject* dataclass) {
    type.declare(module_);
    type.decorate(dataclass);
    bind(name, Ref::borrow(type.get()));
}

void Binder::bind_records() {
    const Ref dataclass = py::get_attribute(module_, "dataclass");
    bind_record(host().records.tool_state, "_ToolState", dataclass.get());
    bind_record(host().records.usage, "_Usage", dataclass.get());
}

void Binder::bind_registry_check() {
    host().own.known = bind_function(known_definition).release();
}

/// Makes a property of a class, and tells it its name as a class statement does.
void bind_property(PyObject* type, const char* name, PyObject* getter) {
    const Ref property = py::call(reinterpret_cast<PyObject*>(&PyProperty_Type), getter);
    py::check(PyObject_SetAttrString(type, name, property.get()));
    py::call_method(property.get(), py::text("__set_name__").get(), type, py::text(name).get());
}

void Binder::bind_tracker() {
    const Ref type = make_tracker_type(module_);
    for (const Member& member : tracker_members()) {
        const py::Definition& definition = member.definition;
        const Ref method = py::make_method(home(), definition, reinterpret_cast<PyTypeObject*>(type.get()));
        if (member.kind == MemberKind::property) {
            bind_property(type.get(), definition.name, method.get());
        } else {
            py::check(PyObject_SetAttrString(type.get(), definition.name, method.get()));
        }
    }
    host().own.usage_rows = py::get_attribute(type.get(), "_usage_rows").release();
    bind("ToolHealthTracker", type);
}

void Binder::bind_reports() {
    bind_function(performance_definition);
    bind_function(thread_census_definition);
}

int execute(PyObject* module) {
    new (PyModule_GetState(module)) State;
    PyObject* done = py::to_runtime([&] {
        Binder binder(module);
        binder.prepare();
        binder.bind_standard_names();
        binder.bind_host_names();
        binder.bind_constants();
        binder.bind_time_functions();
        binder.bind_records();
        binder.bind_registry_check();
        binder.bind_tracker();
        binder.bind_reports();
        return py::none();
    });
    return done == nullptr ? -1 : 0;
}

int traverse(PyObject* module, visitproc visit, void* arg) {
    return state_of(module).for_each([&](PyObject*& object) {
        Py_VISIT(object);
        return 0;
    });
}

void release(void* module) {
    state_of(static_cast<PyObject*>(module)).for_each([](PyObject*& object) {
        Py_CLEAR(object);
        return 0;
    });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "health",
    .m_doc = documentation,
    .m_size = sizeof(State),
    .m_methods = nullptr,
    .m_slots = slots,
    .m_traverse = traverse,
    .m_clear = nullptr,
    .m_free = release,
};

}  // namespace

}  // namespace health

PyMODINIT_FUNC PyInit_health() {
    return PyModuleDef_Init(&health::definition);
}
