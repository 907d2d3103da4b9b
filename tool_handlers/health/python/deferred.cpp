#include "health/python/deferred.hpp"

#include <algorithm>
#include <span>
#include <type_traits>

#include "health/python/ref.hpp"

namespace health::py {

namespace {

/// What one thread has deferred between the throw and the catch of one exception. Nothing else runs on the thread
/// meanwhile, so it belongs to one interpreter.
struct Deferred {
    std::array<PyObject*, DeferredRefs::most> objects;
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

DeferredRefs::DeferredRefs() : count_(deferred.count) {
    std::copy_n(deferred.objects.begin(), count_, objects_.begin());
    deferred.count = 0;
}

DeferredRefs::~DeferredRefs() noexcept(false) {
    if (count_ == 0 || !is_attached()) {
        return;
    }
    PyObject* error = PyErr_GetRaisedException();
    for (PyObject* object : std::span(objects_).first(count_)) {
        const Ref dropped = Ref::steal_optional(object);
    }
    PyErr_SetRaisedException(error);
}

}  // namespace health::py
