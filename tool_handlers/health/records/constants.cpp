#include "health/records/constants.hpp"

#include "health/python/object.hpp"

namespace health {

py::Ref make_usage_key_alias() {
    auto* str = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    const py::Ref optional = py::Ref::steal(PyNumber_Or(str, Py_None));
    const py::Ref members = py::make_tuple(str, optional.get(), str, reinterpret_cast<PyObject*>(&PyBool_Type));
    return py::get_item(reinterpret_cast<PyObject*>(&PyTuple_Type), members.get());
}

}  // namespace health
