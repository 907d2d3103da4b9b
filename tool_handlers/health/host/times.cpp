#include "health/host/times.hpp"

#include <optional>
#include <string_view>

#include "health/host/calendar.hpp"
#include "health/python/recover.hpp"

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
bool is_own_calendar(const Context& context) {
    const Originals& originals = context.state.originals;
    return context.is_original(Name::datetime, originals.datetime) &&
           context.is_original(Name::timezone, originals.timezone) &&
           context.is_original(Name::_SQLITE_TIMESTAMP, originals.sqlite_timestamp);
}

Ref utc(const Context& context) { return py::get_attribute(context.get(Name::timezone).get(), context[Name::utc]); }

/// `datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)`.
Ref format_by_runtime(const Context& context, PyObject* epoch) {
    const Ref moment =
        py::call_method(context.get(Name::datetime).get(), context[Name::fromtimestamp], epoch, utc(context).get());
    return py::call_method(moment.get(), context[Name::strftime], context.get(Name::_SQLITE_TIMESTAMP).get());
}

/// `datetime.strptime(text, _SQLITE_TIMESTAMP)`; empty where that is a ValueError: a text that is no such time.
Ref read_by_runtime(const Context& context, PyObject* text) {
    Ref moment;
    Ref error = py::error_of([&] {
        const Ref parse = py::get_attribute(context.get(Name::datetime).get(), context[Name::strptime]);
        moment = py::call(parse.get(), text, context.get(Name::_SQLITE_TIMESTAMP).get());
    });
    if (error && PyErr_GivenExceptionMatches(error.get(), PyExc_ValueError) == 0) {
        py::rethrow(std::move(error));
    }
    return moment;
}

/// `moment.replace(tzinfo=timezone.utc).timestamp()`.
Ref seconds_as_utc(const Context& context, PyObject* moment) {
    const Ref replace = py::get_attribute(moment, context[Name::replace]);
    const Ref zone = utc(context);
    const Ref keywords = py::make_tuple(context[Name::tzinfo]);
    std::array<PyObject*, 2> arguments{nullptr, zone.get()};
    const Ref aware = py::call_vector(replace.get(), arguments.data() + 1, 0, keywords.get());
    return py::call_method(aware.get(), context[Name::timestamp]);
}

}  // namespace

Ref format_time(const Context& context, PyObject* epoch) {
    if (epoch == Py_None) {
        return py::none();
    }
    const std::optional<double> seconds = is_own_calendar(context) ? plain_seconds(epoch) : std::nullopt;
    const std::optional<TimestampText> text = seconds ? format_timestamp(*seconds) : std::nullopt;
    if (!text) {
        return format_by_runtime(context, epoch);
    }
    const std::string_view characters = text->view();
    return Ref::steal(PyUnicode_FromStringAndSize(characters.data(), static_cast<Py_ssize_t>(characters.size())));
}

Ref parse_time(const Context& context, PyObject* text) {
    if (text == Py_None || !py::is_true(text)) {
        return py::none();
    }
    const bool is_short = py::is_ascii(text) && is_own_calendar(context);
    if (const auto seconds = is_short ? parse_timestamp(py::ascii_of(text)) : std::nullopt) {
        return Ref::steal(PyFloat_FromDouble(*seconds));
    }
    const Ref moment = read_by_runtime(context, text);
    return moment ? seconds_as_utc(context, moment.get()) : py::none();
}

}  // namespace health
