// The section of a tracker's lock (see health/python/lock.hpp).
#pragma once

#include <Python.h>

#include <type_traits>
#include <utility>

#include "health/module/state.hpp"

namespace health {

/// `with tracker._lock: return body()`. `body` gives a `Ref`. May wait.
template <class Body>
py::Ref in_section(const Module& module, const TrackerView& tracker, Body&& body) {
    return py::with_lock(module.state.locks, tracker.get(TrackerFields::lock).get(), std::forward<Body>(body));
}

/// `body(std::true_type())` as an elided section, or `body(std::false_type())` in one that takes the lock, before which
/// whatever was read must be read again. `may_elide`: the section runs no Python code, the lock was found free, and no
/// Python code ran since. (Two types, so that each call is compiled for its own case. Measured: 3 % of record_call.)
template <class Body>
py::Ref in_section(const Module& module, const TrackerView& tracker, bool may_elide, Body&& body) {
    if (may_elide) {
        return body(std::true_type());
    }
    return in_section(module, tracker, [&] { return body(std::false_type()); });
}

}  // namespace health
