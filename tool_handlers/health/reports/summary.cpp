// The health summary: every tool with its counts, the worst first, and its usage rows, most calls first.
//
// The usage counts are walked over once and sorted into their tools on the way, so the work grows with the number of
// tools plus the number of usage keys:
//
//     _usage   ("fetch", "page", "ok", False): 2 calls    ("find", None, "ok", False): 9 calls    ("fetch", ...): 1
//     call
//                     |                                          |                                        |
//     lines    fetch: [page ok 2 calls,  page error 1 call]      find: [None ok 9 calls]                  ...
//                     | tool by tool, the worst first: is_slow_call, order, rows
//     rows     {"tool_name": "fetch", ..., "usage": [{"action": "page", ..., "calls": 2}, {..., "calls": 1}]}, ...
#include "health/host/times.hpp"
#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"
#include "health/reports/ordering.hpp"
#include "health/reports/reports.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/section.hpp"

namespace health {

using py::Ref;

namespace {

constexpr int average_decimals = 2;

/// What a usage row shows of its entry, as it was when the entry was read.
///
/// Lines are unboxed for memory locality. The entries of a tool lie anywhere, but its lines side by side, and so do the
/// rows made of them. Plain numbers are read as such, and become objects again in their row: so no object far away is
/// touched for it twice.
struct UsageLine {
    PyObject* action;  // borrowed from the key, as are the next two
    PyObject* outcome;
    PyObject* alias_hit;
    Ref key;          // of `key_tuple`
    Ref boxed_calls;  // empty where `calls` has the number
    long calls = 0;
    Ref boxed_average;  // None, or what is no float; empty where `average_ms` has the number
    double average_ms = 0.0;
};

using UsageLines = py::RefVector<UsageLine>;

/// A tool as the summary lists it.
struct ToolEntry {
    Ref name;
    Ref state;
    UsageLines lines;
};

Ref minus(PyObject* number) {
    return Ref::steal(PyNumber_Negative(number));
}

/// Reads a number that a native key can hold; false for any other, and for nullptr.
bool read_plain(PyObject* number, long& value) {
    int overflow = 1;
    if (number != nullptr && PyLong_CheckExact(number)) {
        value = PyLong_AsLongAndOverflow(number, &overflow);
    }
    return overflow == 0;
}

// Usage rows.

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

void put(const Module& module, PyObject* mapping, Name name, PyObject* value) {
    py::check(PyDict_SetItem(mapping, module[name], value));
}

/// `key` is of `key_tuple`.
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
        const Ref calls = minus(calls_of(line).get());
        const Ref action = Ref::steal(PyObject_Str(line.action));
        return py::make_tuple(calls.get(), action.get(), line.outcome, line.alias_hit);
    });
}

/// The rows of one tool in their order.
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

// The tools.

/// The tools of a summary: those that have a state, in their order, then those that have usage counts only.
class ToolTable {
public:
    explicit ToolTable(const Module& module) : module_(module), places_(Ref::steal(PyDict_New())) {}

    void add_states(PyObject* states);
    /// Sorts the usage counts into their tools.
    void add_usage(PyObject* usage);

    [[nodiscard]] const ToolEntry& operator[](std::size_t place) const { return tools_[place]; }
    /// The places of the tools, the worst first.
    [[nodiscard]] Order worst_first() const;

private:
    ToolEntry& entry_of(PyObject* name);
    ToolEntry& append(PyObject* name, Ref state);

    const Module& module_;
    Ref places_;  // tool name to its index in `tools_`
    py::RefVector<ToolEntry> tools_;
};

ToolEntry& ToolTable::append(PyObject* name, Ref state) {
    const Ref place = Ref::steal(PyLong_FromSize_t(tools_.size()));
    py::check(PyDict_SetItem(places_.get(), name, place.get()));
    tools_.push_back({.name = Ref::borrow(name), .state = std::move(state), .lines = {}});
    return tools_.back();
}

void ToolTable::add_states(PyObject* states) {
    for (MappingEntry& entry : list_entries(module_, states)) {
        append(entry.key.get(), std::move(entry.record));
    }
}

ToolEntry& ToolTable::entry_of(PyObject* name) {
    PyObject* place = py::find(places_.get(), name);
    if (place == nullptr) {
        return append(name, make_tool_state(module_));
    }
    long index = 0;
    if (!read_plain(place, index) || static_cast<std::size_t>(index) >= tools_.size()) {
        py::raise(PyExc_RuntimeError, "the summary's own dictionary was changed");  // found through the collector
    }
    return tools_[static_cast<std::size_t>(index)];
}

