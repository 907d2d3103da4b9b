// The section of a tracker's lock (see health/python/lock.hpp).
#pragma once

#include <Python.h>

#include <utility>

#include "health/host/module_state.hpp"

namespace health {

/// `with tracker._lock: return body()`. `body` gives a `Ref`. May wait.
template <class Body>
py::Ref in_section(const Module& module, const TrackerView& tracker, Body&& body) {
    return py::with_lock(module.state.locks, tracker.get(TrackerFields::lock).get(), std::forward<Body>(body));
}

/// Whether a section of the lock may be elided. Runs no Python code.
inline bool is_lock_free(const Module& module, const TrackerView& tracker) {
    return module.state.locks.is_free(tracker.get_borrowed(TrackerFields::lock));
}

/// `body(true)` as an elided section where it may be and the lock is free; else `body(false)` in one that takes the lock,
/// and what was read before must be read again. `may_elide`: the section runs no Python code, and none ran since what it
/// works with was read.
template <class Body>
py::Ref in_section(const Module& module, const TrackerView& tracker, bool may_elide, Body&& body) {
    if (may_elide && is_lock_free(module, tracker)) {
        return body(true);
    }
    return in_section(module, tracker, [&] { return body(false); });
}

}  // namespace health
