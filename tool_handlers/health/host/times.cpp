#include "health/host/times.hpp"

#include <optional>
#include <string_view>

#include "health/host/calendar.hpp"
#include "health/python/recover.hpp"
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

/// Whether the names by which times are converted lead to what they did at import, so that the calendar here serves.
bool is_own_calendar(const Module& module) {
    const Originals& originals = module.state.originals;
    return module.is_original(Name::datetime, originals.datetime) &&
           module.is_original(Name::timezone, originals.timezone) &&
           module.is_original(Name::_SQLITE_TIMESTAMP, originals.sqlite_timestamp);
}

Ref utc(const Module& module) { return py::get_attribute(module.get(Name::timezone).get(), module[Name::utc]); }

/// `datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)`.
Ref format_by_runtime(const Module& module, PyObject* epoch) {
    const Ref moment =
        py::call_method(module.get(Name::datetime).get(), module[Name::fromtimestamp], epoch, utc(module).get());
    return py::call_method(moment.get(), module[Name::strftime], module.get(Name::_SQLITE_TIMESTAMP).get());
}

/// `datetime.strptime(text, _SQLITE_TIMESTAMP)`; empty where that is a ValueError: a text that is no such time.
Ref read_by_runtime(const Module& module, PyObject* text) {
    Ref moment;
    Ref error = py::error_of([&] {
        const Ref parse = py::get_attribute(module.get(Name::datetime).get(), module[Name::strptime]);
        moment = py::call(parse.get(), text, module.get(Name::_SQLITE_TIMESTAMP).get());
    });
    if (error && PyErr_GivenExceptionMatches(error.get(), PyExc_ValueError) == 0) {
        py::rethrow(std::move(error));
    }
    return moment;
}

/// `moment.replace(tzinfo=timezone.utc).timestamp()`.
Ref seconds_as_utc(const Module& module, PyObject* moment) {
    const Ref replace = py::get_attribute(moment, module[Name::replace]);
    const Ref zone = utc(module);
    const Ref keywords = py::make_tuple(module[Name::tzinfo]);
    std::array<PyObject*, 2> arguments{nullptr, zone.get()};
    const Ref aware = py::call_vector(replace.get(), arguments.data() + 1, 0, keywords.get());
    return py::call_method(aware.get(), module[Name::timestamp]);
}

}  // namespace

Ref format_time(const Module& module, PyObject* epoch) {
    if (epoch == Py_None) {
        return py::none();
    }
    const std::optional<double> seconds = is_own_calendar(module) ? plain_seconds(epoch) : std::nullopt;
    const std::optional<TimestampText> text = seconds ? format_timestamp(*seconds) : std::nullopt;
    if (!text) {
        return format_by_runtime(module, epoch);
    }
    const std::string_view characters = text->view();
    return Ref::steal(PyUnicode_FromStringAndSize(characters.data(), static_cast<Py_ssize_t>(characters.size())));
}

Ref parse_time(const Module& module, PyObject* text) {
    if (text == Py_None || !py::is_true(text)) {
        return py::none();
    }
    const bool is_plain = py::is_plain_ascii(text) && is_own_calendar(module);
    if (const auto seconds = is_plain ? parse_timestamp(py::ascii_of(text)) : std::nullopt) {
        return Ref::steal(PyFloat_FromDouble(*seconds));
    }
    const Ref moment = read_by_runtime(module, text);
    return moment ? seconds_as_utc(module, moment.get()) : py::none();
}

Ref sqlite_time(const Module& module, PyObject* epoch) {
    if (module.is_original(Name::_sqlite_time, sqlite_time_def)) {
        return format_time(module, epoch);
    }
    return py::call(module.get(Name::_sqlite_time).get(), epoch);
}

Ref epoch_of(const Module& module, PyObject* text) {
    if (module.is_original(Name::_epoch, epoch_def)) {
        return parse_time(module, text);
    }
    return py::call(module.get(Name::_epoch).get(), text);
}

}  // namespace health
