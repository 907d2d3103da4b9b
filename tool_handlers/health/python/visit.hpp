// Going over the references that an object of C++ holds: one list serves the collector's visits and the end.
#pragma once

#include <Python.h>

namespace health::py {

/// Calls `visit` with each reference, until one answers other than 0; the last answer.
template <class Visit, class... References>
int visit_all(Visit& visit, References&... references) {
    int answer = 0;
    static_cast<void>((((answer = visit(references)) == 0) && ...));
    return answer;
}

}  // namespace health::py
