// What was changed and not written, and what could not be read.
#include "health/tracker/dirty.hpp"
#include "health/tracker/mirror/mirror.hpp"

namespace health {

using py::Ref;
using enum TrackerFields::Field;

void log_failure(const Context& context, const char* format, PyObject* error) {
    py::call_method(context.get(Name::logger).get(), context[Name::warning], py::text(format).get(), error);
}

Ref has_unsaved_changes(const Context& context, PyObject* self) {
    const TrackerView tracker = view_tracker(context, self);
    PyObject** fields = begin_elided(context, tracker);
    if (fields != nullptr && fields[dirty] != nullptr && PySet_CheckExact(fields[dirty]) &&
        fields[usage_dirty] != nullptr && PyBool_Check(fields[usage_dirty])) {
        return py::boolean(PySet_GET_SIZE(fields[dirty]) > 0 || fields[usage_dirty] == Py_True);
    }
    return in_section(context, tracker,
                      [&] { return is_any_dirty(tracker) ? py::boolean(true) : tracker.get(usage_dirty); });
}

}  // namespace health
