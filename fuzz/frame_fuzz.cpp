// The agent's way from a frame to a line with any bytes from the Ethernet header on, beside an independent
// model of it. Input: a byte that says which features and bounds there are, the range if it has one (two
// times four bytes, host byte order), then frames, each behind its length (two bytes). The plain table's
// order hides groups where last octets are 128 or more: from the first such on its lines are not compared.
#include "agent_model.h"
#include "stream_input.h"

namespace {

using fuzz::Bytes;

void set_up(uint8_t choice, fuzz::Input& input)
{
    g_cfg = {};
    g_cfg.features.exact = (choice & 1) != 0;
    g_cfg.features.igmpv3 = (choice & 2) != 0;
    g_cfg.features.expire = (choice & 4) != 0 ? 10 : 0;
    g_cfg.features.immediate = (choice & 8) != 0;
    g_cfg.features.any = (choice & 15) != 0;
    if ((choice & 16) != 0) {
        g_cfg.min_group = input.take<uint32_t>();
        g_cfg.max_group = input.take<uint32_t>();
    }
    g_cfg.log_level = (choice & 32) != 0 ? DEBUG_level : INFO_level;
    fuzz::hide_log((choice & 64) != 0);
    log_mirror(&g_log, (choice & 128) != 0 ? log_fp(&g_log) : nullptr);
}

Bytes take_frame(fuzz::Input& input)
{
    size_t length = input.take<uint16_t>();
    const auto block = input.block(length);
    return {block.get(), block.get() + length};
}

// All that a run says is a line of the two forms.
void check_form(const std::string& lines)
{
    for (size_t at = 0; at < lines.size(); at = lines.find('\n', at) + 1) {
        const bool joins = lines.compare(at, 11, "JOIN UDP://") == 0;
        fuzz::demand(joins || lines.compare(at, 12, "LEAVE UDP://") == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    set_up(input.take<uint8_t>(), input);
    fuzz::AgentRun agent;
    fuzz::AgentModel model;
    model.exact = g_cfg.features.exact;
    model.igmpv3 = g_cfg.features.igmpv3;
    model.lowest = g_cfg.min_group;
    model.highest = g_cfg.max_group;
    while (input.left() > 0) {
        const Bytes frame = take_frame(input);
        model.take(frame);
        if (model.aborts) { // kept, and a test's business
            break;
        }
        fuzz::AgentRun::feed(frame);
        if (model.has_total_order) {
            agent.compare(model);
        }
    }
    check_form(agent.lines());
    log_mirror(&g_log, nullptr);
    return 0;
}
