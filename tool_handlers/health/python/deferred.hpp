// References that are dropped later: what dies while a C++ exception is on its way.
//
// Dropping a last reference may run Python code. A finalising interpreter may end the thread in that code by a forced
// unwind, and a forced unwind out of a destructor that runs because of an exception ends the process. So such a
// reference is kept until the exception was caught.
#pragma once

#include <Python.h>

#include <array>
#include <cstddef>

namespace health::py {

/// Takes over a reference, to be taken by `DeferredRefs`. False, with nothing taken, if too many are deferred
/// already.
bool defer_decref(PyObject* object);

/// What was deferred on this thread, taken over. It is dropped when this dies.
class DeferredRefs {
public:
    static constexpr std::size_t most = 64;

    DeferredRefs();
    DeferredRefs(const DeferredRefs&) = delete;
    DeferredRefs& operator=(const DeferredRefs&) = delete;
    /// Runs Python code, unless another exception is on its way: then they are deferred again. The error indicator
    /// stays as it is.
    ~DeferredRefs() noexcept(false);

private:
    std::array<PyObject*, most> objects_;  // NOLINT: the first `count_` are there
    std::size_t count_;
};

}  // namespace health::py
