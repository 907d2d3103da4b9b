#include "health/python/arguments.hpp"

#include <algorithm>

#include "health/python/object.hpp"

namespace health::py {

namespace {

/// One call that could not be taken as it was given.
struct Binding {
    std::span<const Parameter> parameters;
    PyObject* names;
    PyObject* qualname;
    std::span<PyObject*> bound;  // nullptr where nothing was given yet

    [[nodiscard]] std::size_t positional_parameters() const {
        return static_cast<std::size_t>(std::ranges::count(parameters, Kind::positional_or_keyword, &Parameter::kind));
    }

    void take_positional(std::span<PyObject* const> given);
    void take_named(PyObject* name, PyObject* value);
    [[nodiscard]] std::size_t index_of(PyObject* name) const;
    void reject_surplus(std::size_t given) const;
    void reject_missing(Kind kind, const char* kind_text) const;
    void fill_defaults();
};

void Binding::take_positional(std::span<PyObject* const> given) {
    std::ranges::fill(bound, nullptr);
    std::copy_n(given.begin(), std::min(given.size(), positional_parameters()), bound.begin());
}

std::size_t Binding::index_of(PyObject* name) const {
    for (std::size_t index = 0; index < parameters.size(); ++index) {
        if (PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(index)) == name) {
            return index;
        }
    }
    for (std::size_t index = 0; index < parameters.size(); ++index) {
        if (compares(name, PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(index)), Py_EQ)) {
            return index;
        }
    }
    return parameters.size();
}

void Binding::take_named(PyObject* name, PyObject* value) {
    if (!PyUnicode_Check(name)) {
        raise(PyExc_TypeError, "%U() keywords must be strings", qualname);
    }
    const std::size_t index = index_of(name);
    if (index == parameters.size()) {
        raise(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", qualname, name);
    }
    if (bound[index] != nullptr) {
        raise(PyExc_TypeError, "%U() got multiple values for argument '%S'", qualname, name);
    }
    bound[index] = value;
}

void Binding::reject_surplus(std::size_t given) const {
    const std::size_t most = positional_parameters();
    if (given <= most) {
        return;
    }
    const auto defaults = static_cast<std::size_t>(std::ranges::count(parameters, true, &Parameter::defaults_to_none));
    const auto named = static_cast<std::size_t>(
        std::ranges::count_if(bound.subspan(most), [](PyObject* value) { return value != nullptr; }));
    const Ref takes = defaults == 0 ? Ref::steal(PyUnicode_FromFormat("%zu", most))
                                    : Ref::steal(PyUnicode_FromFormat("from %zu to %zu", most - defaults, most));
    const Ref also = named == 0
                         ? text("")
                         : Ref::steal(PyUnicode_FromFormat(" positional argument%s (and %zu keyword-only argument%s)",
                                                           given == 1 ? "" : "s", named, named == 1 ? "" : "s"));
    raise(PyExc_TypeError, "%U() takes %U positional argument%s but %zu%U %s given", qualname, takes.get(),
          most == 1 && defaults == 0 ? "" : "s", given, also.get(), given == 1 && named == 0 ? "was" : "were");
}

/// `'a'`, `'a' and 'b'`, `'a', 'b', and 'c'`.
Ref enumerate(std::span<const char* const> words) {
    Ref list = Ref::steal(PyUnicode_FromFormat("'%s'", words.front()));
    for (std::size_t index = 1; index < words.size(); ++index) {
        const bool last = index + 1 == words.size();
        const char* separator = !last ? ", " : words.size() == 2 ? " and " : ", and ";
        list = Ref::steal(PyUnicode_FromFormat("%U%s'%s'", list.get(), separator, words[index]));
    }
    return list;
}

void Binding::reject_missing(Kind kind, const char* kind_text) const {
    std::array<const char*, max_parameters> missing{};
    std::size_t count = 0;
    for (std::size_t index = 0; index < parameters.size(); ++index) {
        const Parameter& parameter = parameters[index];
        if (bound[index] == nullptr && parameter.kind == kind && !parameter.defaults_to_none) {
            missing[count++] = parameter.name;
        }
    }
    if (count > 0) {
        const Ref list = enumerate(std::span(missing).first(count));
        raise(PyExc_TypeError, "%U() missing %zu required %s argument%s: %U", qualname, count, kind_text,
              count == 1 ? "" : "s", list.get());
    }
}

void Binding::fill_defaults() {
    std::ranges::replace(bound, nullptr, Py_None);
}

}  // namespace

void Arguments::bind(const Definition& definition, PyObject* names, PyObject* qualname, PyObject* const* given,
                     Py_ssize_t positional, PyObject* keywords) {
    const auto count = static_cast<std::size_t>(positional);
    Binding binding{.parameters = definition.parameters,
                    .names = names,
                    .qualname = qualname,
                    .bound = std::span(storage_).first(definition.parameters.size())};
    binding.take_positional({given, count});
    const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t index = 0; index < named; ++index) {
        binding.take_named(PyTuple_GET_ITEM(keywords, index), given[positional + index]);
    }
    binding.reject_surplus(count);
    binding.reject_missing(Kind::positional_or_keyword, "positional");
    binding.reject_missing(Kind::keyword_only, "keyword-only");
    binding.fill_defaults();
}

}  // namespace health::py
