// Epoch seconds and stored timestamps, as far as C++ goes. Knows nothing of Python.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace health {

/// A stored timestamp: `%Y-%m-%d %H:%M:%S` in UTC, the year without padding.
struct TimestampText {
    std::array<char, 20> characters;
    std::size_t size;

    [[nodiscard]] std::string_view view() const { return {characters.data(), size}; }
};

/// The timestamp of `epoch` seconds since 1970-01-01 UTC, rounded first to the nearest microsecond (a tie goes to the
/// even one) and then down to a second. Nothing for a value that is not finite or lies outside the years 1 to 9999.
std::optional<TimestampText> format_timestamp(double epoch);

/// The epoch seconds of a timestamp in its canonical form, nineteen characters with every digit in place. Nothing for
/// any other text, also where a more lenient reader would accept it.
std::optional<double> parse_timestamp(std::string_view text);

}  // namespace health
