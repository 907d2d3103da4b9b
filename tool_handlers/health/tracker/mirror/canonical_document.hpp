// The usage document in its canonical form, which is the one the module writes. Knows nothing of Python.
#pragma once

#include <optional>
#include <string_view>

namespace health {

/// How many characters stand at the beginning that need no escape in a JSON text: printable ASCII but for two.
std::size_t unescaped_size(std::string_view text);

/// One element as its text has it. The texts lie in the document.
struct CanonicalElement {
    std::string_view tool;
    std::optional<std::string_view> action;
    std::string_view outcome;
    bool alias_hit;
    long calls;
    long timed_calls;
    double total_ms;
};

/// Reads a document element by element, as long as each is exactly as the module writes it: no white space, the members
/// in their order, texts of printable ASCII without escapes, counts of at most eighteen digits, a total with a decimal
/// point.
class CanonicalReader {
public:
    explicit CanonicalReader(std::string_view document) : rest_(document) {}

    /// Reads one element. False at the document's end, and where it is not canonical.
    bool next(CanonicalElement& element);

    /// Whether the whole document was read and canonical. To be asked when `next` said no.
    [[nodiscard]] bool is_done() const { return is_done_; }

private:
    bool take(std::string_view text);
    bool take_text(std::string_view& text);
    bool take_action(std::optional<std::string_view>& action);
    bool take_truth(bool& truth);
    bool take_count(long& count);
    bool take_total(double& total);

    std::string_view rest_;
    bool is_first_ = true;
    bool is_done_ = false;
};

}  // namespace health
