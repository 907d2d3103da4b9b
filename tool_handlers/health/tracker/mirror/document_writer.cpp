#include "health/tracker/mirror/document_writer.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <memory>

#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"
#include "health/python/text.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/mirror/canonical_document.hpp"

namespace health {

using py::Ref;

namespace {

constexpr std::size_t typical_entry = 128;  // characters

/// Whether a text, exactly a str, stands in JSON as it is, between quotes.
bool needs_no_escape(PyObject* text) {
    return py::is_plain_ascii(text) && plain_size(py::ascii_of(text)) == py::ascii_of(text).size();
}

/// The entries as a list of dictionaries: what an encoder other than the runtime's own is given.
Ref list_objects(const Module& module, const py::RefVector<DocumentEntry>& entries) {
    Ref list = Ref::steal(PyList_New(0));
    for (const DocumentEntry& entry : entries) {
        const Ref object = Ref::steal(PyDict_New());
        const auto put = [&](Name name, PyObject* value) {
            py::check(PyDict_SetItem(object.get(), module[name], value));
        };
        put(Name::tool, member_of(entry.key, key_tool));
        put(Name::action, member_of(entry.key, key_action));
        put(Name::outcome, member_of(entry.key, key_outcome));
        put(Name::alias_hit, member_of(entry.key, key_alias_hit));
        put(Name::calls, entry.calls.get());
        put(Name::timed_calls, entry.timed_calls.get());
        put(Name::total_ms, py::round_by_runtime(entry.total_ms.get(), total_decimals).get());
        py::check(PyList_Append(list.get(), object.get()));
    }
    return list;
}

struct FreeText {
    void operator()(char* text) const { PyMem_Free(text); }
};

}  // namespace

Ref DocumentWriter::write(const py::RefVector<DocumentEntry>& entries) {
    const Ref json = module_.get(Name::json);
    const Ref dumps = py::get_attribute(json.get(), module_[Name::dumps]);
    if (!is_own_encoder(json.get(), dumps.get())) {
        return dump(dumps.get(), list_objects(module_, entries).get());
    }
    out_.reserve(entries.size() * typical_entry + 2);
    out_ += '[';
    for (const DocumentEntry& entry : entries) {
        if (out_.size() > 1) {
            out_ += ',';
        }
        add_entry(entry);
    }
    out_ += ']';
    return Ref::steal(PyUnicode_FromStringAndSize(out_.data(), static_cast<Py_ssize_t>(out_.size())));
}

/// Whether `dumps` encodes as it did when the module was imported.
bool DocumentWriter::is_own_encoder(PyObject* json, PyObject* dumps) const {
    const Originals& originals = module_.state.originals;
    return originals.json_dumps && dumps == originals.json_dumps.get() && PyModule_CheckExact(json) &&
           py::find(PyModule_GetDict(json), module_[Name::JSONEncoder]) == originals.json_encoder.get();
}

void DocumentWriter::add_entry(const DocumentEntry& entry) {
    add_member(R"({"tool":)", member_of(entry.key, key_tool));
    add_member(R"(,"action":)", member_of(entry.key, key_action));
    add_member(R"(,"outcome":)", member_of(entry.key, key_outcome));
    add_member(R"(,"alias_hit":)", member_of(entry.key, key_alias_hit));
    add_member(R"(,"calls":)", entry.calls.get());
    add_member(R"(,"timed_calls":)", entry.timed_calls.get());
    out_ += R"(,"total_ms":)";
    add_total(entry.total_ms.get());
    out_ += '}';
}

/// `begin` is what stands before the value.
void DocumentWriter::add_member(std::string_view begin, PyObject* value) {
    out_ += begin;
    add_value(value);
}

void DocumentWriter::add_total(PyObject* total_ms) {
    if (PyFloat_CheckExact(total_ms)) {
        add_rounded(PyFloat_AS_DOUBLE(total_ms));
    } else {
        add_value(total_ms);
    }
}

void DocumentWriter::add_value(PyObject* value) {
    if (PyUnicode_CheckExact(value)) {
        add_text(value);
    } else if (PyLong_CheckExact(value)) {
        add_integer(value);
    } else if (PyFloat_CheckExact(value)) {
        add_float(PyFloat_AS_DOUBLE(value));
    } else if (value == Py_None) {
        out_ += "null";
    } else if (PyBool_Check(value)) {
        out_ += value == Py_True ? "true" : "false";
    } else {
        add_by_runtime(value);
    }
}

void DocumentWriter::add_text(PyObject* value) {
    if (needs_no_escape(value)) {
        out_ += '"';
        out_ += py::ascii_of(value);
        out_ += '"';
        return;
    }
    if (!escape_) {
        const Ref encoder = py::get_attribute(module_.get(Name::json).get(), module_[Name::encoder]);
        escape_ = py::get_attribute(encoder.get(), module_[Name::encode_basestring_ascii]);
    }
    add_characters(py::call(escape_.get(), value).get());
}

void DocumentWriter::add_integer(PyObject* value) {
    int overflow = 0;
    const long number = PyLong_AsLongAndOverflow(value, &overflow);
    if (overflow != 0) {
        add_characters(Ref::steal(PyObject_Repr(value)).get());
        return;
    }
    std::array<char, 24> digits;
    out_.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
}

/// The shortest text that reads back to the same double, as `float.__repr__` and the encoder write it.
void DocumentWriter::add_float(double value) {
    if (!std::isfinite(value)) {
        out_ += std::isnan(value) ? "NaN" : value > 0 ? "Infinity" : "-Infinity";
        return;
    }
    const std::unique_ptr<char, FreeText> text(PyOS_double_to_string(value, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr));
    if (!text) {
        py::throw_current();
    }
    out_ += text.get();
}

/// The float that `value` is when rounded to three decimals. Below 1e11 its digits are few enough to be its shortest
/// text too: all that differs is that zeros at the end are left out.
void DocumentWriter::add_rounded(double value) {
    constexpr double few_digits = 1e11;
    if (!(std::fabs(value) < few_digits)) {
        add_float(py::round_to(value, total_decimals));
        return;
    }
    std::array<char, 24> digits;
    const char* end =
        std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, total_decimals)
            .ptr;
    while (end[-1] == '0' && end[-2] != '.') {
        --end;
    }
    out_ += std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

void DocumentWriter::add_by_runtime(PyObject* value) {
    add_characters(dump(module_.state.originals.json_dumps.get(), value).get());
}

/// `dumps(value, separators=(",", ":"))`.
Ref DocumentWriter::dump(PyObject* dumps, PyObject* value) const {
    const Ref keywords = py::make_tuple(module_[Name::separators]);
    const Ref separators = py::make_tuple(py::text(",").get(), py::text(":").get());
    std::array<PyObject*, 3> arguments{nullptr, value, separators.get()};
    return py::call_vector(dumps, arguments.data() + 1, 1, keywords.get());
}

void DocumentWriter::add_characters(PyObject* text) {
    Py_ssize_t size = 0;
    const char* characters = PyUnicode_AsUTF8AndSize(text, &size);
    if (characters == nullptr) {
        py::throw_current();
    }
    out_.append(characters, static_cast<std::size_t>(size));
}

}  // namespace health
