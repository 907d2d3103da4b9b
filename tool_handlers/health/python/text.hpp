// The characters of the runtime's texts, as C++ reads them.
#pragma once

#include <Python.h>

#include <string_view>

namespace health::py {

/// Whether an object is exactly a str, of ASCII characters only.
inline bool is_plain_ascii(PyObject* object) {
    return PyUnicode_CheckExact(object) && PyUnicode_IS_COMPACT_ASCII(object);
}

/// The characters of such a text, for as long as it lives.
inline std::string_view ascii_of(PyObject* text) {
    return {static_cast<const char*>(PyUnicode_DATA(text)), static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))};
}

}  // namespace health::py
