// The fields of a `ToolHealthTracker`, and the sections of its lock (see health/python/lock.hpp).
#pragma once

#include <Python.h>

#include <array>
#include <utility>

#include "health/module/context.hpp"
#include "health/python/object_class.hpp"

namespace health {

/// In the order in which the constructor sets them.
struct TrackerFields {
    enum Field : unsigned char { repo, limits, lock, state, dirty, usage, usage_dirty };
    static constexpr std::array names{"_repo", "_limits", "_lock", "_state", "_dirty", "_usage", "_usage_dirty"};
};

using TrackerView = py::View<TrackerFields>;

/// `self` is any object: one that is no tracker is served by its attributes.
inline TrackerView view_tracker(const Context& context, PyObject* self) { return {context.state.tracker, self}; }

/// `with tracker._lock: return body()`. `body` gives a `Ref`. May wait, which lets other threads run: read everything
/// in `body`. Throws what the lock and `body` raise.
template <class Body>
py::Ref in_section(const Context& context, const TrackerView& tracker, Body&& body) {
    return py::with_lock(context.state.locks, tracker.get(TrackerFields::lock).get(), std::forward<Body>(body));
}

/// The values of a direct tracker's fields, some of which may be NULL, if nobody holds its lock: until Python code may
/// run, what is done is done in an elided section. Else nullptr. Runs no Python code.
inline PyObject** begin_elided(const Context& context, const TrackerView& tracker) {
    PyObject** fields = tracker.direct();
    return fields != nullptr && context.state.locks.is_free(fields[TrackerFields::lock]) ? fields : nullptr;
}

/// Ends it: in builds with assertions, ends the process if the lock was taken or the fields have moved, by Python code.
inline void end_elided([[maybe_unused]] const Context& context, [[maybe_unused]] const TrackerView& tracker,
                       [[maybe_unused]] PyObject** fields) {
    HEALTH_ASSERT(begin_elided(context, tracker) == fields, "Python code ran in an elided section");
}

}  // namespace health
