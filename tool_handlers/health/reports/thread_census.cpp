// The thread census: how many threads the process holds, by whose count, and whether its pools allow that many.
#include "health/reports/reports.hpp"

namespace health {

using py::Ref;

namespace {

Ref make_warning(PyObject* counted, PyObject* budget) {
    return Ref::steal(PyUnicode_FromFormat(
        "The process holds %U threads, more than the %U its pools allow: threads are piling up. A thread that ran the "
        "local embedding model keeps a team of torch threads, as many as DENDRA_EMBED_THREADS allows (0 leaves "
        "torch's own size).",
        py::formatted(counted).get(), py::formatted(budget).get()));
}

/// The system's count of the threads, or None.
Ref system_count(const Module& module, const Ref& census) {
    return py::get_attribute(census.get(), module[Name::os_threads]);
}

/// The system's count, or where there is none the runtime's.
Ref best_count(const Module& module, const Ref& census) {
    return system_count(module, census).get() != Py_None ? system_count(module, census)
                                                         : py::get_attribute(census.get(), module[Name::python_total]);
}

}  // namespace

Ref thread_census_report(const Module& module, PyObject* budget, PyObject* census) {
    const Ref taken = census == Py_None ? py::call(module.get(Name::thread_census).get()) : Ref::borrow(census);
    Ref report = Ref::steal(PyDict_New());
    const auto put = [&](Name name, PyObject* value) { py::check(PyDict_SetItem(report.get(), module[name], value)); };
    if (system_count(module, taken).get() != Py_None) {
        put(Name::os, system_count(module, taken).get());
    }
    put(Name::python, py::get_attribute(taken.get(), module[Name::python_total]).get());
    const Ref by_name = py::get_attribute(taken.get(), module[Name::python_threads]);
    put(Name::python_by_name, py::call(reinterpret_cast<PyObject*>(&PyDict_Type), by_name.get()).get());
    put(Name::budget, budget);
    const Ref counted = best_count(module, taken);
    if (py::compares(counted.get(), budget, Py_GT)) {
        put(Name::warning, make_warning(counted.get(), budget).get());
    }
    return report;
}

}  // namespace health
