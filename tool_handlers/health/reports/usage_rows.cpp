#include "health/reports/usage_rows.hpp"

#include "health/python/numbers.hpp"
#include "health/reports/ordering.hpp"
#include "health/reports/reports.hpp"
#include "health/tracker/mapping.hpp"

namespace health {

using py::Ref;

namespace {

constexpr int average_decimals = 2;

/// `round(total / timed, 2)`.
Ref average_by_runtime(PyObject* total_ms, PyObject* timed_calls) {
    const Ref quotient = Ref::steal(PyNumber_TrueDivide(total_ms, timed_calls));
    return py::round_by_runtime(quotient.get(), average_decimals);
}

/// Reads the mean time of a handler in milliseconds, where it is that of plain numbers; false for any other.
bool read_plain_average(UsageLine& line, PyObject* total_ms, PyObject* timed_calls) {
    constexpr long exact_in_double = 1L << 53;
    long timed = 0;
    if (total_ms == nullptr || !PyFloat_CheckExact(total_ms) || !read_plain(timed_calls, timed) || timed <= 0 ||
        timed >= exact_in_double) {
        return false;
    }
    line.average_ms = py::round_to(PyFloat_AS_DOUBLE(total_ms) / static_cast<double>(timed), average_decimals);
    return true;
}

/// The mean time of a handler in milliseconds, None where none was timed.
Ref read_average(const UsageView& usage) {
    const Ref total_ms = usage.get(UsageFields::total_ms);
    const Ref timed_calls = usage.get(UsageFields::timed_calls);
    return py::is_true(timed_calls.get()) ? average_by_runtime(total_ms.get(), timed_calls.get()) : py::none();
}

Ref calls_of(const UsageLine& line) {
    return line.boxed_calls ? Ref::borrow(line.boxed_calls.get()) : Ref::steal(PyLong_FromLong(line.calls));
}

Ref average_of(const UsageLine& line) {
    return line.boxed_average ? Ref::borrow(line.boxed_average.get()) : Ref::steal(PyFloat_FromDouble(line.average_ms));
}

/// A copy of the empty row, which holds False for both truth values, filled in.
Ref make_row(const Module& module, const UsageLine& line, PyObject* slow) {
    Ref row = Ref::steal(PyDict_Copy(module.state.empty_row.get()));
    put(module, row.get(), Name::action, line.action);
    put(module, row.get(), Name::outcome, line.outcome);
    if (line.alias_hit != Py_False) {
        put(module, row.get(), Name::alias_hit, line.alias_hit);
    }
    put(module, row.get(), Name::calls, calls_of(line).get());
    put(module, row.get(), Name::avg_ms, average_of(line).get());
    if (slow != Py_False) {
        put(module, row.get(), Name::slow, slow);
    }
    return row;
}

/// How a row of plain values sorts: most calls first, then by action (None as its text), outcome and synonym use.
struct RowKey {
    long calls;
    PyObject* action;  // borrowed, as is the outcome
    PyObject* outcome;
    bool alias_hit;
    std::size_t position;

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
        return alias_hit != other.alias_hit ? other.alias_hit : position < other.position;
    }
};

/// The keys of lines of plain values only; fewer than there are lines if any is not plain.
py::Vector<RowKey> plain_row_keys(const Module& module, const UsageLines& lines) {
    py::Vector<RowKey> keys;
    keys.reserve(lines.size());
    for (const UsageLine& line : lines) {
        RowKey key{.calls = line.calls,
                   .action = line.action == Py_None ? module[Name::None] : line.action,
                   .outcome = line.outcome,
                   .alias_hit = line.alias_hit == Py_True,
                   .position = keys.size()};
        if (!PyUnicode_CheckExact(key.action) || !PyUnicode_CheckExact(key.outcome) || !PyBool_Check(line.alias_hit) ||
            line.boxed_calls) {
            break;
        }
        keys.push_back(key);
    }
    return keys;
}

Order order_of_rows(const Module& module, const UsageLines& lines) {
    py::Vector<RowKey> keys = plain_row_keys(module, lines);
    if (keys.size() == lines.size()) {
        return order_natively(std::move(keys));
    }
    return order_by_runtime(lines.size(), [&](std::size_t index) {
        const UsageLine& line = lines[index];
        const Ref calls = py::minus(calls_of(line).get());
        const Ref action = py::to_text(line.action);
        return py::make_tuple(calls.get(), action.get(), line.outcome, line.alias_hit);
    });
}

}  // namespace

bool read_plain(PyObject* number, long& value) {
    int overflow = 1;
    if (number != nullptr && PyLong_CheckExact(number)) {
        value = PyLong_AsLongAndOverflow(number, &overflow);
    }
    return overflow == 0;
}

UsageLine read_line(const Module& module, Ref key, PyObject* record) {
    UsageLine line{.action = member_of(key, key_action),
                   .outcome = member_of(key, key_outcome),
                   .alias_hit = member_of(key, key_alias_hit),
                   .key = {},  // once nothing looks into it any more
                   .boxed_calls = {},
                   .boxed_average = {}};
    PyObject** counts = module.state.usage.layout.values_of(record);
    if (counts == nullptr || !read_plain(counts[UsageFields::calls], line.calls)) {
        line.boxed_calls = module.usage(record).get(UsageFields::calls);
        counts = nullptr;  // which may have run Python code
    }
    if (counts == nullptr ||
        !read_plain_average(line, counts[UsageFields::total_ms], counts[UsageFields::timed_calls])) {
        line.boxed_average = read_average(module.usage(record));
    }
    line.key = std::move(key);
    return line;
}

Ref make_rows(const Module& module, PyObject* tool_name, const UsageLines& lines) {
    py::RefVector<Ref> rows;
    rows.reserve(lines.size());
    for (const UsageLine& line : lines) {
        const Ref slow = py::call(module.get(Name::is_slow_call).get(), tool_name, line.action);
        rows.push_back(make_row(module, line, slow.get()));
    }
    const Order order = order_of_rows(module, lines);
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(rows.size())));
    for (std::size_t place = 0; place < order.size(); ++place) {
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(place), rows[order[place]].release());
    }
    return list;
}

Ref usage_rows(const Module& module, PyObject* self, PyObject* tool_name) {
    UsageLines lines;
    for (MappingEntry& entry : list_entries(module, module.tracker(self).get(TrackerFields::usage).get())) {
        Ref key = key_tuple(std::move(entry.key));
        if (py::compares(member_of(key, key_tool), tool_name, Py_EQ)) {
            lines.push_back(read_line(module, std::move(key), entry.record.get()));
        }
    }
    return make_rows(module, tool_name, lines);
}

}  // namespace health
