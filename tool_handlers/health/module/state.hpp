// The state of one import of the module: everything that native code keeps of the runtime between two calls.
//
// Each import has one of its own; the functions hold it through their code, where the collector does not see it. So it
// refers to nothing that refers back to the module.
#pragma once

#include <Python.h>

#include <array>
#include <cstdint>

#include "health/module/names.hpp"
#include "health/python/lock.hpp"
#include "health/python/lookup_cache.hpp"
#include "health/python/object_class.hpp"
#include "health/python/original.hpp"
#include "health/python/ref.hpp"

namespace health {

/// `json.dumps` or `json.loads` with what it works with: the two modules, and the class that does the work.
struct JsonFunction {
    py::Original package;
    py::Original module;
    py::Original function;
    py::Original codec;

    /// Remembers those of the module that `globals` has as `json`, if that defines them. Throws a MemoryError.
    void remember(const Names& names, PyObject* globals, Name function_name, Name module_name, Name codec_name);
    /// Whether `json`, which may be any object, is that package and nothing in it was replaced. Runs no Python code.
    [[nodiscard]] bool is_unchanged(PyObject* json) const;
};

/// What names of the module led to when it was imported, where that was the runtime's own. Native code stands for it
/// while it is unchanged.
struct Originals {
    JsonFunction json_dumps;
    JsonFunction json_loads;
    py::Original json_decoder;  // the object by which `json.loads` reads
    py::Original datetime;
    py::Original timezone;
    py::Original sqlite_timestamp;
    py::Original cooldown_getter;
};

struct ModuleState {
    Names names;
    Originals originals;
    py::LockMethods locks;
    py::ModuleFunction clock;  // `time.time`
    struct Found {
        std::uint64_t version = 0;
        PyObject* value = nullptr;
    };
    std::array<Found, Names::count> found;  // under each name in a version of the namespace; borrowed while it has that
    py::ObjectClass tool_state;
    py::ObjectClass usage;
    py::ObjectClass tracker;
    py::LookupCache lookups;                   // of the trackers' two mappings
    py::CachedAttribute disable_after_errors;  // of the settings, as the next
    py::CachedAttribute disable_cooldown_s;
    Found cooldown;           // what the tracker's class has as `cooldown_s`, in a version of it; borrowed likewise
    py::Ref enabled_answer;   // `(False, None)`
    py::Ref disabled_answer;  // `(True, error)`, the last one, or empty

    /// Fills in what rests on names that the module has bound. The classes are learnt by themselves. Throws a
    /// MemoryError.
    void remember(PyObject* globals);
};

}  // namespace health
