// The performance statistics of the tools, as the timing collector measured them.
#include "health/python/object.hpp"
#include "health/reports/reports.hpp"

namespace health {

using py::Ref;

namespace {

constexpr std::array figures{Name::name,   Name::count,  Name::avg_ms, Name::p95_ms,
                             Name::min_ms, Name::max_ms, Name::errors};

Ref make_entry(const Context& context, PyObject* element) {
    Ref entry = Ref::steal(PyDict_New());
    for (const Name figure : figures) {
        const Ref value = py::get_item(element, context[figure]);
        py::set_item(entry.get(), context[figure], value.get());
    }
    return entry;
}

}  // namespace

Ref performance_report(const Context& context) {
    const Ref collector = py::call(context.get(Name::get_timing_collector).get());
    const Ref stats = py::call_method(collector.get(), context[Name::get_all_stats]);
    const Ref iterator = Ref::steal(PyObject_GetIter(stats.get()));
    const Ref entries = Ref::steal(PyList_New(0));
    while (const Ref element = py::next_item(iterator.get())) {
        py::check(PyList_Append(entries.get(), make_entry(context, element.get()).get()));
    }
    Ref report = Ref::steal(PyDict_New());
    py::set_item(report.get(), context[Name::tools], entries.get());
    return report;
}

}  // namespace health
