#include "health/tracker/usage_entries.hpp"

namespace health {

using py::Ref;

py::RefVector<UsageEntry> list_entries(PyObject* usage) {
    py::RefVector<UsageEntry> entries;
    entries.reserve(static_cast<std::size_t>(PyDict_GET_SIZE(usage)));
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* record = nullptr;
    while (PyDict_Next(usage, &position, &key, &record) != 0) {
        entries.push_back({.key = Ref::borrow(key), .record = Ref::borrow(record)});
    }
    return entries;
}

Ref key_tuple(Ref key) {
    if (PyTuple_CheckExact(key.get()) && PyTuple_GET_SIZE(key.get()) == 4) {
        return key;
    }
    const auto [tool, action, outcome, alias_hit] = py::unpack<4>(key.get());
    return py::make_tuple(tool.get(), action.get(), outcome.get(), alias_hit.get());
}

}  // namespace health
