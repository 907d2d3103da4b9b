#include "health/tracker/summary/usage_rows.hpp"

#include <algorithm>
#include <cmath>

#include "health/python/numbers.hpp"
#include "health/tracker/fields.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/summary/summary.hpp"

namespace health {

using py::Ref;

namespace {

/// The keys of a usage row, in their order.
constexpr std::array row_keys{Name::action, Name::outcome, Name::alias_hit, Name::calls, Name::avg_ms, Name::slow};

constexpr double most_exact = 1e12;  // a hundredfold is far below 2^52

/// `round(value, 2)` for values of less than `most_exact`. Then `scaled` and its error are the exact product, `nearest`
/// is off by one only where the error decides a tie, and the quotient of two exact integers is the double nearest to
/// it.
double round_average(double value) {
    constexpr double power = 100.0;
    const double scaled = value * power;
    const double error = std::fma(value, power, -scaled);
    double nearest = std::nearbyint(scaled);  // a tie goes to the even integer
    const double distance = scaled - nearest;
    if (distance == 0.5 && error > 0.0) {
        nearest += 1.0;
    } else if (distance == -0.5 && error < 0.0) {
        nearest -= 1.0;
    }
    return nearest / power;
}

/// Reads the numbers of a direct record into a line. False where any is not plain, or too large for that.
bool read_plain_numbers(UsageLine& line, PyObject** counts) {
    PyObject* calls = counts[UsageFields::calls];
    PyObject* timed_calls = counts[UsageFields::timed_calls];
    PyObject* total_ms = counts[UsageFields::total_ms];
    if (calls == nullptr || !py::is_compact(calls) || timed_calls == nullptr || !py::is_compact(timed_calls) ||
        total_ms == nullptr || !PyFloat_CheckExact(total_ms)) {
        return false;
    }
    line.calls = py::compact_value(calls);
    line.is_timed = py::compact_value(timed_calls) != 0;
    if (!line.is_timed) {
        return true;
    }
    const double average = PyFloat_AS_DOUBLE(total_ms) / static_cast<double>(py::compact_value(timed_calls));
    line.average_ms = round_average(average);
    return std::fabs(average) < most_exact;
}

/// `round(usage.total_ms / usage.timed_calls, 2) if usage.timed_calls else None`.
Ref average_by_runtime(const UsageView& usage) {
    if (!py::is_true(usage.get(UsageFields::timed_calls).get())) {
        return py::none();
    }
    const Ref total_ms = usage.get(UsageFields::total_ms);
    const Ref timed_calls = usage.get(UsageFields::timed_calls);
    const Ref quotient = Ref::steal(PyNumber_TrueDivide(total_ms.get(), timed_calls.get()));
    return py::round_by_runtime(quotient.get(), 2);
}

/// The two numbers of a row: calls and mean time of a handler in milliseconds, None where none was timed.
Ref calls_of(const Context& context, const UsageLine& line) {
    return line.record != nullptr ? view_usage(context, line.record).get(UsageFields::calls) : py::integer(line.calls);
}
Ref average_of(const Context& context, const UsageLine& line) {
    if (line.record != nullptr) {
        return average_by_runtime(view_usage(context, line.record));
    }
    return line.is_timed ? Ref::steal(PyFloat_FromDouble(line.average_ms)) : py::none();
}

Ref make_row(const Context& context, PyObject* tool_name, const UsageLine& line, PyObject* row_template) {
    Ref row = Ref::steal(PyDict_Copy(row_template));
    const auto fill = [&](Name name, PyObject* value) { py::check(PyDict_SetItem(row.get(), context[name], value)); };
    fill(Name::action, line.action);
    fill(Name::outcome, line.outcome);
    if (line.alias_hit != Py_False) {
        fill(Name::alias_hit, line.alias_hit);
    }
    fill(Name::calls, calls_of(context, line).get());
    fill(Name::avg_ms, average_of(context, line).get());
    const Ref slow = py::call(context.get(Name::is_slow_call).get(), tool_name, line.action);
    if (slow.get() != Py_False) {
        fill(Name::slow, slow.get());
    }
    return row;
}

/// How a row of plain values sorts: most calls first, then by action (None as its text), outcome and synonym use.
struct RowKey {
    long calls;
    PyObject* action;  // borrowed, as is the outcome
    PyObject* outcome;
    bool alias_hit;
    std::size_t place;

