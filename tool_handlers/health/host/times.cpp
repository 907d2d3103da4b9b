#include "health/host/times.hpp"

#include <optional>
#include <string_view>

#include "health/host/calendar.hpp"
#include "health/python/text.hpp"

namespace health {

using py::Ref;

namespace {

/// The epoch seconds in a plain number; nothing for other objects, and for integers beyond all calendars.
std::optional<double> plain_seconds(PyObject* epoch) {
    if (PyFloat_CheckExact(epoch)) {
        return PyFloat_AS_DOUBLE(epoch);
    }
    if (!PyLong_CheckExact(epoch)) {
        return std::nullopt;
    }
    int overflow = 0;
    const long seconds = PyLong_AsLongAndOverflow(epoch, &overflow);
    return overflow == 0 ? std::optional(static_cast<double>(seconds)) : std::nullopt;
}

Ref utc(const Host& host) {
    return py::get_attribute(host.get(Name::timezone).get(), host.names[Name::utc]);
}

/// `datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)`.
Ref format_by_runtime(const Host& host, PyObject* epoch) {
    const Ref moment =
        py::call_method(host.get(Name::datetime).get(), host.names[Name::fromtimestamp], epoch, utc(host).get());
    return py::call_method(moment.get(), host.names[Name::strftime], host.get(Name::_SQLITE_TIMESTAMP).get());
}

/// `datetime.strptime(text, _SQLITE_TIMESTAMP)`; None for a text that is no such time.
Ref read_by_runtime(const Host& host, PyObject* text) {
    const Ref type = host.get(Name::datetime);
    const Ref format = host.get(Name::_SQLITE_TIMESTAMP);
    const Ref parse = py::get_attribute(type.get(), host.names[Name::strptime]);
    try {
        return py::call(parse.get(), text, format.get());
    } catch (const py::PythonError&) {
        if (PyErr_ExceptionMatches(PyExc_ValueError) == 0) {
            throw;
        }
    }
    PyErr_Clear();
    return py::none();
}

/// `moment.replace(tzinfo=timezone.utc).timestamp()`.
Ref seconds_as_utc(const Host& host, PyObject* moment) {
    const Ref replace = py::get_attribute(moment, host.names[Name::replace]);
    const Ref zone = utc(host);
    const Ref keywords = py::make_tuple(host.names[Name::tzinfo]);
    std::array<PyObject*, 2> arguments{nullptr, zone.get()};
    const Ref aware = py::call_vector(replace.get(), arguments.data() + 1, 0, keywords.get());
    return py::call_method(aware.get(), host.names[Name::timestamp]);
}

}  // namespace

Ref format_time(const Host& host, PyObject* epoch) {
    if (epoch == Py_None) {
        return py::none();
    }
    const std::optional<double> seconds = plain_seconds(epoch);
    const std::optional<TimestampText> text = seconds ? format_timestamp(*seconds) : std::nullopt;
    if (!text) {
        return format_by_runtime(host, epoch);
    }
    const std::string_view characters = text->view();
    return Ref::steal(PyUnicode_FromStringAndSize(characters.data(), static_cast<Py_ssize_t>(characters.size())));
}

Ref parse_time(const Host& host, PyObject* text) {
    const std::optional<double> seconds = py::is_plain_ascii(text) ? parse_timestamp(py::ascii_of(text)) : std::nullopt;
    if (seconds) {
        return Ref::steal(PyFloat_FromDouble(*seconds));
    }
    if (!py::is_true(text)) {
        return py::none();
    }
    const Ref moment = read_by_runtime(host, text);
    return moment.get() == Py_None ? py::none() : seconds_as_utc(host, moment.get());
}

Ref sqlite_time(const Host& host, PyObject* epoch) {
    if (host.is_own(Name::_sqlite_time, host.own.sqlite_time)) {
        return format_time(host, epoch);
    }
    return py::call(host.get(Name::_sqlite_time).get(), epoch);
}

Ref epoch_of(const Host& host, PyObject* text) {
    if (host.is_own(Name::_epoch, host.own.epoch)) {
        return parse_time(host, text);
    }
    return py::call(host.get(Name::_epoch).get(), text);
}

}  // namespace health
