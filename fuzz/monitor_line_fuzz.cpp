// The parser of lines, and the state behind it: any bytes as a datagram. A line that is taken, written again,
// is the line; what is joined in the end is what a plain set says, where one process speaks.
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "line.h"
#include "state.h"

using namespace zentmon;

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

std::string written(const Line& line)
{
    std::string out = line.kind == LineKind::join ? "JOIN UDP://" : "LEAVE UDP://";
    append_group(out, line.group);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size > kLongestDatagram) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const bool cut = (data[0] & 1) != 0 && !text.empty();
    Counters counters;
    State state{StateOptions(), counters};
    std::set<uint32_t> joined;
    size_t lines = 0;
    size_t bytes = 0;
    const Now at = {1'700'000'000'000, 1000};
    each_line(
        text, cut,
        [&](Line line) {
            require(line.group >> 28 == 0xe);
            BadLine why = BadLine::empty;
            const std::string again = written(line);
            const auto parsed = parse_line(again, &why);
            require(parsed && parsed->group == line.group && parsed->kind == line.kind);
            require(text.find(again) != std::string::npos);
            state.apply("lab", "10.0.0.1", 7, line.kind, line.group, at);
            line.kind == LineKind::join ? (void)joined.insert(line.group) : (void)joined.erase(line.group);
            ++lines;
        },
        [&](BadLine why, std::string_view bad) {
            require(bad_line_name(why) != nullptr);
            bytes += bad.size();
        });
    require(bytes <= text.size());
    require((state.agent_count() == 1) == (lines > 0));
    // A repeated JOIN is a restart: what it had is stale, and shown all the same.
    require(state.group_count() == joined.size());
    return 0;
}
