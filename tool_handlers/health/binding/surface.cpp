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
constexpr py::FunctionDef define(const char* name) {
    return Implementation<function>::define(name);
}

constexpr std::array functions{
    sqlite_time_def,
    epoch_def,
    known_def,
    define<performance_report>("handle_get_tool_performance_stats"),
    define<thread_census_report>("thread_census_report"),
};

constexpr std::array members{
    define<initialise>("__init__"),
    define<limits_of>("limits"),
    define<load>("_load"),
    define<load_usage>("_load_usage"),
    define<record_call>("record_call"),
    define<record_success>("record_success"),
    define<record_error>("record_error"),
    cooldown_def,
    define<is_disabled>("is_disabled"),
    define<health_summary>("get_health_summary"),
    usage_rows_def,
    define<has_unsaved_changes>("has_unsaved_changes"),
    define<flush>("flush"),
    define<flush_usage>("_flush_usage"),
    define<flush_health>("_flush_health"),
};

}  // namespace

std::span<const py::FunctionDef> module_functions() { return functions; }

std::span<const py::FunctionDef> tracker_members() { return members; }

}  // namespace health
