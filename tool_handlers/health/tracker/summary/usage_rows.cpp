#include "health/tracker/summary/usage_rows.hpp"

#include "health/python/numbers.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/summary/ordering.hpp"
#include "health/tracker/summary/summary.hpp"

namespace health {

using py::Ref;

namespace {

constexpr int average_decimals = 2;

/// Reads the numbers of a plain record into a line. False where any is not plain.
bool read_plain_numbers(UsageLine& line, PyObject** counts) {
    PyObject* total_ms = counts[UsageFields::total_ms];
    long timed = 0;
    if (!read_plain(counts[UsageFields::calls], line.calls) || !read_plain(counts[UsageFields::timed_calls], timed) ||
        total_ms == nullptr || !PyFloat_CheckExact(total_ms)) {
        return false;
    }
    line.is_timed = timed != 0;
    if (line.is_timed) {
        line.average_ms = py::round_to(PyFloat_AS_DOUBLE(total_ms) / static_cast<double>(timed), average_decimals);
    }
    return true;
}

/// `round(usage.total_ms / usage.timed_calls, 2) if usage.timed_calls else None`.
Ref average_by_runtime(const UsageView& usage) {
    if (!py::is_true(usage.get(UsageFields::timed_calls).get())) {
        return py::none();
    }
    const Ref total_ms = usage.get(UsageFields::total_ms);
    const Ref timed_calls = usage.get(UsageFields::timed_calls);
    const Ref quotient = Ref::steal(PyNumber_TrueDivide(total_ms.get(), timed_calls.get()));
    return py::round_by_runtime(quotient.get(), average_decimals);
}

/// The two numbers of a row: calls and mean time of a handler in milliseconds, None where none was timed.
Ref calls_of(const Module& module, const UsageLine& line) {
    return line.record ? module.usage(line.record.get()).get(UsageFields::calls) : py::integer(line.calls);
}
Ref average_of(const Module& module, const UsageLine& line) {
    if (line.record) {
        return average_by_runtime(module.usage(line.record.get()));
    }
    return line.is_timed ? Ref::steal(PyFloat_FromDouble(line.average_ms)) : py::none();
}

/// A copy of the empty row, which holds False for both truth values, filled in.
Ref make_row(const Module& module, PyObject* tool_name, const UsageLine& line) {
    Ref row = Ref::steal(PyDict_Copy(module.state.empty_row.get()));
    put(module, row.get(), Name::action, line.action);
    put(module, row.get(), Name::outcome, line.outcome);
    if (line.alias_hit != Py_False) {
        put(module, row.get(), Name::alias_hit, line.alias_hit);
    }
    put(module, row.get(), Name::calls, calls_of(module, line).get());
    put(module, row.get(), Name::avg_ms, average_of(module, line).get());
    const Ref slow = py::call(module.get(Name::is_slow_call).get(), tool_name, line.action);
    if (slow.get() != Py_False) {
        put(module, row.get(), Name::slow, slow.get());
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
            line.record) {
            break;
        }
        keys.push_back(key);
    }
    return keys;
}

Order order_of_rows(const Module& module, const UsageLines& lines, const py::RefVector<Ref>& rows) {
    py::Vector<RowKey> keys = plain_row_keys(module, lines);
    if (keys.size() == lines.size()) {
        return order_natively(std::move(keys));
    }
    return order_by_runtime(lines.size(), [&](std::size_t index) {
        const Ref calls = py::minus(py::get_item(rows[index].get(), module[Name::calls]).get());
        const Ref action = py::to_text(lines[index].action);
        return py::make_tuple(calls.get(), action.get(), lines[index].outcome, lines[index].alias_hit);
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

UsageLine read_line(const Module& module, Ref key, Ref record) {
    UsageLine line{.action = member_of(key, key_action),
                   .outcome = member_of(key, key_outcome),
                   .alias_hit = member_of(key, key_alias_hit),
                   .key = {},  // once nothing looks into it any more
                   .record = {}};
    PyObject** counts = module.state.usage.layout.values_of(record.get());
    if (counts == nullptr || !read_plain_numbers(line, counts)) {
        line.record = std::move(record);
    }
    line.key = std::move(key);
    return line;
}

Ref make_rows(const Module& module, PyObject* tool_name, const UsageLines& lines) {
    py::RefVector<Ref> rows;
    rows.reserve(lines.size());
    for (const UsageLine& line : lines) {
        rows.push_back(make_row(module, tool_name, line));
    }
    const Order order = order_of_rows(module, lines, rows);
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
            lines.push_back(read_line(module, std::move(key), std::move(entry.record)));
        }
    }
    return make_rows(module, tool_name, lines);
}

}  // namespace health
