// The health summary: every tool with its counts, the worst first, and its usage rows, most calls first.
//
// The usage counts are walked over once and sorted into their tools on the way, so the work grows with the number of
// tools plus the number of usage keys.
#include "health/host/times.hpp"
#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"
#include "health/tracker/ordering.hpp"
#include "health/tracker/tracker.hpp"
#include "health/tracker/usage_entries.hpp"

namespace health {

using py::Ref;

namespace {

constexpr int average_decimals = 2;

/// What a usage row shows of its entry, as it was when the entry was read. The rows themselves are made tool by tool: a
/// tool's rows then lie side by side in memory, wherever its entries were.
///
/// Plain numbers are read as such, and become objects again in their row: so no object far away is touched for it
/// twice.
struct Line {
    PyObject* action;  // borrowed from the key, as are the next two
    PyObject* outcome;
    PyObject* alias_hit;
    Ref key;        // of `key_tuple`
    Ref odd_calls;  // empty where `calls` has the number
    long calls = 0;
    Ref odd_average;  // None, or what is no float; empty where `average_ms` has the number
    double average_ms = 0.0;
};

using Lines = py::RefVector<Line>;

/// A tool as the summary lists it.
struct Listed {
    Ref name;
    Ref state;
    Lines lines;
};

Ref minus(PyObject* number) {
    return Ref::steal(PyNumber_Negative(number));
}

/// Reads a number that a native key can hold; false for any other.
bool read_plain(PyObject* number, long& value) {
    int overflow = 1;
    if (PyLong_CheckExact(number)) {
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
bool read_plain_average(Line& line, PyObject* total_ms, PyObject* timed_calls) {
    constexpr long exact_in_double = 1L << 53;
    long timed = 0;
    if (total_ms == nullptr || !PyFloat_CheckExact(total_ms) || timed_calls == nullptr ||
        !read_plain(timed_calls, timed) || timed <= 0 || timed >= exact_in_double) {
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

void put(const Host& host, PyObject* mapping, Name name, PyObject* value) {
    py::check(PyDict_SetItem(mapping, host.names[name], value));
}

/// `key` is of `key_tuple`.
Line read_line(const Host& host, Ref key, PyObject* record) {
    const UsageView usage = host.usage(record);
    Line line{.action = member_of(key, key_action),
              .outcome = member_of(key, key_outcome),
              .alias_hit = member_of(key, key_alias_hit),
              .key = {},  // once nothing looks into it any more
              .odd_calls = {},
              .odd_average = {}};
    PyObject* calls = usage.peek(UsageFields::calls);
    if (calls == nullptr || !read_plain(calls, line.calls)) {
        line.odd_calls = usage.get(UsageFields::calls);
    }
    if (!read_plain_average(line, usage.peek(UsageFields::total_ms), usage.peek(UsageFields::timed_calls))) {
        line.odd_average = read_average(usage);
    }
    line.key = std::move(key);
    return line;
}

Ref calls_of(const Line& line) {
    return line.odd_calls ? Ref::borrow(line.odd_calls.get()) : Ref::steal(PyLong_FromLong(line.calls));
}

Ref average_of(const Line& line) {
    return line.odd_average ? Ref::borrow(line.odd_average.get()) : Ref::steal(PyFloat_FromDouble(line.average_ms));
}

/// A copy of the empty row, which holds False for both truth values, filled in.
Ref make_row(const Host& host, const Line& line, PyObject* slow) {
    Ref row = Ref::steal(PyDict_Copy(host.empty_row));
    put(host, row.get(), Name::action, line.action);
    put(host, row.get(), Name::outcome, line.outcome);
    if (line.alias_hit != Py_False) {
        put(host, row.get(), Name::alias_hit, line.alias_hit);
    }
    put(host, row.get(), Name::calls, calls_of(line).get());
    put(host, row.get(), Name::avg_ms, average_of(line).get());
    if (slow != Py_False) {
        put(host, row.get(), Name::slow, slow);
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
py::Vector<RowKey> plain_row_keys(const Host& host, const Lines& lines) {
    py::Vector<RowKey> keys;
    keys.reserve(lines.size());
    for (const Line& line : lines) {
        RowKey key{.calls = line.calls,
                   .action = line.action == Py_None ? host.names[Name::None] : line.action,
                   .outcome = line.outcome,
                   .alias_hit = line.alias_hit == Py_True,
                   .position = keys.size()};
        if (!PyUnicode_CheckExact(key.action) || !PyUnicode_CheckExact(key.outcome) || !PyBool_Check(line.alias_hit) ||
            line.odd_calls) {
            break;
        }
        keys.push_back(key);
    }
    return keys;
}

Order order_of_rows(const Host& host, const Lines& lines) {
    py::Vector<RowKey> keys = plain_row_keys(host, lines);
    if (keys.size() == lines.size()) {
        return order_natively(std::move(keys));
    }
    return order_by_runtime(lines.size(), [&](std::size_t index) {
        const Line& line = lines[index];
        const Ref calls = minus(calls_of(line).get());
        const Ref action = Ref::steal(PyObject_Str(line.action));
        return py::make_tuple(calls.get(), action.get(), line.outcome, line.alias_hit);
    });
}

/// The rows of one tool in their order.
Ref make_rows(const Host& host, PyObject* tool_name, const Lines& lines) {
    py::RefVector<Ref> rows;
    rows.reserve(lines.size());
    SlowCalls slow_calls(host);
    for (const Line& line : lines) {
        const Ref slow = slow_calls.ask(tool_name, line.action);
        rows.push_back(make_row(host, line, slow.get()));
    }
    const Order order = order_of_rows(host, lines);
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(rows.size())));
    for (std::size_t place = 0; place < order.size(); ++place) {
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(place), rows[order[place]].release());
    }
    return list;
}

// The tools.

/// The tools of a summary: those that have a state, in their order, then those that have usage counts only.
class Listing {
public:
    explicit Listing(const Host& host) : host_(host), places_(Ref::steal(PyDict_New())) {}

    void add_states(PyObject* states);
    /// Sorts the usage counts into their tools.
    void add_usage(PyObject* usage);

    [[nodiscard]] const py::RefVector<Listed>& tools() const { return tools_; }
    /// The places of the tools, the worst first.
    [[nodiscard]] Order worst_first() const;

private:
    Listed& place_of(PyObject* name);
    Listed& append(PyObject* name, Ref state);

    const Host& host_;
    Ref places_;  // tool name to its index in `tools_`
    py::RefVector<Listed> tools_;
};

Listed& Listing::append(PyObject* name, Ref state) {
    const Ref place = Ref::steal(PyLong_FromSize_t(tools_.size()));
    py::check(PyDict_SetItem(places_.get(), name, place.get()));
    tools_.push_back({.name = Ref::borrow(name), .state = std::move(state), .lines = {}});
    return tools_.back();
}

void Listing::add_states(PyObject* states) {
    for (UsageEntry& entry : list_entries(states)) {
        append(entry.key.get(), std::move(entry.record));
    }
}

Listed& Listing::place_of(PyObject* name) {
    PyObject* place = py::find(places_.get(), name);
    return place == nullptr ? append(name, make_tool_state(host_)) : tools_[PyLong_AsSize_t(place)];
}

void Listing::add_usage(PyObject* usage) {
    py::RefVector<UsageEntry> entries = list_entries(usage);
    for (Listed& tool : tools_) {
        tool.lines.reserve(entries.size() / tools_.size());  // as if all had equally many
    }
    PyObject* last_tool = nullptr;  // the keys of one tool often follow each other; kept alive by its lines
    Listed* listed = nullptr;
    for (UsageEntry& entry : entries) {
        Ref key = key_tuple(std::move(entry.key));
        PyObject* tool = member_of(key, key_tool);
        if (listed == nullptr || tool != last_tool) {
            listed = &place_of(tool);
            last_tool = tool;
        }
        listed->lines.push_back(read_line(host_, std::move(key), entry.record.get()));
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

Order Listing::worst_first() const {
    py::Vector<ToolKey> keys;
    keys.reserve(tools_.size());
    for (const Listed& tool : tools_) {
        const ToolStateView state = host_.tool_state(tool.state.get());
        ToolKey key{.errors = 0, .calls = 0, .position = keys.size()};
        if (!read_plain(state.get(ToolStateFields::error_count).get(), key.errors) ||
            !read_plain(state.get(ToolStateFields::call_count).get(), key.calls)) {
            break;
        }
        keys.push_back(key);
    }
    if (keys.size() == tools_.size()) {
        return order_natively(std::move(keys));
    }
    return order_by_runtime(tools_.size(), [&](std::size_t index) {
        const ToolStateView state = host_.tool_state(tools_[index].state.get());
        return py::make_tuple(minus(state.get(ToolStateFields::error_count).get()).get(),
                              minus(state.get(ToolStateFields::call_count).get()).get());
    });
}

/// One health record. `usage` are the tool's rows.
Ref make_record(const Host& host, const Listed& tool, const Ref& usage) {
    const ToolStateView state = host.tool_state(tool.state.get());
    Ref record = Ref::steal(PyDict_Copy(host.empty_record));
    const auto put_field = [&](Name name, ToolStateFields::Field field) {
        put(host, record.get(), name, state.get(field).get());
    };
    put(host, record.get(), Name::tool_name, tool.name.get());
    put_field(Name::call_count, ToolStateFields::call_count);
    put_field(Name::error_count, ToolStateFields::error_count);
    put_field(Name::last_error, ToolStateFields::last_error);
    const Ref disabled_at = state.get(ToolStateFields::disabled_at);
    put(host, record.get(), Name::disabled, py::boolean(disabled_at.get() != Py_None).get());
    put(host, record.get(), Name::disabled_at, sqlite_time(host, disabled_at.get()).get());
    const Ref updated_at = state.get(ToolStateFields::updated_at);
    put(host, record.get(), Name::updated_at, sqlite_time(host, updated_at.get()).get());
    put(host, record.get(), Name::usage, usage.get());
    return record;
}

/// The tracker's `_usage_rows` if a subclass or a host put another in place of ours, else empty.
Ref overriding_usage_rows(Tracker& tracker, const Host& host) {
    Ref method = py::get_attribute(tracker.object(), host.names[Name::_usage_rows]);
    const bool is_own = PyMethod_Check(method.get()) && PyMethod_GET_FUNCTION(method.get()) == host.own.usage_rows &&
                        PyMethod_GET_SELF(method.get()) == tracker.object();
    return is_own ? Ref() : std::move(method);
}

}  // namespace

Ref health_summary(Tracker& tracker, const Host& host) {
    Listing listing(host);  // outlives the guard: what it holds may die with it
    const py::LockGuard guard(host.locks, require(tracker.lock, "_lock"));
    listing.add_states(hold_state(tracker).get());
    listing.add_usage(hold_usage(tracker).get());
    const Ref override = overriding_usage_rows(tracker, host);
    Ref records = Ref::steal(PyList_New(0));
    for (const std::size_t place : listing.worst_first()) {
        const Listed& tool = listing.tools()[place];
        const Ref rows =
            override ? py::call(override.get(), tool.name.get()) : make_rows(host, tool.name.get(), tool.lines);
        py::check(PyList_Append(records.get(), make_record(host, tool, rows).get()));
    }
    return records;
}

Ref usage_rows(Tracker& tracker, const Host& host, PyObject* tool_name) {
    Lines lines;
    for (UsageEntry& entry : list_entries(hold_usage(tracker).get())) {
        Ref key = key_tuple(std::move(entry.key));
        if (py::compares(member_of(key, key_tool), tool_name, Py_EQ)) {
            lines.push_back(read_line(host, std::move(key), entry.record.get()));
        }
    }
    return make_rows(host, tool_name, lines);
}

}  // namespace health
