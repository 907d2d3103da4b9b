// The module's constants.
#pragma once

#include <Python.h>

#include "health/python/ref.hpp"

namespace health {

/// The form of a stored timestamp, and the name under which the module binds it.
inline constexpr const char* sqlite_timestamp = "%Y-%m-%d %H:%M:%S";

/// The columns of the table `tool_health`, in the order of reads and writes.
#define HEALTH_TOOL_HEALTH_COLUMNS "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
inline constexpr const char* tool_health_columns = HEALTH_TOOL_HEALTH_COLUMNS;

/// The key of the usage document in the table `schema_info`.
inline constexpr const char* tool_usage_key = "tool_usage";

/// `tuple[str, str | None, str, bool]`: a usage key's type. New reference.
py::Ref make_usage_key_alias();

}  // namespace health
