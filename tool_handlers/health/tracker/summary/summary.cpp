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
#include "health/python/numbers.hpp"
#include "health/python/object.hpp"
#include "health/records/records.hpp"
#include "health/tracker/fields.hpp"
#include "health/tracker/mapping.hpp"
#include "health/tracker/summary/usage_rows.hpp"

namespace health {

using py::Ref;

namespace {

/// The keys of a health record, in their order.
constexpr std::array record_keys{Name::tool_name, Name::call_count,  Name::error_count, Name::last_error,
                                 Name::disabled,  Name::disabled_at, Name::updated_at,  Name::usage};

/// A tool as the summary lists it.
struct ToolEntry {
    Ref name;
    Ref state;
    UsageLines lines;
};

/// The tools of a summary: those that have a state, in their order, then those that have usage counts only.
class ToolTable {
public:
    explicit ToolTable(const Context& context) : context_(context), places_(Ref::steal(PyDict_New())) {}

    void add_states(PyObject* states);
    /// Sorts the usage counts into their tools.
    void add_usage(PyObject* usage);

    [[nodiscard]] const ToolEntry& operator[](std::size_t place) const { return tools_[place]; }
    /// A tuple for each tool whose last member is its place, the worst first.
    [[nodiscard]] Ref worst_first() const;

private:
    ToolEntry& entry_of(PyObject* name);
    ToolEntry& append(PyObject* name, Ref state);

    const Context& context_;
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
    for (MappingEntry& entry : list_entries(context_, table.get())) {
        append(entry.key.get(), std::move(entry.record));
    }
}

ToolEntry& ToolTable::entry_of(PyObject* name) {
    PyObject* place = py::find(places_.get(), name);
    if (place == nullptr) {
        return append(name, make_tool_state(context_));
    }
    const auto index = static_cast<std::size_t>(py::is_compact(place) ? py::compact_value(place) : -1);
    if (index >= tools_.size()) {
        py::raise(PyExc_RuntimeError, "the summary's own dictionary was changed");  // found through the collector
    }
    return tools_[index];
}

void ToolTable::add_usage(PyObject* usage) {
    py::RefVector<MappingEntry> entries = list_entries(context_, usage);
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
        listed->lines.push_back(read_line(context_, std::move(key), entry.record.get()));
    }
}

Ref ToolTable::worst_first() const {
    return sorted_keys(tools_.size(), [&](std::size_t place) {
        const ToolStateView state = view_tool_state(context_, tools_[place].state.get());
        const Ref errors = py::minus(state.get(ToolStateFields::error_count).get());
        const Ref calls = py::minus(state.get(ToolStateFields::call_count).get());
        return py::make_tuple(errors.get(), calls.get(), py::integer(static_cast<long>(place)).get());
    });
}

/// Whether `self._usage_rows` is the module's own: then its rows are made of the lines.
bool has_own_rows(const Context& context, PyObject* self, PyObject* method) {
    return PyMethod_Check(method) && PyMethod_GET_SELF(method) == self &&
           py::is_original(PyMethod_GET_FUNCTION(method), usage_rows_def, context.globals);
}

Ref make_record(const Context& context, PyObject* self, const ToolEntry& tool, PyObject* record_template,
                PyObject* row_template) {
    const ToolStateView state = view_tool_state(context, tool.state.get());
    Ref record = Ref::steal(PyDict_Copy(record_template));
    const auto fill = [&](Name name, Ref value) { py::set_item(record.get(), context[name], value.get()); };
    fill(Name::tool_name, Ref::borrow(tool.name.get()));
    fill(Name::call_count, state.get(ToolStateFields::call_count));
    fill(Name::error_count, state.get(ToolStateFields::error_count));
    fill(Name::last_error, state.get(ToolStateFields::last_error));
    fill(Name::disabled, py::boolean(state.get(ToolStateFields::disabled_at).get() != Py_None));
    fill(Name::disabled_at, sqlite_time(context, state.get(ToolStateFields::disabled_at).get()));
    fill(Name::updated_at, sqlite_time(context, state.get(ToolStateFields::updated_at).get()));
    const Ref method = py::get_attribute(self, context[Name::_usage_rows]);
    fill(Name::usage, has_own_rows(context, self, method.get())
                          ? make_rows(context, tool.name.get(), tool.lines, row_template)
                          : py::call(method.get(), tool.name.get()));
    return record;
}

}  // namespace

Ref health_summary(const Context& context, PyObject* self) {
    const TrackerView tracker = view_tracker(context, self);
    ToolTable table(context);  // outlives the section: what it holds may die with it
    return in_section(context, tracker, [&] {
        table.add_states(tracker.get(TrackerFields::state).get());
        table.add_usage(tracker.get(TrackerFields::usage).get());
        const Ref record_template = make_template(context, record_keys);
        const Ref row_template = make_row_template(context);
        const Ref order = table.worst_first();
        Ref records = Ref::steal(PyList_New(0));
        for (Py_ssize_t index = 0; index < PyList_GET_SIZE(order.get()); ++index) {
            PyObject* place = PyTuple_GET_ITEM(PyList_GET_ITEM(order.get(), index), 2);
            const ToolEntry& tool = table[PyLong_AsSize_t(place)];
            const Ref record = make_record(context, self, tool, record_template.get(), row_template.get());
            py::check(PyList_Append(records.get(), record.get()));
        }
        return records;
    });
}

}  // namespace health
