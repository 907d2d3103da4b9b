// The repository's database object, `repository.db`: the four statements the module runs through it.
//
// Each may block for long and runs Python code, so none is called with a tracker's lock held; each passes on what
// the database raises. No transaction is begun, committed or rolled back here.
#pragma once

#include <Python.h>

#include "health/host/host.hpp"

namespace health {

class Database {
public:
    Database(const Host& host, PyObject* repository) : host_(host), repository_(py::Ref::borrow(repository)) {}

    /// Every row of a statement without parameters, as a list.
    [[nodiscard]] py::Ref fetch_all(const char* sql) const;
    /// The first row, or None.
    [[nodiscard]] py::Ref fetch_one(const char* sql, PyObject* parameters) const;
    void execute(const char* sql, PyObject* parameters) const;
    /// Runs the statement once for each of the parameter rows, a list.
    void execute_many(const char* sql, PyObject* rows) const;

private:
    [[nodiscard]] py::Ref object() const { return py::get_attribute(repository_.get(), host_.names[Name::db]); }

    const Host& host_;
    py::Ref repository_;
};

}  // namespace health
