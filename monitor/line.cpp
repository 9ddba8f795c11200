// The parser of one line.
#include "line.h"

namespace zentmon {

namespace {

bool skip(std::string_view& text, std::string_view word)
{
    if (text.substr(0, word.size()) != word) {
        return false;
    }
    text.remove_prefix(word.size());
    return true;
}

// One number of an address: 0 to 255 without leading zeros; -1 for none.
int octet(std::string_view& text)
{
    size_t digits = 0;
    int value = 0;
    while (digits < text.size() && digits < 3 && text[digits] >= '0' && text[digits] <= '9') {
        value = value * 10 + (text[digits++] - '0');
    }
    if (digits == 0 || value > 255 || (digits > 1 && text[0] == '0')) {
        return -1;
    }
    text.remove_prefix(digits);
    return value;
}

std::optional<uint32_t> address(std::string_view& text)
{
    uint32_t result = 0;
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && !skip(text, ".")) {
            return std::nullopt;
        }
        const int value = octet(text);
        if (value < 0) {
            return std::nullopt;
        }
        result = result << 8 | static_cast<uint32_t>(value);
    }
    return result;
}

} // namespace

std::optional<Line> parse_line(std::string_view text, BadLine* why)
{
    const auto bad = [why](BadLine reason) {
        *why = reason;
        return std::nullopt;
    };
    if (text.empty()) {
        return bad(BadLine::empty);
    }
    Line line = {LineKind::join, 0};
    if (skip(text, "LEAVE ")) {
        line.kind = LineKind::leave;
    } else if (!skip(text, "JOIN ")) {
        return bad(BadLine::word);
    }
    if (!skip(text, "UDP://")) {
        return bad(BadLine::scheme);
    }
    const std::optional<uint32_t> group = address(text);
    if (!group || (!text.empty() && text[0] >= '0' && text[0] <= '9')) {
        return bad(BadLine::address);
    }
    if (!text.empty()) {
        return bad(BadLine::trailing);
    }
    if (*group >> 28 != 0xe) {
        return bad(BadLine::group);
    }
    line.group = *group;
    return line;
}

} // namespace zentmon
