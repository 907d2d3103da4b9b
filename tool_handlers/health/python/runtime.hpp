// All that rests on the insides of CPython 3.12: private functions, layouts, version numbers. Nothing else in the
// module names them. Each tells the header it is from, and what would follow if it were wrong. Layouts stay the same
// within a release series; without one of the functions the module would not load.
#pragma once

#include <Python.h>

#include <dlfcn.h>
#include <structmember.h>

#include <cstdint>
#include <string_view>

namespace health::py {

// Threads.

/// The state of this thread; nullptr while it does not hold the GIL. cpython/pystate.h; public since 3.13.
inline PyThreadState* thread_state() { return _PyThreadState_UncheckedGet(); }

/// Whether this thread holds the GIL, and so may touch objects. One that a finalising interpreter ends does not: its
/// destructors must leave every object alone.
inline bool is_attached() { return thread_state() != nullptr; }

/// Whether the interpreter has begun to end. cpython/pylifecycle.h; public since 3.13. If it were wrong, the last
/// thread would wait for a lock whose holder has ended.
inline bool is_finalizing() { return _Py_IsFinalizing() != 0; }

/// Enters native code that may call itself: false, with a RecursionError, where no depth is left; each success is given
/// back by `leave_native`. As `Py_EnterRecursiveCall`, but that the thread is looked up once (measured: 7 % of
/// is_disabled). cpython/pystate.h. If it were wrong, endless recursion would end the process.
inline bool enter_native(PyThreadState* thread) {
    if (thread->c_recursion_remaining > 0) {
        --thread->c_recursion_remaining;
        return true;
    }
    return Py_EnterRecursiveCall(" while calling a Python object") == 0;
}
inline void leave_native(PyThreadState* thread) { ++thread->c_recursion_remaining; }

// Objects.

/// Whether an object is never freed and needs no counting. object.h. A wrong no costs time only.
inline bool is_immortal(PyObject* object) { return _Py_IsImmortal(object) != 0; }

/// Whether a borrowed object is about to be freed. object.h. See `version_of` of a dictionary.
inline bool is_dying(PyObject* object) { return Py_REFCNT(object) == 0; }

/// Whether two objects that are exactly str are equal; runs no Python code, cannot fail. cpython/unicodeobject.h.
inline bool is_same_text(PyObject* left, PyObject* right) { return _PyUnicode_EQ(left, right) != 0; }

/// The hash of an object that is exactly a str, which keeps it. cpython/unicodeobject.h. If it were wrong, look-ups
/// would miss.
inline Py_hash_t hash_of_text(PyObject* text) {
    const Py_hash_t known = reinterpret_cast<PyASCIIObject*>(text)->hash;
    return known != -1 ? known : PyObject_Hash(text);
}

// Classes and their instances.

/// What a class or a base of it has under an interned name, borrowed, or nullptr; and gives the class a version.
/// cpython/object.h.
inline PyObject* find_in_class(PyTypeObject* type, PyObject* name) { return _PyType_Lookup(type, name); }

/// A number that no other class has, and no other state of this class and its bases; 0 for none. It does not tell of
/// changes within the members: of a method's code, a property's getter. cpython/object.h; the runtime's own cache of
/// attributes stands and falls with it.
inline unsigned int version_of(const PyTypeObject* type) { return type->tp_version_tag; }

/// Where an instance of a class with Py_TPFLAGS_MANAGED_DICT has its attributes (internal/pycore_object.h):
///
///     object - 24   word: the address of the array of values less 1, or that of the `__dict__` once it was asked for
///     object        reference count, type
///
///     values   [0] of the first attribute   [1] of the second ...   NULL where there is none
///
/// If it were wrong, `ObjectClass::learn` would find so at import, and no object would be read directly.
inline char* attributes_word(PyObject* object) { return reinterpret_cast<char**>(object)[-3]; }
inline bool is_values_word(const char* word) { return (reinterpret_cast<std::uintptr_t>(word) & 1) != 0; }
inline PyObject** values_of_word(char* word) {
    return is_values_word(word) ? reinterpret_cast<PyObject**>(word + 1) : nullptr;
}
inline PyObject* dict_of_word(char* word) { return is_values_word(word) ? nullptr : reinterpret_cast<PyObject*>(word); }

/// The getter of a property, borrowed, where the type's table of members (descrobject.h) says it is; nullptr if there
/// is none, and for any other object.
inline PyObject* getter_of(PyObject* property) {
    const bool is_property = property != nullptr && Py_IS_TYPE(property, &PyProperty_Type);
    for (const PyMemberDef* member = PyProperty_Type.tp_members; is_property && member->name != nullptr; ++member) {
        if (std::string_view(member->name) == "fget") {
            return *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(property) + member->offset);
        }
    }
    return nullptr;
}

