#include "health/host/database.hpp"

namespace health {

using py::Ref;

Ref Database::fetch_all(const char* sql) const {
    return py::call_method(object().get(), host_.names[Name::fetchall], py::text(sql).get());
}

Ref Database::fetch_one(const char* sql, PyObject* parameters) const {
    return py::call_method(object().get(), host_.names[Name::fetchone], py::text(sql).get(), parameters);
}

void Database::execute(const char* sql, PyObject* parameters) const {
    py::call_method(object().get(), host_.names[Name::execute], py::text(sql).get(), parameters);
}

void Database::execute_many(const char* sql, PyObject* rows) const {
    py::call_method(object().get(), host_.names[Name::executemany], py::text(sql).get(), rows);
}

}  // namespace health
