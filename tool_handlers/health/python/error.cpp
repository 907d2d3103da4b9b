#include "health/python/error.hpp"

#include <cstdarg>

namespace health::py {

void raise(PyObject* type, const char* format, ...) {
    va_list values;
    va_start(values, format);
    PyErr_FormatV(type, format, values);
    va_end(values);
    throw_current();
}

}  // namespace health::py
