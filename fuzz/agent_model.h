// What the two targets of the agent's way from a frame to a line share: a model of that way, in which a set
// stands for the table, and the agent's run beside it. The model reads by offsets from the end of what may be
// read, and knows no views.
#ifndef FUZZ_AGENT_MODEL_H
#define FUZZ_AGENT_MODEL_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "log.h"
#include "zent.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;

constexpr size_t kEther = 14;

struct AgentModel {
    // What command line and environment say; the range's bounds as in the agent's, 0 for none.
    bool exact = true, igmpv3 = true;
    uint32_t lowest = 0, highest = 0;

    std::set<uint32_t> joined;
    std::string lines;
    bool aborts = false;         // a message of 0.0.0.0 was believed
    bool has_total_order = true; // and the plain table's order is one: no last octet of 128 or more

    static std::string text_of(uint32_t group)
    {
        return std::to_string(group >> 24) + "." + std::to_string(group >> 16 & 255) + "." +
               std::to_string(group >> 8 & 255) + "." + std::to_string(group & 255);
    }

    bool in_range(uint32_t group) const { return group >= lowest && (highest == 0 || group <= highest); }

    // Of a record of a version 3 report too, where it must be a group.
    void tell(uint32_t group, bool joins, bool must_be_group)
    {
        if ((must_be_group && group >> 28 != 0xe) || !in_range(group)) {
            return;
        }
        aborts = aborts || group == 0;
        has_total_order = has_total_order && (exact || group % 256 < 128);
        if (joins ? joined.insert(group).second : joined.erase(group) != 0) {
            lines += (joins ? "JOIN UDP://" : "LEAVE UDP://") + text_of(group) + "\n";
        }
    }

    void record(unsigned type, unsigned sources, uint32_t group)
    {
        const bool all = type == 2 || type == 4;
        const bool some = (type == 1 || type == 3 || type == 5) && sources > 0;
        if (all || some || type == 3) {
            tell(group, all || some, true);
        }
    }

    // Bytes that were not captured read as zero.
    static uint32_t big(const Bytes& bytes, size_t at, size_t width)
    {
        uint32_t value = 0;
        for (size_t i = 0; i < width; ++i) {
            value = value * 256 + (at + i < bytes.size() ? bytes[at + i] : 0);
        }
        return value;
    }

    void report3(const Bytes& frame, size_t at, size_t end)
    {
        if (at + 8 > end) {
            return;
        }
        const uint32_t count = big(frame, at + 6, 2);
        at += 8;
        for (uint32_t i = 0; i < count; ++i) {
            if (at + 8 > end) {
                return;
            }
            const uint32_t sources = big(frame, at + 2, 2);
            const size_t next = at + 8 + 4 * (size_t{sources} + big(frame, at + 1, 1));
            if (next > end) {
                return;
            }
            record(big(frame, at, 1), sources, big(frame, at + 4, 4));
            at = next;
        }
    }

    void take(const Bytes& frame)
    {
        if (frame.size() < kEther + 20 || big(frame, 12, 2) != 0x800 || frame[kEther] / 16 != 4 ||
            frame[kEther + 9] != 2) {
            return;
        }
        const size_t message = kEther + 4 * size_t{big(frame, kEther, 1) % 16};
        const uint32_t type = big(frame, message, 1);
        if (type == 18 || type == 22 || type == 23) {
            tell(big(frame, message + 4, 4), type != 23, exact);
        } else if (type == 34 && igmpv3 && big(frame, kEther + 6, 2) % 0x2000 == 0) {
            report3(frame, message, std::min(frame.size(), kEther + big(frame, kEther + 2, 2)));
        }
    }
};

// The agent with a stream for its lines.
class AgentRun {
  public:
    AgentRun()
    {
        g_ctx = {};
        g_ctx.rep.sockfd = -1;
        g_ctx.rep.fp = open_memstream(&text_, &length_);
        if (nkht_create(&g_ctx.wgrp_ht, MAX_ZENT_CHANNELS, tw_shift) != 0) {
            abort();
        }
    }

    AgentRun(const AgentRun&) = delete;
    AgentRun& operator=(const AgentRun&) = delete;

    ~AgentRun()
    {
        fclose(g_ctx.rep.fp);
        free(text_);
        nkht_destroy(g_ctx.wgrp_ht, g_cfg.features.expire != 0 ? free : nullptr);
        g_ctx = {};
    }

    // A frame in a block of its size.
    static void feed(const Bytes& frame)
    {
        const auto block = std::make_unique<uint8_t[]>(frame.size());
        std::copy(frame.begin(), frame.end(), block.get());
        pcap_pkthdr header = {};
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        on_pcap_pkt(nullptr, &header, block.get());
    }

    std::string lines() const
    {
        fflush(g_ctx.rep.fp);
        return {text_, length_};
    }

    void compare(const AgentModel& model) const
    {
        const std::string told = lines();
        if (model.lines != told || model.joined.size() != nkht_count(g_ctx.wgrp_ht)) {
            fprintf(stderr, "model and agent differ:\n%s----\n%s", model.lines.c_str(), told.c_str());
            abort();
        }
    }

  private:
    char* text_ = nullptr;
    size_t length_ = 0;
};

} // namespace fuzz

#endif
