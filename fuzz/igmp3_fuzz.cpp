// The walk over the records of a version 3 report, beside an independent model of it: the input is an IP
// packet, of which version and protocol are set right. Keys are exact, so that a set is a model of the table.
#include "agent_model.h"

namespace {

using fuzz::Bytes;
using fuzz::kEther;

Bytes frame_of(const uint8_t* data, size_t size)
{
    Bytes frame(kEther + size, 0);
    frame[12] = 0x08;
    std::copy(data, data + size, frame.begin() + kEther);
    if (size > 9) {
        frame[kEther] = static_cast<uint8_t>(0x40 | (frame[kEther] & 15));
        frame[kEther + 9] = 2;
    }
    return frame;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_mod_ll[MLL_COMMON] = MIN_level;
    g_cfg = {};
    g_cfg.features = {.any = true, .exact = true, .immediate = false, .igmpv3 = true, .expire = 0};
    fuzz::AgentRun agent;
    fuzz::AgentModel model;
    const Bytes frame = frame_of(data, size);
    for (int round = 0; round < 2; ++round) { // the second one finds groups joined
        model.take(frame);
        fuzz::AgentRun::feed(frame);
    }
    agent.compare(model);
    return 0;
}
