// What one import of the module works with.
//
// `ModuleState` is what the module holds of the runtime. It refers to nothing that refers back to the module: the
// functions hold it through their code, where the collector does not see it. `Module` is that with the namespace of the
// function that was called; every operation takes it.
//
// Names that belong to the daemon (`TOOLS`, `is_slow_call`, ...), the constants and the module's own helpers are read
// from the namespace at each use, so that whoever replaces one of them is heard.
#pragma once

#include <Python.h>

#include <array>
#include <type_traits>
#include <utility>

#include "health/host/clock.hpp"
#include "health/module/names.hpp"
#include "health/python/function.hpp"
#include "health/python/lock.hpp"
#include "health/python/lookup_cache.hpp"
#include "health/python/object.hpp"
#include "health/records/view.hpp"

namespace health {

/// What the names of the module led to when it was imported, where that was the runtime's own: while a name still does,
/// native code serves in its place. Empty where it was not.
struct Originals {
    py::Ref json_dumps;
    py::Ref json_encoder;  // the class that it uses
    py::Ref json_loads;
    py::Ref datetime;
    py::Ref timezone;
    py::Ref sqlite_timestamp;
};

struct ModuleState {
    Names names;
    py::LockMethods locks;
    Clock clock;
    py::LookupCache lookups;  // of the trackers' two mappings
    ObjectClass<ToolStateFields> tool_state;
    ObjectClass<UsageFields> usage;
    ObjectClass<TrackerFields> tracker;
    Originals originals;
    py::PlainAttribute disable_after_errors;  // of the settings, as the next
    py::PlainAttribute disable_cooldown_s;
    /// The getter of the tracker's `cooldown_s`. Borrowed from the class while that is pristine; NULL if it had none.
    PyObject* cooldown_getter = nullptr;
    /// `(False, None)`, the answer for a tool that may be called.
    py::Ref enabled_answer;
    /// `(True, error)`, the last answer for a tool that may not; or empty.
    py::Ref disabled_answer;
    /// Dictionaries with the keys of a health record and of a usage row in their order: a copy of one, filled in, costs
    /// less than a new dictionary.
    py::Ref empty_record;
    py::Ref empty_row;

    /// Fills it in, once all names of the module are bound. Throws a MemoryError.
    void bind(PyObject* globals);
};

/// The keys of a health record and of a usage row, in their order.
inline constexpr std::array health_record_keys{Name::tool_name, Name::call_count,  Name::error_count, Name::last_error,
                                               Name::disabled,  Name::disabled_at, Name::updated_at,  Name::usage};
inline constexpr std::array usage_row_keys{Name::action, Name::outcome, Name::alias_hit,
                                           Name::calls,  Name::avg_ms,  Name::slow};

class Module {
public:
    ModuleState& state;
    PyObject* globals;  // the namespace; borrowed

    Module(ModuleState& module_state, PyObject* module_globals) : state(module_state), globals(module_globals) {}

    /// The interned text of a name.
    [[nodiscard]] PyObject* operator[](Name name) const { return state.names[name]; }
    /// The value of a name in the namespace, as it is now. Runs no Python code but where the namespace has a key that
    /// is not plain. Throws a NameError.
    [[nodiscard]] py::Ref get(Name name) const;
    /// Whether a name leads to `original`, which is not empty. As above.
    [[nodiscard]] bool is_original(Name name, const py::Ref& original) const;
    /// Whether a name leads to the module's own function. As above.
    [[nodiscard]] bool is_original(Name name, const py::FunctionDef& definition) const;

    /// Whether the tracker's class, which has objects, still has the `cooldown_s` that it was made with.
    [[nodiscard]] bool has_own_cooldown(const py::FunctionDef& definition) const {
        return state.cooldown_getter != nullptr && state.tracker.layout.is_pristine() &&
               py::is_original(state.cooldown_getter, definition, globals);
    }

    [[nodiscard]] ToolStateView tool_state(PyObject* object) const { return {state.tool_state, object}; }
    [[nodiscard]] UsageView usage(PyObject* object) const { return {state.usage, object}; }
    /// Throws a TypeError for an object that is no tracker.
    [[nodiscard]] TrackerView tracker(PyObject* object) const {
        if (!state.tracker.layout.is_instance(object)) {
            reject_tracker(object);
        }
        return {state.tracker, object};
    }

private:
    [[noreturn]] static void reject_tracker(PyObject* object);
};

/// Makes the row of a function out of what implements it: `Ref f(const Module&, PyObject*...)`, or `void` for None.
template <auto function>
struct Implementation;

template <class Result, class... Parameters, Result (*function)(const Module&, Parameters...)>
struct Implementation<function> {
    static py::Ref run(const py::FunctionContext& context, PyObject* const* arguments) {
        const Module module(*static_cast<ModuleState*>(context.state), context.globals);
        return [&]<std::size_t... place>(std::index_sequence<place...>) {
            if constexpr (std::is_void_v<Result>) {
                function(module, arguments[place]...);
                return py::none();
            } else {
                return function(module, arguments[place]...);
            }
        }
        (std::index_sequence_for<Parameters...>());
    }

    static constexpr py::FunctionDef define(const char* name) {
        return {.name = name, .parameter_count = sizeof...(Parameters), .implementation = run};
    }
};

/// Writes a warning to the module's logger: `format` has one `%s`, which takes `error`. Runs Python code, may block.
void log_failure(const Module& module, const char* format, PyObject* error);

/// `_ToolState()`, of the type that the namespace holds. Runs Python code only if that type was replaced or changed.
py::Ref make_tool_state(const Module& module);

/// A seeded `_ToolState`: all fields but `consecutive_errors`, by name. As above.
py::Ref make_tool_state(const Module& module, PyObject* call_count, PyObject* error_count, PyObject* last_error,
                        PyObject* disabled_at, PyObject* updated_at);

/// `_Usage()`. As above.
py::Ref make_usage(const Module& module);

/// `_Usage(calls, timed_calls, total_ms)`. As above.
py::Ref make_usage(const Module& module, PyObject* calls, PyObject* timed_calls, PyObject* total_ms);

}  // namespace health
