#include "health/binding/surface.hpp"

#include <array>

#include "health/host/registry.hpp"
#include "health/host/times.hpp"
#include "health/reports/reports.hpp"
#include "health/tracker/mirror/mirror.hpp"
#include "health/tracker/summary/summary.hpp"
#include "health/tracker/tracker.hpp"

namespace health {

namespace {

template <auto function>
constexpr py::FunctionDef define(const char* name, const char* parameters, bool has_frame = false) {
    return Implementation<function>::define(name, parameters, has_frame);
}

constexpr std::array functions{
    sqlite_time_def,
    epoch_def,
    known_def,
    define<performance_report>("handle_get_tool_performance_stats", ""),
    define<thread_census_report>("thread_census_report", "budget census"),
};

constexpr std::array members{
    define<load>("_load", "self", true),
    define<load_usage>("_load_usage", "self", true),
    define<record_call>("record_call", "self tool_name action outcome alias_hit duration_ms"),
    define<record_success>("record_success", "self tool_name"),
    define<record_error>("record_error", "self tool_name error"),
    define<is_disabled>("is_disabled", "self tool_name"),
    define<health_summary>("get_health_summary", "self"),
    usage_rows_def,
    define<has_unsaved_changes>("has_unsaved_changes", "self"),
    define<flush_usage>("_flush_usage", "self"),
    define<flush_health>("_flush_health", "self"),
};

}  // namespace

std::span<const py::FunctionDef> module_functions() { return functions; }

std::span<const py::FunctionDef> tracker_members() { return members; }

}  // namespace health
