// The walk over the records of a version 3 report, beside an independent model of it: the input is an IP
// packet, of which version and protocol are set right. Keys are exact, so that a set is a model of the table.
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

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kEther = 14;

// The model reads by offsets from the end of what may be read, and knows no views.
struct Model {
    std::set<uint32_t> joined;
    std::string lines;

    static std::string text_of(uint32_t group)
    {
        return std::to_string(group >> 24) + "." + std::to_string(group >> 16 & 255) + "." +
               std::to_string(group >> 8 & 255) + "." + std::to_string(group & 255);
    }

    void report(uint32_t group)
    {
        if (group >> 28 == 0xe && joined.insert(group).second) {
            lines += "JOIN UDP://" + text_of(group) + "\n";
        }
    }

    void leave(uint32_t group)
    {
        if (joined.erase(group) != 0) {
            lines += "LEAVE UDP://" + text_of(group) + "\n";
        }
    }

    void record(unsigned type, unsigned sources, uint32_t group)
    {
        const bool all = type == 2 || type == 4;
        const bool some = (type == 1 || type == 3 || type == 5) && sources > 0;
        if (all || some) {
            report(group);
        } else if (type == 3) {
            leave(group);
        }
    }

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
        if (frame.size() < kEther + 20) {
            return;
        }
        const size_t message = kEther + 4 * size_t{big(frame, kEther, 1) % 16};
        const uint32_t type = big(frame, message, 1);
        const uint32_t group = big(frame, message + 4, 4);
        if (type == 18 || type == 22) {
            report(group);
        } else if (type == 23) {
            leave(group);
        } else if (type == 34 && big(frame, kEther + 6, 2) % 0x2000 == 0) {
            report3(frame, message, std::min(frame.size(), kEther + big(frame, kEther + 2, 2)));
        }
    }
};

void feed(const Bytes& frame)
{
    const auto block = std::make_unique<uint8_t[]>(frame.size());
    memcpy(block.get(), frame.data(), frame.size());
    pcap_pkthdr header = {};
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
    on_pcap_pkt(nullptr, &header, block.get());
}

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
    g_ctx = {};
    g_ctx.rep.sockfd = -1;
    char* text = nullptr;
    size_t length = 0;
    g_ctx.rep.fp = open_memstream(&text, &length);
    if (nkht_create(&g_ctx.wgrp_ht, MAX_ZENT_CHANNELS, tw_shift) != 0) {
        abort();
    }
    const Bytes frame = frame_of(data, size);
    Model model;
    for (int round = 0; round < 2; ++round) { // the second one finds groups joined
        model.take(frame);
        feed(frame);
    }
    fclose(g_ctx.rep.fp);
    if (model.lines != std::string(text, length) || model.joined.size() != nkht_count(g_ctx.wgrp_ht)) {
        fprintf(stderr, "model and agent differ:\n%s----\n%.*s", model.lines.c_str(),
                static_cast<int>(length), text);
        abort();
    }
    free(text);
    nkht_destroy(g_ctx.wgrp_ht, nullptr);
    g_ctx.wgrp_ht = 0;
    return 0;
}
