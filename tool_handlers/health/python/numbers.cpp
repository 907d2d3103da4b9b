#include "health/python/numbers.hpp"

#include <array>
#include <charconv>
#include <cmath>


namespace health::py {

double round_to(double value, int digits) {
    if (!std::isfinite(value)) {
        return value;
    }
    std::array<char, 400> text;  // the longest: a sign, 309 digits, a point and the decimals
    const auto written = std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, digits);
    double rounded = value;
    std::from_chars(text.data(), written.ptr, rounded);
    return rounded;
}

Ref round_by_runtime(PyObject* value, int digits) {
    const Ref builtins = Ref::steal(PyImport_ImportModule("builtins"));
    const Ref count = Ref::steal(PyLong_FromLong(digits));
    return call(get_attribute(builtins.get(), "round").get(), value, count.get());
}

}  // namespace health::py
