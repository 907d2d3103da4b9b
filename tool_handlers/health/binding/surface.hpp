// The module's public surface: its functions, and the methods and properties of the tracker, each one table row.
#pragma once

#include <span>

#include "health/python/function.hpp"

namespace health {

enum class MemberKind : unsigned char { method, property };

/// One member of the tracker class.
struct Member {
    py::Definition definition;
    MemberKind kind = MemberKind::method;
};

// The module's functions.
extern const py::Definition sqlite_time_definition;
extern const py::Definition epoch_definition;
extern const py::Definition known_definition;
extern const py::Definition performance_definition;
extern const py::Definition thread_census_definition;

/// The members of `ToolHealthTracker`, in the order in which they are made.
std::span<const Member> tracker_members();

}  // namespace health
