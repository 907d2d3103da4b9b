#include "health/host/calendar.hpp"

#include <charconv>
#include <chrono>
#include <cmath>

namespace health {

namespace {

using std::chrono::days;
using std::chrono::hh_mm_ss;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year_month_day;

constexpr sys_seconds first_second = sys_days{std::chrono::year{1} / 1 / 1};
constexpr sys_seconds end_of_time = sys_days{std::chrono::year{10000} / 1 / 1};

double round_half_even(double value) {
    const double rounded = std::round(value);
    return std::fabs(value - rounded) == 0.5 ? 2.0 * std::round(value / 2.0) : rounded;
}

/// The whole seconds of `epoch` once its fraction was rounded to microseconds, in the runtime's own steps.
double whole_seconds(double epoch) {
    double whole = 0.0;
    const double microseconds = round_half_even(std::modf(epoch, &whole) * 1e6);
    if (microseconds >= 1e6) {
        return whole + 1.0;
    }
    return microseconds < 0.0 ? whole - 1.0 : whole;
}

/// Writes a separator and `value` in two digits; returns where the next character goes.
char* write_two(char* out, char separator, unsigned value) {
    *out++ = separator;
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

/// Reads `count` ASCII digits; negative if there are others.
int read_digits(std::string_view text, std::size_t start, std::size_t count) {
    int value = 0;
    for (const char digit : text.substr(start, count)) {
        if (digit < '0' || digit > '9') {
            return -1;
        }
        value = value * 10 + (digit - '0');
    }
    return value;
}

}  // namespace

std::optional<TimestampText> format_timestamp(double epoch) {
    const double whole = std::isfinite(epoch) ? whole_seconds(epoch) : epoch;
    const auto first = static_cast<double>(first_second.time_since_epoch().count());
    const auto end = static_cast<double>(end_of_time.time_since_epoch().count());
    if (!(whole >= first && whole < end)) {
        return std::nullopt;
    }
    const sys_seconds moment{seconds{static_cast<seconds::rep>(whole)}};
    const auto midnight = std::chrono::floor<days>(moment);
    const year_month_day date{midnight};
    const hh_mm_ss time{moment - midnight};
    TimestampText text{};
    char* out = std::to_chars(text.characters.data(), text.characters.data() + 4, static_cast<int>(date.year())).ptr;
    out = write_two(out, '-', static_cast<unsigned>(date.month()));
    out = write_two(out, '-', static_cast<unsigned>(date.day()));
    out = write_two(out, ' ', static_cast<unsigned>(time.hours().count()));
    out = write_two(out, ':', static_cast<unsigned>(time.minutes().count()));
    out = write_two(out, ':', static_cast<unsigned>(time.seconds().count()));
    text.size = static_cast<std::size_t>(out - text.characters.data());
    return text;
}

std::optional<double> parse_timestamp(std::string_view text) {
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' ||
        text[16] != ':') {
        return std::nullopt;
    }
    const year_month_day date{std::chrono::year{read_digits(text, 0, 4)},
                              std::chrono::month{static_cast<unsigned>(read_digits(text, 5, 2))},
                              std::chrono::day{static_cast<unsigned>(read_digits(text, 8, 2))}};
    const int hour = read_digits(text, 11, 2);
    const int minute = read_digits(text, 14, 2);
    const int second = read_digits(text, 17, 2);
    if (date.year() < std::chrono::year{1} || !date.ok() || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59) {
        return std::nullopt;
    }
    const sys_seconds moment =
        sys_days{date} + std::chrono::hours{hour} + std::chrono::minutes{minute} + seconds{second};
    return static_cast<double>(moment.time_since_epoch().count());
}

}  // namespace health
