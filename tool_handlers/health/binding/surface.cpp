#include "health/binding/surface.hpp"

#include "health/host/registry.hpp"
#include "health/host/times.hpp"
#include "health/reports/reports.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

namespace {

using py::Kind;
using py::Parameter;
using py::Ref;

/// The arguments of one call, with what every implementation needs besides them.
struct Call {
    Host& host;
    PyObject* const* arguments;

    PyObject* operator[](std::size_t index) const { return arguments[index]; }
    [[nodiscard]] Tracker& tracker() const { return Tracker::of(arguments[0]); }
};

/// Makes an implementation of a function of `Call`.
template <Ref (*body)(const Call&)>
Ref implement(void* context, PyObject* const* arguments) {
    return body({.host = *static_cast<Host*>(context), .arguments = arguments});
}

/// Makes an implementation of a function of `Call` that answers None.
template <void (*body)(const Call&)>
Ref implement(void* context, PyObject* const* arguments) {
    body({.host = *static_cast<Host*>(context), .arguments = arguments});
    return py::none();
}

constexpr Parameter self{.name = "self"};
constexpr Parameter tool_name{.name = "tool_name", .annotation = "str"};

constexpr std::array self_only{self};
constexpr std::array self_and_tool{self, tool_name};
constexpr std::array init_parameters{
    self,
    Parameter{.name = "repository", .annotation = "Repository"},
    Parameter{.name = "limits", .annotation = "ToolsConfig | None", .defaults_to_none = true},
};
constexpr std::array call_parameters{
    self,
    tool_name,
    Parameter{.name = "action", .annotation = "str | None"},
    Parameter{.name = "outcome", .annotation = "str"},
    Parameter{.name = "alias_hit", .annotation = "bool", .kind = Kind::keyword_only},
    Parameter{.name = "duration_ms", .annotation = "float | None", .kind = Kind::keyword_only},
};
constexpr std::array error_parameters{self, tool_name, Parameter{.name = "error", .annotation = "str"}};
constexpr std::array epoch_parameters{Parameter{.name = "epoch", .annotation = "float | None"}};
constexpr std::array text_parameters{Parameter{.name = "text", .annotation = "str | None"}};
constexpr std::array known_parameters{
    Parameter{.name = "tool", .annotation = "str"},
    Parameter{.name = "action", .annotation = "str | None"},
};
constexpr std::array census_parameters{
    Parameter{.name = "budget", .annotation = "int"},
    Parameter{.name = "census", .annotation = "ThreadCensus | None", .defaults_to_none = true},
};

constexpr auto init = [](const Call& call) { initialise(call.tracker(), call.host, call[1], call[2]); };
constexpr auto get_limits = [](const Call& call) { return limits(call.tracker()); };
constexpr auto do_load = [](const Call& call) { load(call.tracker(), call.host); };
constexpr auto do_load_usage = [](const Call& call) { load_usage(call.tracker(), call.host); };
constexpr auto do_record_call = [](const Call& call) {
    record_call(call.tracker(), call.host, call[1], call[2], call[3], call[4], call[5]);
};
constexpr auto do_record_success = [](const Call& call) { record_success(call.tracker(), call.host, call[1]); };
constexpr auto do_record_error = [](const Call& call) { record_error(call.tracker(), call.host, call[1], call[2]); };
constexpr auto get_cooldown = [](const Call& call) { return cooldown_s(call.tracker(), call.host); };
constexpr auto ask_disabled = [](const Call& call) { return is_disabled(call.tracker(), call.host, call[1]); };
constexpr auto summarise = [](const Call& call) { return health_summary(call.tracker(), call.host); };
constexpr auto list_rows = [](const Call& call) { return usage_rows(call.tracker(), call.host, call[1]); };
constexpr auto ask_unsaved = [](const Call& call) { return has_unsaved_changes(call.tracker(), call.host); };
constexpr auto do_flush = [](const Call& call) { return flush(call.tracker(), call.host); };
constexpr auto do_flush_usage = [](const Call& call) { return flush_usage(call.tracker(), call.host); };
constexpr auto do_flush_health = [](const Call& call) { return flush_health(call.tracker(), call.host); };

constexpr auto do_format_time = [](const Call& call) { return format_time(call.host, call[0]); };
constexpr auto do_parse_time = [](const Call& call) { return parse_time(call.host, call[0]); };
constexpr auto ask_known = [](const Call& call) { return py::boolean(has_action(call.host, call[0], call[1])); };
constexpr auto report_performance = [](const Call& call) { return performance_report(call.host); };
constexpr auto report_threads = [](const Call& call) { return thread_census_report(call.host, call[0], call[1]); };

constexpr std::array members{
    Member{.definition = {.name = "__init__",
                          .parameters = init_parameters,
                          .result = "None",
                          .documentation =
                              "Create the tracker and read the saved history (blocking: call from a thread).\n"
                              "\n"
                              "        Args:\n"
                              "            repository: Where the history is kept.\n"
                              "            limits: When a failing tool is disabled, and for how long; None takes the "
                              "defaults.\n"
                              "        ",
                          .implementation = implement<init>}},
    Member{.definition = {.name = "limits",
                          .parameters = self_only,
                          .result = "ToolsConfig",
                          .documentation = "The tools settings the tracker was made with.",
                          .implementation = implement<get_limits>},
           .kind = MemberKind::property},
    Member{
        .definition = {.name = "_load",
                       .parameters = self_only,
                       .result = "None",
                       .documentation = "Seed the state from the table. History is best-effort: losing it is harmless.",
                       .implementation = implement<do_load>}},
    Member{.definition = {.name = "_load_usage",
                          .parameters = self_only,
                          .result = "None",
                          .documentation = "Seed the usage counts from ``schema_info``; unreadable or removed rows are "
                                           "left out.",
                          .implementation = implement<do_load_usage>}},
    Member{.definition = {.name = "record_call",
                          .parameters = call_parameters,
                          .result = "None",
                          .documentation =
                              "Count one call: the action it ran, how it ended, and whether it used a synonym.",
                          .implementation = implement<do_record_call>}},
    Member{.definition = {.name = "record_success",
                          .parameters = self_and_tool,
                          .result = "None",
                          .documentation = "Record a successful tool call; it ends the tool's run of errors.",
                          .implementation = implement<do_record_success>}},
    Member{.definition = {.name = "record_error",
                          .parameters = error_parameters,
                          .result = "None",
                          .documentation = "Record a failed tool call. May auto-disable if threshold exceeded.",
                          .implementation = implement<do_record_error>}},
    Member{.definition = {.name = "cooldown_s",
                          .parameters = self_only,
                          .result = "float",
                          .documentation = "Seconds a disabled tool stays disabled.",
                          .implementation = implement<get_cooldown>},
           .kind = MemberKind::property},
    Member{.definition = {.name = "is_disabled",
                          .parameters = self_and_tool,
                          .result = "tuple[bool, str | None]",
                          .documentation = "Check if a tool is currently disabled.",
                          .implementation = implement<ask_disabled>}},
    Member{
        .definition = {.name = "get_health_summary",
                       .parameters = self_only,
                       .result = "list[dict[str, Any]]",
                       .documentation =
                           "Get health summary for all tracked tools.\n"
                           "\n"
                           "        Returns:\n"
                           "            One record per tool, the worst first, with ``usage``: its calls by action, "
                           "outcome\n"
                           "            and synonym use (most calls first), each with the mean time its handler took "
                           "and\n"
                           "            whether the action is slow by nature.\n"
                           "        ",
                       .implementation = implement<summarise>}},
    Member{.definition = {.name = "_usage_rows",
                          .parameters = self_and_tool,
                          .result = "list[dict[str, Any]]",
                          .documentation =
                              "A tool's usage counts as ``perf_stats`` shows them, most calls first (under "
                              "the lock).",
                          .implementation = implement<list_rows>}},
    Member{.definition = {.name = "has_unsaved_changes",
                          .parameters = self_only,
                          .result = "bool",
                          .documentation = "Whether :meth:`flush` has anything to write.",
                          .implementation = implement<ask_unsaved>},
           .kind = MemberKind::property},
    Member{.definition = {.name = "flush",
                          .parameters = self_only,
                          .result = "int",
                          .documentation = "Write what changed (blocking: call from a thread that may wait).",
                          .implementation = implement<do_flush>}},
    Member{
        .definition = {.name = "_flush_usage",
                       .parameters = self_only,
                       .result = "int",
                       .documentation = "Write the usage counts when they changed; how many rows the document holds.",
                       .implementation = implement<do_flush_usage>}},
    Member{.definition = {.name = "_flush_health",
                          .parameters = self_only,
                          .result = "int",
                          .documentation = "Write the changed ``tool_health`` rows; how many were written.",
                          .implementation = implement<do_flush_health>}},
};

}  // namespace

