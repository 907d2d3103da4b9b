// The repository's database object, `repository.db`: the four statements the module runs through it.
//
//     fetchall(sql)            every row of a statement without parameters
//     fetchone(sql, params)    the first row, or None
//     execute(sql, params)     its result is not used
//     executemany(sql, rows)   the statement once for each of the rows, a list; its result is not used
//
// Each may block for long and runs Python code, so none is called with a tracker's lock held; each passes on what the
// database raises. No transaction is begun, committed or rolled back here.
#pragma once

#include <Python.h>

#include "health/module/context.hpp"

namespace health {

/// `repository.db.<operation>`, to be called. Runs Python code where attribute access does.
inline py::Ref database_operation(const Context& context, PyObject* repository, Name operation) {
    const py::Ref database = py::get_attribute(repository, context[Name::db]);
    return py::get_attribute(database.get(), context[operation]);
}

}  // namespace health
