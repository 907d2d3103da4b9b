// Reading the usage document: from its text to usage keys and records.
#include <functional>
#include <string_view>

#include "health/python/memory.hpp"
#include "health/python/numbers.hpp"
#include "health/python/object.hpp"
#include "health/records/records.hpp"
#include "health/tracker/mirror/canonical_document.hpp"
#include "health/tracker/mirror/document.hpp"

namespace health {

using py::Ref;

namespace {

/// A member that every element of a document must have.
Ref member(const Context& context, PyObject* element, Name name) { return py::get_item(element, context[name]); }

/// Adds one element of a parsed document to the table.
void add_element(const Context& context, PyObject* table, PyObject* element) {
    const Ref tool = py::to_text(member(context, element, Name::tool).get());
    const Ref action = member(context, element, Name::action);
    const Ref outcome = py::to_text(member(context, element, Name::outcome).get());
    const Ref alias_hit = py::boolean(py::is_true(member(context, element, Name::alias_hit).get()));
    const Ref key = py::make_tuple(tool.get(), action.get(), outcome.get(), alias_hit.get());
    const Ref calls = Ref::steal(PyNumber_Long(member(context, element, Name::calls).get()));
    const Ref timed_calls = Ref::steal(PyNumber_Long(member(context, element, Name::timed_calls).get()));
    const Ref total_ms = Ref::steal(PyNumber_Float(member(context, element, Name::total_ms).get()));
    const Ref usage = make_usage(context, calls.get(), timed_calls.get(), total_ms.get());
    py::check(PyDict_SetItem(table, key.get(), usage.get()));
}

/// Makes texts, the same one for equal characters as far as it remembers: names recur all over a document.
class SharedTexts {
public:
    SharedTexts() : texts_(places) {}

    PyObject* get(std::string_view characters) {
        Ref& text = texts_[std::hash<std::string_view>()(characters) % places];
        if (!text || py::ascii_of(text.get()) != characters) {
            text =
                Ref::steal(PyUnicode_FromStringAndSize(characters.data(), static_cast<Py_ssize_t>(characters.size())));
        }
        return text.get();
    }

private:
    static constexpr std::size_t places = 1024;
    py::RefVector<Ref> texts_;
};

void add_canonical(const Context& context, PyObject* table, SharedTexts& texts, const CanonicalElement& element) {
    const Ref tool = Ref::borrow(texts.get(element.tool));
    const Ref action = element.action ? Ref::borrow(texts.get(*element.action)) : py::none();
    const Ref outcome = Ref::borrow(texts.get(element.outcome));
    const Ref key = py::make_tuple(tool.get(), action.get(), outcome.get(), element.alias_hit ? Py_True : Py_False);
    const Ref calls = py::integer(element.calls);
    const Ref timed_calls = py::integer(element.timed_calls);
    const Ref total_ms = Ref::steal(PyFloat_FromDouble(element.total_ms));
    const Ref usage = make_usage(context, calls.get(), timed_calls.get(), total_ms.get());
    py::check(PyDict_SetItem(table, key.get(), usage.get()));
}

/// Reads a document in the form that the module writes, in a fraction of the parser's time; empty for any other text,
/// and where the parser was replaced.
Ref read_canonical(const Context& context, PyObject* text) {
    const Originals& originals = context.state.originals;
    if (!originals.json_loads.is_unchanged(context.get(Name::json).get()) || !originals.json_decoder.is_unchanged() ||
        !py::is_ascii(text) || !context.state.usage.is_made_by(context.get(Name::_Usage).get())) {
        return {};
    }
    Ref table = Ref::steal(PyDict_New());
    SharedTexts texts;
    CanonicalReader reader(py::ascii_of(text));
    CanonicalElement element{};
    while (reader.next(element)) {
        add_canonical(context, table.get(), texts, element);
    }
    return reader.is_done() ? std::move(table) : Ref();
}

/// Reads any document, with the runtime's parser.
Ref read_general(const Context& context, PyObject* text) {
    Ref table = Ref::steal(PyDict_New());
    const Ref document = py::call_method(context.get(Name::json).get(), context[Name::loads], text);
    if (PyDict_Check(document.get()) && PyDict_GET_SIZE(document.get()) == 0) {
        return table;
    }
    if (!PyList_Check(document.get())) {
        py::raise(PyExc_TypeError, "the usage document must be an array, not %.100s", Py_TYPE(document.get())->tp_name);
    }
    for (Py_ssize_t index = 0; index < PyList_GET_SIZE(document.get()); ++index) {
        const Ref element = Ref::borrow(PyList_GET_ITEM(document.get(), index));
        add_element(context, table.get(), element.get());
    }
    return table;
}

}  // namespace

Ref read_document(const Context& context, PyObject* text) {
    if (text == Py_None) {
        return Ref::steal(PyDict_New());
    }
    Ref table = read_canonical(context, text);
    return table ? std::move(table) : read_general(context, text);
}

}  // namespace health
