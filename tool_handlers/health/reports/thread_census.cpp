// The thread census: how many threads the process holds, by whose count, and whether its pools allow that many.
#include "health/python/object.hpp"
#include "health/reports/reports.hpp"

namespace health {

using py::Ref;

namespace {

Ref make_warning(PyObject* counted, PyObject* budget) {
    const Ref threads = py::formatted(counted);
    const Ref allowed = py::formatted(budget);
    return Ref::steal(PyUnicode_FromFormat(
        "The process holds %U threads, more than the %U its pools allow: threads are piling up. A thread that ran the "
        "local embedding model keeps a team of torch threads, as many as DENDRA_EMBED_THREADS allows (0 leaves "
        "torch's own size).",
        threads.get(), allowed.get()));
}

/// The system's count of the threads, or None.
Ref system_count(const Context& context, const Ref& census) {
    return py::get_attribute(census.get(), context[Name::os_threads]);
}

/// The system's count, or where there is none the runtime's.
Ref best_count(const Context& context, const Ref& census) {
    return system_count(context, census).get() != Py_None
               ? system_count(context, census)
               : py::get_attribute(census.get(), context[Name::python_total]);
}

}  // namespace

Ref thread_census_report(const Context& context, PyObject* budget, PyObject* census) {
    const Ref taken = census == Py_None ? py::call(context.get(Name::thread_census).get()) : Ref::borrow(census);
    Ref report = Ref::steal(PyDict_New());
    if (system_count(context, taken).get() != Py_None) {
        py::set_item(report.get(), context[Name::os], system_count(context, taken).get());
    }
    py::set_item(report.get(), context[Name::python],
                 py::get_attribute(taken.get(), context[Name::python_total]).get());
    const Ref by_name = py::get_attribute(taken.get(), context[Name::python_threads]);
    const Ref copy = py::call(reinterpret_cast<PyObject*>(&PyDict_Type), by_name.get());
    py::set_item(report.get(), context[Name::python_by_name], copy.get());
    py::set_item(report.get(), context[Name::budget], budget);
    const Ref counted = best_count(context, taken);
    if (py::compares(counted.get(), budget, Py_GT)) {
        py::set_item(report.get(), context[Name::warning], make_warning(counted.get(), budget).get());
    }
    return report;
}

}  // namespace health
