// Writing everything that changed.
#include "health/tracker/mirror/mirror.hpp"

namespace health {

using py::Ref;

Ref flush(const Module& module, PyObject* self) {
    static_cast<void>(module.tracker(self));
    const Ref rows = py::call_method(self, module[Name::_flush_health]);
    const Ref entries = py::call_method(self, module[Name::_flush_usage]);
    return Ref::steal(PyNumber_Add(rows.get(), entries.get()));
}

}  // namespace health
