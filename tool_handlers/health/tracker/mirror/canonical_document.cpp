#include "health/tracker/mirror/canonical_document.hpp"

#include <algorithm>
#include <charconv>

namespace health {

namespace {

bool is_digit(char character) { return character >= '0' && character <= '9'; }

/// Whether `number` is written as JSON wants its integers: digits without a leading zero, perhaps behind a minus sign.
bool is_integer(std::string_view number) {
    if (number.starts_with('-')) {
        number.remove_prefix(1);
    }
    return !number.empty() && std::ranges::all_of(number, is_digit) && (number.size() == 1 || number.front() != '0');
}

}  // namespace

std::size_t unescaped_size(std::string_view text) {
    std::size_t size = 0;
    while (size < text.size() && text[size] >= ' ' && text[size] <= '~' && text[size] != '"' && text[size] != '\\') {
        ++size;
    }
    return size;
}

bool CanonicalReader::next(CanonicalElement& element) {
    if (is_first_ ? take("[]") : take("]")) {
        is_done_ = rest_.empty();
        return false;
    }
    const bool is_read = take(is_first_ ? R"([{"tool":)" : R"(,{"tool":)") && take_text(element.tool) &&
                         take(R"(,"action":)") && take_action(element.action) && take(R"(,"outcome":)") &&
                         take_text(element.outcome) && take(R"(,"alias_hit":)") && take_truth(element.alias_hit) &&
                         take(R"(,"calls":)") && take_count(element.calls) && take(R"(,"timed_calls":)") &&
                         take_count(element.timed_calls) && take(R"(,"total_ms":)") && take_total(element.total_ms) &&
                         take("}");
    is_first_ = false;
    return is_read;
}

bool CanonicalReader::take(std::string_view text) {
    if (!rest_.starts_with(text)) {
        return false;
    }
    rest_.remove_prefix(text.size());
    return true;
}

bool CanonicalReader::take_text(std::string_view& text) {
    if (!take("\"")) {
        return false;
    }
    text = rest_.substr(0, unescaped_size(rest_));
    rest_.remove_prefix(text.size());
    return take("\"");
}

bool CanonicalReader::take_action(std::optional<std::string_view>& action) {
    if (take("null")) {
        action.reset();
        return true;
    }
    return take_text(action.emplace());
}

bool CanonicalReader::take_truth(bool& truth) {
    truth = take("true");
    return truth || take("false");
}

bool CanonicalReader::take_count(long& count) {
    constexpr std::size_t most_digits = 18;
    const std::string_view number = rest_.substr(0, std::min(rest_.find(','), most_digits));
    rest_.remove_prefix(number.size());
    return is_integer(number) && std::from_chars(number.data(), number.data() + number.size(), count).ec == std::errc();
}

bool CanonicalReader::take_total(double& total) {
    const std::string_view number = rest_.substr(0, rest_.find('}'));
    const std::string_view whole = number.substr(0, number.find('.'));
    const std::string_view decimals = number.substr(std::min(whole.size() + 1, number.size()));
    rest_.remove_prefix(number.size());
    return is_integer(whole) && !decimals.empty() && std::ranges::all_of(decimals, is_digit) &&
           std::from_chars(number.data(), number.data() + number.size(), total).ec == std::errc();
}

}  // namespace health
