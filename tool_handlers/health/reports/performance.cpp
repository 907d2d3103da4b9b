// The performance statistics of the tools, as the timing collector measured them.
#include "health/reports/reports.hpp"

namespace health {

using py::Ref;

namespace {

constexpr std::array figures{Name::name,   Name::count,  Name::avg_ms, Name::p95_ms,
                             Name::min_ms, Name::max_ms, Name::errors};

Ref collect(const Module& module) {
    const Ref collector = py::call(module.get(Name::get_timing_collector).get());
    return py::call_method(collector.get(), module[Name::get_all_stats]);
}

Ref make_entry(const Module& module, PyObject* element) {
    Ref entry = Ref::steal(PyDict_New());
    for (const Name figure : figures) {
        PyObject* key = module[figure];
        py::check(PyDict_SetItem(entry.get(), key, py::get_item(element, key).get()));
    }
    return entry;
}

}  // namespace

Ref performance_report(const Module& module) {
    const Ref iterator = Ref::steal(PyObject_GetIter(collect(module).get()));
    const Ref entries = Ref::steal(PyList_New(0));
    while (const Ref element = py::next_item(iterator.get())) {
        py::check(PyList_Append(entries.get(), make_entry(module, element.get()).get()));
    }
    Ref report = Ref::steal(PyDict_New());
    py::check(PyDict_SetItem(report.get(), module[Name::tools], entries.get()));
    return report;
}

}  // namespace health