    bool operator<(const RowKey& other) const {
        if (calls != other.calls) {
            return calls > other.calls;
        }
        if (const int order = PyUnicode_Compare(action, other.action); order != 0) {
            return order < 0;
        }
        if (const int order = PyUnicode_Compare(outcome, other.outcome); order != 0) {
            return order < 0;
        }
        return alias_hit != other.alias_hit ? other.alias_hit : place < other.place;
    }
};

/// The keys of lines of plain values only; fewer than there are lines if any is not plain.
py::Vector<RowKey> plain_row_keys(const Context& context, const UsageLines& lines) {
    py::Vector<RowKey> keys;
    keys.reserve(lines.size());
    for (const UsageLine& line : lines) {
        RowKey key{.calls = line.calls,
                   .action = line.action == Py_None ? context[Name::None] : line.action,
                   .outcome = line.outcome,
                   .alias_hit = line.alias_hit == Py_True,
                   .place = keys.size()};
        if (!PyUnicode_CheckExact(key.action) || !PyUnicode_CheckExact(key.outcome) || !PyBool_Check(line.alias_hit) ||
            line.record != nullptr) {
            break;
        }
        keys.push_back(key);
    }
    return keys;
}

/// The rows in their order, borrowed.
py::Vector<PyObject*> sort_rows(const Context& context, const UsageLines& lines, PyObject* rows) {
    py::Vector<PyObject*> sorted;
    sorted.reserve(lines.size());
    py::Vector<RowKey> keys = plain_row_keys(context, lines);
    if (keys.size() == lines.size()) {
        std::sort(keys.begin(), keys.end());
        for (const RowKey& key : keys) {
            sorted.push_back(PyList_GET_ITEM(rows, static_cast<Py_ssize_t>(key.place)));
        }
        return sorted;
    }
    const Ref by_runtime = sorted_keys(lines.size(), [&](std::size_t place) {
        PyObject* row = PyList_GET_ITEM(rows, static_cast<Py_ssize_t>(place));
        const Ref calls = py::minus(py::get_item(row, context[Name::calls]).get());
        const Ref action = py::to_text(lines[place].action);
        const Ref position = py::integer(static_cast<long>(place));
        return py::make_tuple(calls.get(), action.get(), lines[place].outcome, lines[place].alias_hit, position.get(),
                              row);
    });
    for (Py_ssize_t place = 0; place < PyList_GET_SIZE(by_runtime.get()); ++place) {
        sorted.push_back(PyTuple_GET_ITEM(PyList_GET_ITEM(by_runtime.get(), place), 5));
    }
    return sorted;
}

}  // namespace

UsageLine read_line(const Context& context, Ref key, PyObject* record) {
    UsageLine line{.action = member_of(key, key_action),
                   .outcome = member_of(key, key_outcome),
                   .alias_hit = member_of(key, key_alias_hit),
                   .record = nullptr,
                   .kept = {}};
    PyObject** counts = context.state.usage.values_of(record);
    if (counts == nullptr || !read_plain_numbers(line, counts)) {
        line.record = record;
        line.kept = py::make_tuple(key.get(), record);
    } else {
        line.kept = std::move(key);
    }
    return line;
}

Ref make_template(const Context& context, std::span<const Name> keys) {
    Ref made = Ref::steal(PyDict_New());
    for (const Name key : keys) {
        py::set_item(made.get(), context[key], Py_False);
    }
    return made;
}

Ref make_row_template(const Context& context) { return make_template(context, row_keys); }

Ref make_rows(const Context& context, PyObject* tool_name, const UsageLines& lines, PyObject* row_template) {
    Ref rows = py::hidden(PyList_New(static_cast<Py_ssize_t>(lines.size())));
    for (std::size_t place = 0; place < lines.size(); ++place) {
        PyList_SET_ITEM(rows.get(), static_cast<Py_ssize_t>(place),
                        make_row(context, tool_name, lines[place], row_template).release());
    }
    const py::Vector<PyObject*> sorted = sort_rows(context, lines, rows.get());
    std::copy(sorted.begin(), sorted.end(), PySequence_Fast_ITEMS(rows.get()));
    PyObject_GC_Track(rows.get());
    return rows;
}

Ref usage_rows(const Context& context, PyObject* self, PyObject* tool_name) {
    UsageLines lines;
    for (MappingEntry& entry : list_entries(context, view_tracker(context, self).get(TrackerFields::usage).get())) {
        Ref key = key_tuple(std::move(entry.key));
        if (py::compares(member_of(key, key_tool), tool_name, Py_EQ)) {
            lines.push_back(read_line(context, std::move(key), entry.record.get()));
        }
    }
    return make_rows(context, tool_name, lines, make_row_template(context).get());
}

}  // namespace health
