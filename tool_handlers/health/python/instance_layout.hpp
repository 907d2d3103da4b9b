// Where the objects of a plain Python class keep their attributes.
//
// The runtime keeps them in an array of values, until somebody asks for the object's `__dict__`:
//
//     object - 24   word: the array, tagged with its lowest bit; or the `__dict__`, untagged
//     object        reference count, type
//
//     array   [0] value of the first attribute   [1] of the second ...   NULL where there is none
//
// Which attribute has which place is the same for all objects of a class, in the order in which the first of them got
// their attributes. The interpreter's specialised instructions read attributes so. It holds for one version of the
// class, by which the runtime tells that nothing in it, nor in its bases, was changed.
#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "health/python/ref.hpp"

namespace health::py {

class InstanceLayout {
public:
    /// From now on it is about the class `type`, whose objects get the attributes `names`, in this order, before any
    /// other; none was made yet. If they are not kept as told above, no object will be found plain. Both must live as
    /// long as this. Throws a MemoryError. Runs no Python code unless the class has a method that does.
    void bind(PyObject* type, std::span<const Ref> names);

    /// Whether an object is of the class or one derived from it. Runs no Python code.
    [[nodiscard]] bool is_instance(PyObject* object) const { return PyObject_TypeCheck(object, type_) != 0; }

    /// The values of a plain object, by the places of their names: it is exactly of the class, nobody asked for its
    /// `__dict__`, and reading or writing the attributes runs no Python code. Else nullptr. Good until Python code may
    /// run; runs none itself.
    PyObject** values_of(PyObject* object) {
        char* word = has_layout(object) ? word_of(object) : nullptr;
        if (!is_tagged(word)) {
            return nullptr;
        }
        auto** values = reinterpret_cast<PyObject**>(word + tag);
        assert_reads_back(object, values);
        return values;
    }

    /// The `__dict__` of an object that is plain but for having been asked for it. Else nullptr. As above.
    PyObject* dict_of(PyObject* object) {
        char* word = has_layout(object) ? word_of(object) : nullptr;
        return is_tagged(word) ? nullptr : reinterpret_cast<PyObject*>(word);
    }

    /// Whether an object, which is exactly of the class, has the class as it was when it was bound.
    [[nodiscard]] bool is_pristine() const { return type_->tp_version_tag == bound_version_; }
    [[nodiscard]] bool is_exactly(PyObject* type) const { return type == reinterpret_cast<PyObject*>(type_); }

    /// A new object of the pristine class, without attributes. Runs no Python code; throws a MemoryError.
    [[nodiscard]] Ref make_bare() const;

private:
    static constexpr std::uintptr_t tag = 1;

    static char* word_of(PyObject* object) { return reinterpret_cast<char**>(object)[-3]; }
    static bool is_tagged(const char* word) { return (reinterpret_cast<std::uintptr_t>(word) & tag) != 0; }
    bool has_layout(PyObject* object) {
        return Py_TYPE(object) == plain_type_ && (type_->tp_version_tag == version_ || is_plain_now());
    }
    bool is_plain_now();
    [[nodiscard]] bool reads_back() const;
#ifdef HEALTH_ASSERTIONS
    void assert_reads_back(PyObject* object, PyObject** values) const;
#else
    void assert_reads_back(PyObject* /*object*/, PyObject** /*values*/) const {}
#endif

    static constexpr unsigned int no_version = ~0U;  // that no class has

    PyTypeObject* type_ = nullptr;        // borrowed: its functions hold what holds this
    PyTypeObject* plain_type_ = nullptr;  // the same, if its objects are kept as told above
    Ref weak_type_;                       // a weak reference to it, to tell it from another class in its place
    std::span<const Ref> names_;
    unsigned int version_ = no_version;  // of the class, for which the layout holds
    unsigned int bound_version_ = no_version;
};

}  // namespace health::py
