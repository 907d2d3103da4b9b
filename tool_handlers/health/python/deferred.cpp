#include "health/python/deferred.hpp"

#include <array>
#include <cstddef>
#include <span>
#include <type_traits>

namespace health::py {

namespace {

/// What one thread has deferred between the throw and the catch of one exception. Nothing else runs on the thread
/// meanwhile, so it belongs to one interpreter.
struct Deferred {
    std::array<PyObject*, 64> objects;
    std::size_t count;
};
// It is never constructed nor destroyed: a thread that is ended may leave it at any moment.
static_assert(std::is_trivially_default_constructible_v<Deferred> && std::is_trivially_destructible_v<Deferred>);

thread_local constinit Deferred deferred{};

}  // namespace

bool defer_decref(PyObject* object) {
    if (deferred.count == deferred.objects.size()) {
        return false;
    }
    deferred.objects[deferred.count++] = object;
    return true;
}

void run_deferred() {
    if (deferred.count == 0) {
        return;
    }
    PyObject* error = PyErr_GetRaisedException();
    const Deferred taken = deferred;
    deferred.count = 0;  // what runs here may defer again
    for (PyObject* object : std::span(taken.objects).first(taken.count)) {
        Py_DECREF(object);
    }
    PyErr_SetRaisedException(error);
}

}  // namespace health::py