// Functions.

/// A number that no other code has. cpython/code.h. If it were wrong, code that a host derived from a function's own
/// would run the native code of that.
inline std::uint32_t version_of(const PyCodeObject* code) { return code->co_version; }

/// The names of a function's parameters, keyword-only ones last, and then of its other variables: a tuple, borrowed.
/// cpython/code.h. `make_native` compares them with what it expects and would fail at import.
inline PyObject* variables_of(const PyCodeObject* code) { return code->co_localsplusnames; }

/// Calls a Python function as if it had no vectorcall of ours. cpython/funcobject.h.
inline PyObject* call_interpreted(PyObject* function, PyObject* const* arguments, std::size_t count,
                                  PyObject* keywords) {
    return _PyFunction_Vectorcall(function, arguments, count, keywords);
}

/// Whether a C function is in the library, or the program, that defines a module, as the loader knows (dlfcn.h). A
/// wrong no costs time only; a wrong yes takes code that may run Python code for code that does not.
inline bool is_in_library_of(PyObject* module, PyCFunction function) {
    const void* definition = PyModule_GetDef(module);
    Dl_info of_module;
    Dl_info of_function;
    return definition != nullptr && dladdr(definition, &of_module) != 0 &&
           dladdr(reinterpret_cast<const void*>(function), &of_function) != 0 &&
           of_module.dli_fbase == of_function.dli_fbase;
}

// Dictionaries and sets.

/// A number that no other state of any dictionary has: while it stays the same, the dictionary holds the same keys and
/// values. But `object.name = value`, where the dictionary is the object's `__dict__`, drops the old value before it
/// changes the number (Python/bytecodes.c, STORE_ATTR_WITH_HINT): what code the drop runs sees the old number.
/// cpython/dictobject.h; later releases have none, and this does not compile there.
inline std::uint64_t version_of(PyObject* dict) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
}

/// Whether an object, which may be nullptr, is exactly a set and is seen to hold a text, exactly a str. It looks where
/// the runtime would (cpython/setobject.h), but passes over other keys instead of comparing them, and runs no Python
/// code. A wrong no costs time only; a wrong yes is impossible, since the very key is found.
inline bool is_seen_in(PyObject* set, PyObject* text) {
    if (set == nullptr || !PySet_CheckExact(set)) {
        return false;
    }
    constexpr std::size_t neighbours = 9;  // that are looked at before jumping on, unless the table ends
    const auto& table = *reinterpret_cast<PySetObject*>(set);
    const Py_hash_t hash = hash_of_text(text);
    const auto mask = static_cast<std::size_t>(table.mask);
    auto perturb = static_cast<std::size_t>(hash);
    for (std::size_t place = perturb & mask;; place = (place * 5 + 1 + perturb) & mask) {
        const setentry* entry = &table.table[place];
        const setentry* last = place + neighbours <= mask ? entry + neighbours : entry;
        for (; entry <= last; ++entry) {
            if (entry->key == nullptr) {
                return false;
            }
            if (entry->key == text ||
                (entry->hash == hash && PyUnicode_CheckExact(entry->key) && is_same_text(entry->key, text))) {
                return true;
            }
        }
        perturb >>= 5;
    }
}

}  // namespace health::py
