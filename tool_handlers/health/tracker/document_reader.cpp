#include "health/tracker/document_reader.hpp"

#include <algorithm>

#include "health/python/dict.hpp"

namespace health {

using py::Ref;

namespace {

/// The members of an element, in the order in which they are written.
enum Member : unsigned char { tool, action, outcome, alias_hit, calls, timed_calls, total_ms };
constexpr std::array member_names{Name::tool,  Name::action,      Name::outcome, Name::alias_hit,
                                  Name::calls, Name::timed_calls, Name::total_ms};

using Values = std::array<Ref, member_names.size()>;

/// Takes the members out of the elements of one document.
///
/// Most elements are written alike, and the parser gives all of them the same key objects: once an element was found
/// to have the keys in their order, the next ones need no look-ups, only to be seen to have the same keys.
class ElementReader {
public:
    explicit ElementReader(const Host& host) : host_(host) {}

    Values read(PyObject* element);

private:
    bool read_in_order(PyObject* element, Values& values) const;
    void learn_keys(PyObject* element);
    [[nodiscard]] Ref look_up(PyObject* element, Name name) const;

    const Host& host_;
    std::array<Ref, member_names.size()> keys_;  // of the first element in order; empty before there was one
};

Values ElementReader::read(PyObject* element) {
    Values values;
    if (read_in_order(element, values)) {
        return values;
    }
    for (std::size_t member = 0; member < values.size(); ++member) {
        values[member] = look_up(element, member_names[member]);
    }
    learn_keys(element);
    return values;
}

/// Runs no Python code.
bool ElementReader::read_in_order(PyObject* element, Values& values) const {
    if (!keys_.back() || !PyDict_CheckExact(element)) {
        return false;
    }
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    for (std::size_t member = 0; member < values.size(); ++member) {
        if (PyDict_Next(element, &position, &key, &value) == 0 || key != keys_[member].get()) {
            return false;
        }
        values[member] = Ref::borrow(value);
    }
    return true;
}

void ElementReader::learn_keys(PyObject* element) {
    if (keys_.back() || !PyDict_CheckExact(element) || PyDict_GET_SIZE(element) < std::ssize(keys_)) {
        return;
    }
    std::array<Ref, member_names.size()> keys;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    for (std::size_t member = 0; member < keys.size(); ++member) {
        PyDict_Next(element, &position, &key, nullptr);
        if (!PyUnicode_CheckExact(key) || PyUnicode_Compare(key, host_.names[member_names[member]]) != 0) {
            return;
        }
        keys[member] = Ref::borrow(key);
    }
    keys_ = std::move(keys);
}

Ref ElementReader::look_up(PyObject* element, Name name) const {
    PyObject* key = host_.names[name];
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

/// Adds one element to the table.
void add_element(const Host& host, PyObject* table, const Values& values) {
    const Ref tool_text = Ref::steal(PyObject_Str(values[tool].get()));
    const Ref outcome_text = Ref::steal(PyObject_Str(values[outcome].get()));
    const Ref used_alias = py::boolean(py::is_true(values[alias_hit].get()));
    const Ref key = py::make_tuple(tool_text.get(), values[action].get(), outcome_text.get(), used_alias.get());
    const Ref call_count = Ref::steal(PyNumber_Long(values[calls].get()));
    const Ref timed_count = Ref::steal(PyNumber_Long(values[timed_calls].get()));
    const Ref total = Ref::steal(PyNumber_Float(values[total_ms].get()));
    const Ref usage = make_usage(host, call_count.get(), timed_count.get(), total.get());
    py::check(PyDict_SetItem(table, key.get(), usage.get()));
}

}  // namespace

Ref read_document(const Host& host, PyObject* text) {
    Ref table = Ref::steal(PyDict_New());
    if (text == Py_None) {
        return table;
    }
    const Ref document = py::call_method(host.get(Name::json).get(), host.names[Name::loads], text);
    if (PyDict_Check(document.get()) && PyDict_GET_SIZE(document.get()) == 0) {
        return table;
    }
    if (!PyList_Check(document.get())) {
        py::raise(PyExc_TypeError, "the usage document must be an array, not %.100s", Py_TYPE(document.get())->tp_name);
    }
    ElementReader reader(host);
    for (Py_ssize_t index = 0; index < PyList_GET_SIZE(document.get()); ++index) {
        const Ref element = Ref::borrow(PyList_GET_ITEM(document.get(), index));
        add_element(host, table.get(), reader.read(element.get()));
    }
    return table;
}

}  // namespace health
