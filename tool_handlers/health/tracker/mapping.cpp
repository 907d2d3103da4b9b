#include "health/tracker/mapping.hpp"

namespace health {

using py::Ref;

py::RefVector<MappingEntry> list_entries(const Context& context, PyObject* mapping) {
    py::RefVector<MappingEntry> entries;
    if (PyDict_CheckExact(mapping)) {
        entries.reserve(static_cast<std::size_t>(PyDict_GET_SIZE(mapping)));
        Py_ssize_t position = 0;
        PyObject* key = nullptr;
        PyObject* record = nullptr;
        while (PyDict_Next(mapping, &position, &key, &record) != 0) {
            entries.push_back({.key = Ref::borrow(key), .record = Ref::borrow(record)});
        }
        return entries;
    }
    const Ref items = py::call_method(mapping, context[Name::items]);
    const Ref iterator = Ref::steal(PyObject_GetIter(items.get()));
    while (const Ref item = py::next_item(iterator.get())) {
        auto [key, record] = py::unpack<2>(item.get());
        entries.push_back({.key = std::move(key), .record = std::move(record)});
    }
    return entries;
}

}  // namespace health
