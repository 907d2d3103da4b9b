// What is put off while an exception is on its way.
//
// Dropping a last reference may run Python code, and so does leaving a lock that a host put in place of ours. A
// finalising interpreter may end the thread in that code by a forced unwind, and out of a destructor that runs because
// of an exception such an unwind would end the process. So it is done once the exception was caught.
#pragma once

#include <Python.h>

namespace health::py {

/// Takes over a reference, to be dropped; false, with nothing taken, if too much is put off already.
bool drop_later(PyObject* object);

/// Takes over a lock that was entered, with the `__exit__` of its type, to be left; false as above.
bool leave_later(PyObject* lock, PyObject* exit);

/// Does what was put off: locks are left first, so that what dies then finds them free. A failure to leave one is
/// reported as one that nobody can catch. Runs Python code; the error indicator stays as it is.
void finish_late();

}  // namespace health::py
