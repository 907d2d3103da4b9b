// Writing the usage document, as the runtime's encoder would write it.
//
// Plain values are written here: that takes a fraction of the encoder's time, and no memory but the text's, where the
// encoder does not survive that memory runs out. All other values, and texts that need escapes, are left to the
// runtime's own `json`.
#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

#include "health/python/numbers.hpp"
#include "health/records/records.hpp"
#include "health/tracker/mirror/canonical_document.hpp"
#include "health/tracker/mirror/document.hpp"

namespace health {

using py::Ref;

namespace {

/// The entries as a list of dictionaries: what an encoder other than the runtime's own is given.
Ref list_objects(const Context& context, const py::RefVector<DocumentEntry>& entries) {
    Ref list = Ref::steal(PyList_New(0));
    for (const DocumentEntry& entry : entries) {
        const Ref object = Ref::steal(PyDict_New());
        const Ref total_ms = entry.is_rounded ? Ref::borrow(entry.total_ms.get())
                                              : py::round_by_runtime(entry.total_ms.get(), total_decimals);
        py::set_item(object.get(), context[Name::tool], member_of(entry.key, key_tool));
        py::set_item(object.get(), context[Name::action], member_of(entry.key, key_action));
        py::set_item(object.get(), context[Name::outcome], member_of(entry.key, key_outcome));
        py::set_item(object.get(), context[Name::alias_hit], member_of(entry.key, key_alias_hit));
        py::set_item(object.get(), context[Name::calls], entry.calls.get());
        py::set_item(object.get(), context[Name::timed_calls], entry.timed_calls.get());
        py::set_item(object.get(), context[Name::total_ms], total_ms.get());
        py::check(PyList_Append(list.get(), object.get()));
    }
    return list;
}

/// `dumps(value, separators=(",", ":"))`.
Ref dump(const Context& context, PyObject* dumps, PyObject* value) {
    const Ref keywords = py::make_tuple(context[Name::separators]);
    const Ref separators = py::make_tuple(py::text(",").get(), py::text(":").get());
    std::array<PyObject*, 3> arguments{nullptr, value, separators.get()};
    return py::call_vector(dumps, arguments.data() + 1, 1, keywords.get());
}

class DocumentWriter {
public:
    DocumentWriter(const Context& context, PyObject* dumps) : context_(context), dumps_(dumps) {}

    Ref write(const py::RefVector<DocumentEntry>& entries) {
        constexpr std::size_t typical_entry = 128;  // characters
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

private:
    void add_entry(const DocumentEntry& entry) {
        add_member(R"({"tool":)", member_of(entry.key, key_tool));
        add_member(R"(,"action":)", member_of(entry.key, key_action));
        add_member(R"(,"outcome":)", member_of(entry.key, key_outcome));
        add_member(R"(,"alias_hit":)", member_of(entry.key, key_alias_hit));
        add_member(R"(,"calls":)", entry.calls.get());
        add_member(R"(,"timed_calls":)", entry.timed_calls.get());
        out_ += R"(,"total_ms":)";
        add_total(entry.total_ms.get(), entry.is_rounded);
        out_ += '}';
    }

    /// `begin` is what stands before the value.
    void add_member(std::string_view begin, PyObject* value) {
        out_ += begin;
        add_value(value);
    }

    void add_value(PyObject* value) {
        if (PyUnicode_CheckExact(value)) {
            add_text(value);
        } else if (py::is_compact(value)) {
            std::array<char, 16> digits;
            const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), py::compact_value(value));
            out_.append(digits.data(), end.ptr);
        } else if (PyLong_CheckExact(value) || (PyFloat_CheckExact(value) && std::isfinite(PyFloat_AS_DOUBLE(value)))) {
            add_characters(Ref::steal(PyObject_Repr(value)).get());
        } else if (value == Py_None) {
            out_ += "null";
        } else if (PyBool_Check(value)) {
            out_ += value == Py_True ? "true" : "false";
        } else {
            add_characters(dump(context_, dumps_, value).get());
        }
    }

    void add_text(PyObject* value) {
        const std::string_view text = py::is_ascii(value) ? py::ascii_of(value) : std::string_view();
        if (py::is_ascii(value) && unescaped_size(text) == text.size()) {
            out_ += '"';
            out_ += text;
            out_ += '"';
            return;
        }
        if (!escape_) {
            const Ref encoder = py::get_attribute(context_.get(Name::json).get(), context_[Name::encoder]);
            escape_ = py::get_attribute(encoder.get(), context_[Name::encode_basestring_ascii]);
        }
        add_characters(py::call(escape_.get(), value).get());
    }

    void add_total(PyObject* total_ms, bool is_rounded) {
        constexpr double few_digits = 1e11;
        if (is_rounded) {
            add_value(total_ms);
        } else if (std::fabs(PyFloat_AS_DOUBLE(total_ms)) < few_digits) {
            add_rounded(PyFloat_AS_DOUBLE(total_ms));
        } else {
            add_value(py::round_by_runtime(total_ms, total_decimals).get());
        }
    }

    /// The float that `value` is when rounded to three decimals. Its digits are so few that they are its shortest text,
    /// too: all that differs is that zeros at the end are left out.
    void add_rounded(double value) {
        std::array<char, 24> digits;
        char* last = digits.data() + digits.size();
        const char* end = std::to_chars(digits.data(), last, value, std::chars_format::fixed, total_decimals).ptr;
        while (end[-1] == '0' && end[-2] != '.') {
            --end;
        }
        out_ += std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data()));
    }

    void add_characters(PyObject* text) {
        Py_ssize_t size = 0;
        const char* characters = PyUnicode_AsUTF8AndSize(text, &size);
        if (characters == nullptr) {
            py::throw_current();
        }
        out_.append(characters, static_cast<std::size_t>(size));
    }

    const Context& context_;
    PyObject* dumps_;
    py::Text out_;
    Ref escape_;  // `json.encoder.encode_basestring_ascii`, once it is needed
};

}  // namespace

Ref write_document(const Context& context, const py::RefVector<DocumentEntry>& entries) {
    const Ref json = context.get(Name::json);
    const Ref dumps = py::get_attribute(json.get(), context[Name::dumps]);
    return context.state.originals.json_dumps.is_unchanged(json.get())
               ? DocumentWriter(context, dumps.get()).write(entries)
               : dump(context, dumps.get(), list_objects(context, entries).get());
}

}  // namespace health
