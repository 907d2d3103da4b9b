#include "health/tracker/mirror/document_reader.hpp"

#include <functional>
#include <string_view>

#include "health/python/dict.hpp"
#include "health/python/ref_vector.hpp"
#include "health/python/text.hpp"
#include "health/tracker/mirror/canonical_document.hpp"

namespace health {

using py::Ref;

namespace {

/// A member that every element of a document must have.
Ref member(const Module& module, PyObject* element, Name name) {
    PyObject* key = module[name];
    if (!PyDict_CheckExact(element)) {
        return py::get_item(element, key);
    }
    PyObject* value = py::find(element, key);
    if (value == nullptr) {
        PyErr_SetObject(PyExc_KeyError, key);
        py::throw_current();
    }
    return Ref::borrow(value);
}

/// Adds one element of a parsed document to the table.
void add_element(const Module& module, PyObject* table, PyObject* element) {
    const Ref tool = py::to_text(member(module, element, Name::tool).get());
    const Ref action = member(module, element, Name::action);
    const Ref outcome = py::to_text(member(module, element, Name::outcome).get());
    const Ref alias_hit = py::boolean(py::is_true(member(module, element, Name::alias_hit).get()));
    const Ref key = py::make_tuple(tool.get(), action.get(), outcome.get(), alias_hit.get());
    const Ref calls = Ref::steal(PyNumber_Long(member(module, element, Name::calls).get()));
    const Ref timed_calls = Ref::steal(PyNumber_Long(member(module, element, Name::timed_calls).get()));
    const Ref total_ms = Ref::steal(PyNumber_Float(member(module, element, Name::total_ms).get()));
    const Ref usage = make_usage(module, calls.get(), timed_calls.get(), total_ms.get());
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

void add_canonical(const Module& module, PyObject* table, SharedTexts& texts, const CanonicalElement& element) {
    const Ref tool_text = Ref::borrow(texts.get(element.tool));
    const Ref action_text = element.action ? Ref::borrow(texts.get(*element.action)) : py::none();
    const Ref outcome_text = Ref::borrow(texts.get(element.outcome));
    const Ref key =
        py::make_tuple(tool_text.get(), action_text.get(), outcome_text.get(), element.alias_hit ? Py_True : Py_False);
    const Ref call_count = Ref::steal(PyLong_FromLong(element.calls));
    const Ref timed_count = Ref::steal(PyLong_FromLong(element.timed_calls));
    const Ref total = Ref::steal(PyFloat_FromDouble(element.total_ms));
    const Ref usage = make_usage(module, call_count.get(), timed_count.get(), total.get());
    py::check(PyDict_SetItem(table, key.get(), usage.get()));
}

/// Reads a document in the form that the module writes, in a fraction of the parser's time; empty for any other text,
/// and where the parser was replaced.
Ref read_canonical(const Module& module, PyObject* text) {
    const Ref parser = py::get_attribute(module.get(Name::json).get(), module[Name::loads]);
    if (parser.get() != module.state.originals.json_loads.get() || !py::is_plain_ascii(text) ||
        !module.state.usage.is_made_by(module.get(Name::_Usage).get())) {
        return {};
    }
    Ref table = Ref::steal(PyDict_New());
    SharedTexts texts;
    CanonicalReader reader(py::ascii_of(text));
    CanonicalElement element{};
    while (reader.next(element)) {
        add_canonical(module, table.get(), texts, element);
    }
    return reader.is_done() ? std::move(table) : Ref();
}

/// Reads any document, with the runtime's parser.
Ref read_general(const Module& module, PyObject* text) {
    Ref table = Ref::steal(PyDict_New());
    const Ref document = py::call_method(module.get(Name::json).get(), module[Name::loads], text);
    if (PyDict_Check(document.get()) && PyDict_GET_SIZE(document.get()) == 0) {
        return table;
    }
    if (!PyList_Check(document.get())) {
        py::raise(PyExc_TypeError, "the usage document must be an array, not %.100s", Py_TYPE(document.get())->tp_name);
    }
    for (Py_ssize_t index = 0; index < PyList_GET_SIZE(document.get()); ++index) {
        const Ref element = Ref::borrow(PyList_GET_ITEM(document.get(), index));
        add_element(module, table.get(), element.get());
    }
    return table;
}

}  // namespace

Ref read_document(const Module& module, PyObject* text) {
    if (text == Py_None) {
        return Ref::steal(PyDict_New());
    }
    Ref table = read_canonical(module, text);
    return table ? std::move(table) : read_general(module, text);
}

}  // namespace health
