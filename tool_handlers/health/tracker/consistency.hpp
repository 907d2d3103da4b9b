// A check of a tracker's inner state, after each mutation, in builds with HEALTH_ASSERTIONS.
#pragma once

#include "health/tracker/tracker.hpp"

namespace health {

#ifdef HEALTH_ASSERTIONS
/// Ends the process with a message if what the tracker remembers is not what its mappings hold.
void assert_consistent(const Tracker& tracker);
#else
inline void assert_consistent(const Tracker& /*tracker*/) {}
#endif

}  // namespace health
