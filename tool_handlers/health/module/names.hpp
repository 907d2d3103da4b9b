// The names the module uses at run time, interned once per import.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>

#include "health/python/ref.hpp"

namespace health {

// One list: each name becomes a member of `Name` and the text it stands for.
// clang-format off
#define HEALTH_NAMES(NAME) \
    NAME(TOOLS) NAME(JSONEncoder) NAME(ToolHealthTracker) NAME(TOOL_USAGE_KEY) NAME(ToolsConfig) NAME(Lock) NAME(None) \
    NAME(_SQLITE_TIMESTAMP) NAME(_TOOL_HEALTH_COLUMNS) NAME(_ToolState) NAME(_Usage) NAME(_dirty) NAME(_epoch) \
    NAME(_flush_health) NAME(_flush_usage) NAME(_known) NAME(_limits) NAME(_load) NAME(_load_usage) NAME(_lock) \
    NAME(_repo) NAME(_sqlite_time) NAME(_state) NAME(_usage) NAME(_usage_dirty) NAME(_usage_rows) NAME(action) \
    NAME(add) NAME(alias_hit) NAME(avg_ms) NAME(budget) NAME(call_count) NAME(calls) NAME(clear) \
    NAME(consecutive_errors) NAME(cooldown_s) NAME(count) NAME(datetime) NAME(db) NAME(disable_after_errors) \
    NAME(disable_cooldown_s) NAME(disabled) NAME(disabled_at) NAME(dumps) NAME(encode_basestring_ascii) \
    NAME(encoder) NAME(error_count) NAME(errors) NAME(execute) NAME(executemany) NAME(fetchall) NAME(fetchone) \
    NAME(fromtimestamp) NAME(get) NAME(get_all_stats) NAME(get_timing_collector) NAME(is_slow_call) NAME(items) \
    NAME(json) NAME(last_error) NAME(loads) NAME(logger) NAME(max_ms) NAME(min_ms) NAME(name) NAME(os) \
    NAME(os_threads) NAME(outcome) NAME(p95_ms) NAME(python) NAME(python_by_name) NAME(python_threads) \
    NAME(python_total) NAME(replace) NAME(separators) NAME(slow) NAME(strftime) NAME(strptime) \
    NAME(thread_census) NAME(threading) NAME(time) NAME(timed_calls) NAME(timestamp) NAME(timezone) NAME(tool) \
    NAME(tool_name) NAME(tools) NAME(total_ms) NAME(tzinfo) NAME(update) NAME(updated_at) NAME(usage) NAME(utc) \
    NAME(warning)
// clang-format on

enum class Name : unsigned char {
#define HEALTH_MEMBER(name) name,
    HEALTH_NAMES(HEALTH_MEMBER)
#undef HEALTH_MEMBER
};

/// The interned texts.
class Names {
public:
    /// Interns all. Throws a MemoryError.
    void intern();
    [[nodiscard]] PyObject* operator[](Name name) const { return texts_[static_cast<std::size_t>(name)].get(); }

private:
#define HEALTH_COUNT(name) +1
    static constexpr std::size_t count = 0 HEALTH_NAMES(HEALTH_COUNT);
#undef HEALTH_COUNT
    std::array<py::Ref, count> texts_;
};

}  // namespace health