void ToolTable::add_usage(PyObject* usage) {
    py::RefVector<MappingEntry> entries = list_entries(module_, usage);
    for (ToolEntry& tool : tools_) {
        tool.lines.reserve(entries.size() / tools_.size());  // as if all had equally many
    }
    PyObject* last_tool = nullptr;  // the keys of one tool often follow each other; kept alive by its lines
    ToolEntry* listed = nullptr;
    for (MappingEntry& entry : entries) {
        Ref key = key_tuple(std::move(entry.key));
        PyObject* tool = member_of(key, key_tool);
        if (listed == nullptr || tool != last_tool) {
            listed = &entry_of(tool);
            last_tool = tool;
        }
        listed->lines.push_back(read_line(module_, std::move(key), entry.record.get()));
    }
}

/// How a tool of plain counts sorts: most errors first, then most calls.
struct ToolKey {
    long errors;
    long calls;
    std::size_t position;

    bool operator<(const ToolKey& other) const {
        if (errors != other.errors) {
            return errors > other.errors;
        }
        return calls != other.calls ? calls > other.calls : position < other.position;
    }
};

Order ToolTable::worst_first() const {
    py::Vector<ToolKey> keys;
    keys.reserve(tools_.size());
    for (const ToolEntry& tool : tools_) {
        const ToolStateView state = module_.tool_state(tool.state.get());
        PyObject* errors = state.get_borrowed(ToolStateFields::error_count);
        PyObject* calls = state.get_borrowed(ToolStateFields::call_count);
        ToolKey key{.errors = 0, .calls = 0, .position = keys.size()};
        if (!read_plain(errors, key.errors) || !read_plain(calls, key.calls)) {
            break;
        }
        keys.push_back(key);
    }
    if (keys.size() == tools_.size()) {
        return order_natively(std::move(keys));
    }
    return order_by_runtime(tools_.size(), [&](std::size_t index) {
        const ToolStateView state = module_.tool_state(tools_[index].state.get());
        const Ref errors = minus(state.get(ToolStateFields::error_count).get());
        const Ref calls = minus(state.get(ToolStateFields::call_count).get());
        return py::make_tuple(errors.get(), calls.get());
    });
}

/// Whether `self._usage_rows` is the module's own: then its rows are made of the lines.
bool has_own_rows(const Module& module, PyObject* self, PyObject* method) {
    return PyMethod_Check(method) && PyMethod_GET_SELF(method) == self &&
           py::is_original(PyMethod_GET_FUNCTION(method), usage_rows_def, module.globals);
}

/// One health record, its keys in their order.
Ref make_record(const Module& module, PyObject* self, const ToolEntry& tool) {
    const ToolStateView state = module.tool_state(tool.state.get());
    Ref record = Ref::steal(PyDict_Copy(module.state.empty_record.get()));
    const auto put_field = [&](Name name, ToolStateFields::Field field) {
        put(module, record.get(), name, state.get(field).get());
    };
    put(module, record.get(), Name::tool_name, tool.name.get());
    put_field(Name::call_count, ToolStateFields::call_count);
    put_field(Name::error_count, ToolStateFields::error_count);
    put_field(Name::last_error, ToolStateFields::last_error);
    const bool is_disabled = state.get(ToolStateFields::disabled_at).get() != Py_None;
    put(module, record.get(), Name::disabled, is_disabled ? Py_True : Py_False);
    put(module, record.get(), Name::disabled_at,
        sqlite_time(module, state.get(ToolStateFields::disabled_at).get()).get());
    put(module, record.get(), Name::updated_at,
        sqlite_time(module, state.get(ToolStateFields::updated_at).get()).get());
    const Ref method = py::get_attribute(self, module[Name::_usage_rows]);
    const Ref rows = has_own_rows(module, self, method.get()) ? make_rows(module, tool.name.get(), tool.lines)
                                                              : py::call(method.get(), tool.name.get());
    put(module, record.get(), Name::usage, rows.get());
    return record;
}

}  // namespace

Ref health_summary(const Module& module, PyObject* self) {
    const TrackerView tracker = module.tracker(self);
    ToolTable table(module);  // outlives the section: what it holds may die with it
    return in_section(module, tracker, [&] {
        table.add_states(tracker.get(TrackerFields::state).get());
        table.add_usage(tracker.get(TrackerFields::usage).get());
        Ref records = Ref::steal(PyList_New(0));
        for (const std::size_t place : table.worst_first()) {
            py::check(PyList_Append(records.get(), make_record(module, self, table[place]).get()));
        }
        return records;
    });
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
