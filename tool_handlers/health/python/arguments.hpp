// Binding the arguments of a call to the parameters of a definition.
#pragma once

#include <Python.h>

#include <array>

#include "health/python/function.hpp"

namespace health::py {

/// The arguments of one call, one borrowed reference per parameter, for as long as the caller holds them.
class Arguments {
public:
    /// `names` are the parameters' interned names, as a tuple; the rest is as the vectorcall protocol gives it.
    /// Throws the runtime's own TypeErrors, with `qualname` as the function's name.
    Arguments(const Definition& definition, PyObject* names, PyObject* qualname, PyObject* const* given,
              Py_ssize_t positional, PyObject* keywords) {
        if (stand_in_order(definition, names, positional, keywords)) {
            bound_ = given;
        } else {
            bind(definition, names, qualname, given, positional, keywords);
            bound_ = storage_.data();
        }
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    Arguments(Arguments&&) = delete;
    Arguments& operator=(Arguments&&) = delete;
    ~Arguments() = default;

    [[nodiscard]] PyObject* const* data() const { return bound_; }

private:
    /// Whether the caller gave every argument, each where its parameter stands: then they need no binding.
    static bool stand_in_order(const Definition& definition, PyObject* names, Py_ssize_t positional,
                               PyObject* keywords) {
        const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
        if (positional + named != static_cast<Py_ssize_t>(definition.parameters.size()) ||
            (positional > 0 &&
             definition.parameters[static_cast<std::size_t>(positional) - 1].kind == Kind::keyword_only)) {
            return false;
        }
        for (Py_ssize_t index = 0; index < named; ++index) {
            if (PyTuple_GET_ITEM(keywords, index) != PyTuple_GET_ITEM(names, positional + index)) {
                return false;
            }
        }
        return true;
    }

    void bind(const Definition& definition, PyObject* names, PyObject* qualname, PyObject* const* given,
              Py_ssize_t positional, PyObject* keywords);

    PyObject* const* bound_ = nullptr;
    std::array<PyObject*, max_parameters> storage_;  // NOLINT: filled by `bind`, where it is used at all
};

}  // namespace health::py
