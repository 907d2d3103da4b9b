#include "health/python/numbers.hpp"

#include <array>
#include <charconv>
#include <cmath>

namespace health::py {

namespace {

/// `round_to` for values that are small enough: then `scaled` and its error are the exact product, `nearest` is off by
/// one only where the error decides a tie, and the quotient of two exact integers is the double nearest to it.
double round_small(double value, double power) {
    const double scaled = value * power;
    const double error = std::fma(value, power, -scaled);
    double nearest = std::nearbyint(scaled);  // a tie goes to the even integer
    const double distance = scaled - nearest;
    if (distance == 0.5 && error > 0.0) {
        nearest += 1.0;
    } else if (distance == -0.5 && error < 0.0) {
        nearest -= 1.0;
    }
    return nearest / power;
}

}  // namespace

double round_to(double value, int digits) {
    constexpr std::array powers{1.0, 10.0, 100.0, 1000.0};
    constexpr double small = 1e12;  // a thousandfold is far below 2^52
    if (std::fabs(value) < small) {
        return round_small(value, powers.at(static_cast<std::size_t>(digits)));
    }
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
    const Ref name = text("round");
    const Ref round = Ref::steal(PyObject_GetItem(PyEval_GetBuiltins(), name.get()));
    return call(round.get(), value, integer(digits).get());
}

}  // namespace health::py
