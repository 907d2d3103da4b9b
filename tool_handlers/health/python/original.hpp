// Whether something is what it was when the module was imported, so that native code may stand for it.
//
// The same object is not an unchanged one: code and defaults of a function can be replaced, methods of a class, the C
// function behind a native one. So an `Original` remembers what tells of a change:
//
//     a function         its code, its defaults and keyword-only defaults, and what is in the latter
//     a native function  its C function
//     a class            its version, that `type` is its type, and each of its functions
//     anything else      its type, and the version of its `__dict__`; one without that is taken for immutable
#pragma once

#include <Python.h>

#include <cstdint>

#include "health/python/memory.hpp"
#include "health/python/ref.hpp"

namespace health::py {

class Original {
public:
    /// Remembers an object as it is now; nullptr forgets. Classes and functions are not kept alive, for they may refer
    /// back to the module; anything else is. Throws a MemoryError. Runs no Python code.
    void remember(PyObject* object);

    /// Whether an object, which may be nullptr, is the one that is remembered, unchanged. Runs no Python code.
    [[nodiscard]] bool is(PyObject* object) const;

    /// The same of the object itself, which must be alive: kept by this or by something that is unchanged.
    [[nodiscard]] bool is_unchanged() const { return is(object_); }

private:
    struct Function {
        PyObject* function;  // borrowed from what holds it while that is unchanged
        Ref code;
        Ref defaults;
        Ref keyword_defaults;
        std::uint64_t keyword_version;  // of the latter
    };

    void remember_function(PyObject* function);
    static bool is_same(const Function& function);

    PyObject* object_ = nullptr;
    Ref kept_;
    RefVector<Function> functions_;
    PyCFunction native_ = nullptr;
    PyTypeObject* type_ = nullptr;  // of what has a `__dict__`
    Ref members_;                   // that `__dict__`
    std::uint64_t version_ = 0;
};

/// A native function of another module, such as `time.time`.
class ModuleFunction {
public:
    /// Remembers what `module`, which may be nullptr, has under an interned name, if that is native, takes no
    /// arguments, and is the module's own: its first argument is the module, and its C function comes from the same
    /// library (one that freezes time may have put its own in place). Runs no Python code; throws a MemoryError.
    void remember(PyObject* module, PyObject* name);

    /// Calls the function if `module`, which may be nullptr, is that module and still has it, unchanged; else empty.
    /// Throws what it raises.
    Ref call(PyObject* module) {
        if (module != module_.get() || module == nullptr || !PyModule_CheckExact(module)) {
            return {};
        }
        if (version_of(members_) != version_) {
            find();
        }
        return original_.is(function_)
                   ? Ref::steal(PyCFunction_GET_FUNCTION(function_)(PyCFunction_GET_SELF(function_), nullptr))
                   : Ref();
    }

private:
    void find();

    Ref module_;
    Ref name_;
    Original original_;
    PyObject* members_ = nullptr;  // the module's namespace
    std::uint64_t version_ = 0;    // of it, in which it has this under the name, borrowed:
    PyObject* function_ = nullptr;
};

}  // namespace health::py
