// The health summary: every tool with its counts, the worst first, and its usage rows, most calls first.
//
// The usage counts are walked over once and sorted into their tools on the way, so the work grows with the number of
// tools plus the number of usage keys:
//
//     _usage   ("fetch", "page", "ok", False): 2 calls    ("find", None, "ok", False): 9 calls    ...
//                     |                                          |
//     lines    fetch: [page ok 2 calls,  page error 1 call]      find: [None ok 9 calls]    ...
//                     | tool by tool, the worst first: is_slow_call, order, rows
//     rows     {"tool_name": "fetch", ..., "usage": [{"action": "page", ..., "calls": 2}, {..., "calls": 1}]}, ...
#include "health/tracker/summary/summary.hpp"
#include "health/host/times.hpp"
#include "health/python/dict.hpp"
#include "health/python/numbers.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/section.hpp"
#include "health/tracker/summary/ordering.hpp"
#include "health/tracker/summary/usage_rows.hpp"

namespace health {

using py::Ref;

namespace {

/// A tool as the summary lists it.
struct ToolEntry {
    Ref name;
    Ref state;
    UsageLines lines;
};

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
    const bool is_dict = PyDict_CheckExact(states);
    const Ref table = is_dict ? Ref::borrow(states) : py::call(reinterpret_cast<PyObject*>(&PyDict_Type), states);
    for (MappingEntry& entry : list_entries(module_, table.get())) {
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
        listed->lines.push_back(read_line(module_, std::move(key), std::move(entry.record)));
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
        const Ref errors = py::minus(state.get(ToolStateFields::error_count).get());
        const Ref calls = py::minus(state.get(ToolStateFields::call_count).get());
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

}  // namespace health
