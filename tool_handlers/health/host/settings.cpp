#include "health/host/settings.hpp"

#include "health/python/numbers.hpp"

namespace health {

using py::Ref;

Ref default_settings(const Host& host) {
    return py::call(host.get(Name::ToolsConfig).get());
}

Ref disable_after_errors(const Host& host, PyObject* limits) {
    return py::get_attribute(limits, host.names[Name::disable_after_errors]);
}

Ref disable_after_errors_quietly(const Host& host, PyObject* limits) {
    Ref value = py::get_plain_attribute(limits, host.names[Name::disable_after_errors]);
    return value && py::is_plain_number(value.get()) ? std::move(value) : Ref();
}

Ref disable_cooldown_s(const Host& host, PyObject* limits) {
    return py::get_attribute(limits, host.names[Name::disable_cooldown_s]);
}

}  // namespace health
