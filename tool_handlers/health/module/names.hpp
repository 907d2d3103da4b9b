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
    NAME(_default_decoder) NAME(_epoch) NAME(_known) NAME(_sqlite_time) NAME(_SQLITE_TIMESTAMP) \
    NAME(_TOOL_HEALTH_COLUMNS) NAME(_ToolState) NAME(_Usage) NAME(_usage_rows) NAME(action) NAME(add) NAME(alias_hit) \
    NAME(avg_ms) NAME(budget) NAME(call_count) NAME(calls) NAME(clear) NAME(cooldown_s) NAME(count) NAME(datetime) \
    NAME(db) NAME(decoder) NAME(disable_after_errors) NAME(disable_cooldown_s) NAME(disabled) NAME(disabled_at) \
    NAME(dumps) NAME(encode_basestring_ascii) NAME(encoder) NAME(error_count) NAME(errors) NAME(execute) \
    NAME(executemany) NAME(fetchall) NAME(fetchone) NAME(fromtimestamp) NAME(get) NAME(get_all_stats) \
    NAME(get_timing_collector) NAME(is_slow_call) NAME(items) NAME(json) NAME(JSONDecoder) NAME(JSONEncoder) \
    NAME(last_error) NAME(loads) NAME(logger) NAME(max_ms) NAME(min_ms) NAME(name) NAME(None) NAME(os) \
    NAME(os_threads) NAME(outcome) NAME(p95_ms) NAME(python) NAME(python_by_name) NAME(python_threads) \
    NAME(python_total) NAME(replace) NAME(separators) NAME(slow) NAME(strftime) NAME(strptime) NAME(thread_census) \
    NAME(time) NAME(timed_calls) NAME(timestamp) NAME(timezone) NAME(tool) NAME(tool_name) NAME(TOOL_USAGE_KEY) \
    NAME(TOOLS) NAME(tools) NAME(total_ms) NAME(tzinfo) NAME(update) NAME(updated_at) NAME(usage) NAME(utc) \
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
#define HEALTH_COUNT(name) +1
    static constexpr std::size_t count = 0 HEALTH_NAMES(HEALTH_COUNT);
#undef HEALTH_COUNT

    /// Interns all. Throws a MemoryError.
    void intern() {
        std::size_t place = 0;
#define HEALTH_INTERN(name) texts_[place++] = py::Ref::steal(PyUnicode_InternFromString(#name));
        HEALTH_NAMES(HEALTH_INTERN)
#undef HEALTH_INTERN
    }
    [[nodiscard]] PyObject* operator[](Name name) const { return texts_[static_cast<std::size_t>(name)].get(); }

private:
    std::array<py::Ref, count> texts_;
};

}  // namespace health
