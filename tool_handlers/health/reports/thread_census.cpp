// The thread census: how many threads the process holds, by whose count, and whether its pools allow that many.
#include "health/reports/reports.hpp"

namespace health {

using py::Ref;

namespace {

Ref plain_text(PyObject* number) {
    return Ref::steal(PyObject_Format(number, nullptr));
}

Ref make_warning(PyObject* counted, PyObject* budget) {
    return Ref::steal(PyUnicode_FromFormat(
        "The process holds %U threads, more than the %U its pools allow: threads are piling up. A thread that ran the "
        "local embedding model keeps a team of torch threads, as many as DENDRA_EMBED_THREADS allows (0 leaves "
        "torch's own size).",
        plain_text(counted).get(), plain_text(budget).get()));
}

}  // namespace

Ref thread_census_report(const Module& module, PyObject* budget, PyObject* census) {
    const Ref taken = census == Py_None ? py::call(module.get(Name::thread_census).get()) : Ref::borrow(census);
    const Ref by_system = py::get_attribute(taken.get(), module[Name::os_threads]);
    const Ref by_runtime = py::get_attribute(taken.get(), module[Name::python_total]);
    const Ref threads = py::get_attribute(taken.get(), module[Name::python_threads]);
    const Ref by_name = py::call(reinterpret_cast<PyObject*>(&PyDict_Type), threads.get());
    Ref report = Ref::steal(PyDict_New());
    const auto put = [&](Name name, PyObject* value) { py::check(PyDict_SetItem(report.get(), module[name], value)); };
    const bool is_system_counted = by_system.get() != Py_None;
    if (is_system_counted) {
        put(Name::os, by_system.get());
    }
    put(Name::python, by_runtime.get());
    put(Name::python_by_name, by_name.get());
    put(Name::budget, budget);
    PyObject* counted = is_system_counted ? by_system.get() : by_runtime.get();
    if (py::compares(counted, budget, Py_GT)) {
        put(Name::warning, make_warning(counted, budget).get());
    }
    return report;
}

}  // namespace health
