#include "health/python/ref.hpp"

#include <array>
#include <cstddef>

namespace health::py {

namespace {

/// What one thread is to drop, between the throw and the catch of one exception. Nothing else runs on the thread
/// meanwhile, so it belongs to one interpreter, and is empty whenever Python code runs.
struct Late {
    std::array<PyObject*, 64> objects;
    std::size_t count;
};

thread_local constinit Late late{};

}  // namespace

bool drop_later(PyObject* object) {
    if (late.count == late.objects.size()) {
        return false;
    }
    late.objects[late.count++] = object;
    return true;
}

void drop_late() {
    if (late.count == 0) {
        return;
    }
    PyObject* error = PyErr_GetRaisedException();
    const Late dropped = late;
    late.count = 0;  // the drops may run Python code that comes back here
    for (std::size_t index = 0; index < dropped.count; ++index) {
        Py_DECREF(dropped.objects[index]);
    }
    PyErr_SetRaisedException(error);
}

}  // namespace health::py
