#include "health/tracker/consistency.hpp"

#ifdef HEALTH_ASSERTIONS

namespace health {

namespace {

void require_that(bool holds, const char* what) {
    if (!holds) {
        Py_FatalError(what);
    }
}

bool is_chain_of_names(PyObject* owed) {
    while (owed != nullptr && owed != Py_None) {
        if (!PyList_CheckExact(owed) || PyList_GET_SIZE(owed) != 2 || !PyList_CheckExact(PyList_GET_ITEM(owed, 0))) {
            return false;
        }
        owed = PyList_GET_ITEM(owed, 1);
    }
    return true;
}

}  // namespace

void assert_consistent(const Tracker& tracker) {
    require_that(tracker.known_states.is_consistent(tracker.state), "a tracker takes odd tool names for plain ones");
    require_that(tracker.known_usage.is_consistent(tracker.usage), "a tracker remembers a wrong usage record");
    require_that(is_chain_of_names(tracker.owed), "a tracker's owed marks are no chain");
}

}  // namespace health

#endif
