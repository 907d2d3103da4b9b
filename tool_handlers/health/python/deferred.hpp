// References that are dropped later: what dies while a C++ exception is on its way.
//
// Dropping a last reference may run Python code. A finalising interpreter may end the thread in that code by a forced
// unwind, and a forced unwind out of a destructor that runs because of an exception ends the process. So such a
// reference is kept until the exception was caught at the API boundary.
#pragma once

#include <Python.h>

namespace health::py {

/// Takes over a reference, to be dropped by `run_deferred`. False, with nothing taken, if too many are deferred
/// already.
bool defer_decref(PyObject* object);

/// Drops what was deferred on this thread. Runs Python code; the error indicator stays as it is.
void run_deferred();

}  // namespace health::py
