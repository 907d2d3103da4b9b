// Writing everything that changed, and whether anything did.
#include "health/tracker/marks.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

using py::Ref;

Ref flush(Tracker& tracker, const Host& host) {
    const Ref rows = py::call_method(tracker.object(), host.names[Name::_flush_health]);
    const Ref entries = py::call_method(tracker.object(), host.names[Name::_flush_usage]);
    return Ref::steal(PyNumber_Add(rows.get(), entries.get()));
}

Ref has_unsaved_changes(Tracker& tracker, const Host& host) {
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"), true);
    return any_marked(tracker) ? py::boolean(true) : Ref::borrow(require(tracker.usage_dirty, "_usage_dirty"));
}

}  // namespace health
