// The exact form of a line: "JOIN UDP://A.B.C.D" or "LEAVE UDP://A.B.C.D", and the lines of a datagram.
#ifndef ZENTMON_LINE_H
#define ZENTMON_LINE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "counters.h"
#include "state.h"

namespace zentmon {

constexpr size_t kLongestDatagram = 9000; // bytes of lines; what is beyond is not read

struct Line {
    LineKind kind;
    uint32_t group; // host byte order
};

// Reads one line without its line feed. Where it is none, nothing, with *why.
std::optional<Line> parse_line(std::string_view text, BadLine* why);

// Calls good(Line) or bad(BadLine, text) for each line of a datagram. Of one that was cut (and is not empty),
// what follows its last line feed is one bad line.
template <typename Good, typename Bad>
void each_line(std::string_view data, bool cut, Good good, Bad bad)
{
    if (cut && data.back() == '\n') {
        bad(BadLine::truncated, {});
    }
    while (!data.empty()) {
        const size_t end = data.find('\n');
        const std::string_view text = data.substr(0, end);
        const bool whole = end != std::string_view::npos;
        data.remove_prefix(whole ? end + 1 : data.size());
        BadLine why = BadLine::truncated;
        const std::optional<Line> line = whole || !cut ? parse_line(text, &why) : std::nullopt;
        if (line) {
            good(*line);
        } else {
            bad(why, text);
        }
    }
}

} // namespace zentmon

#endif