std::span<const Member> tracker_members() {
    return members;
}

const py::Definition sqlite_time_definition{
    .name = "_sqlite_time",
    .parameters = epoch_parameters,
    .result = "str | None",
    .documentation = "Epoch seconds as the text stored in the ``tool_health`` table.",
    .implementation = implement<do_format_time>,
};

const py::Definition epoch_definition{
    .name = "_epoch",
    .parameters = text_parameters,
    .result = "float | None",
    .documentation = "The epoch seconds of a stored ``tool_health`` timestamp (None if absent or unreadable).",
    .implementation = implement<do_parse_time>,
};

const py::Definition known_definition{
    .name = "_known",
    .parameters = known_parameters,
    .result = "bool",
    .documentation = "Whether a usage row names a tool, and an action of it, that the registry still has.",
    .implementation = implement<ask_known>,
};

const py::Definition performance_definition{
    .name = "handle_get_tool_performance_stats",
    .parameters = {},
    .result = "dict[str, Any]",
    .documentation =
        "Handle get_tool_performance_stats tool.\n"
        "\n"
        "    Returns:\n"
        "        Performance metrics for all MCP tools.\n"
        "    ",
    .implementation = implement<report_performance>,
};

const py::Definition thread_census_definition{
    .name = "thread_census_report",
    .parameters = census_parameters,
    .result = "dict[str, Any]",
    .documentation =
        "The process's threads for a status answer, measured against what its pools allow.\n"
        "\n"
        "    ``os`` is the operating system's count (left out where the platform cannot count), ``python``\n"
        "    the threads Python knows, ``python_by_name`` those by name prefix (the threads of one pool\n"
        "    share it) and ``budget`` the most the pools allow. Above the budget ``warning`` says so: it is\n"
        "    measured against the operating system's count, which also sees the threads Python does not\n"
        "    know, such as the team of threads torch keeps for every thread that ran the embedding model;\n"
        "    without that count, against Python's.\n"
        "\n"
        "    Blocking unless a census is given: taking one reads the operating system's count.\n"
        "\n"
        "    Args:\n"
        "        budget: The most threads the process's pools allow.\n"
        "        census: A census taken already; None takes one now.\n"
        "\n"
        "    Returns:\n"
        "        The report.\n"
        "    ",
    .implementation = implement<report_threads>,
};

}  // namespace health
