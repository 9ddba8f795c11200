// The agent between set-up and shutdown, fed with frames by the test.
#ifndef TESTS_AGENT_RUNNING_AGENT_H
#define TESTS_AGENT_RUNNING_AGENT_H

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "agent_test.h"
#include "log.h"

// Its relay lines go to memory.
class RunningAgent : public support::AgentTest {
  protected:
    void SetUp() override
    {
        g_cfg.log_level = INFO_level;
        ASSERT_EQ(nkht_create(&g_ctx.wgrp_ht, MAX_ZENT_CHANNELS, tw_shift), 0);
        g_ctx.rep.sockfd = -1;
        g_ctx.rep.fp = open_memstream(&text_, &length_);
    }

    void TearDown() override
    {
        fclose(g_ctx.rep.fp);
        free(text_);
        nkht_destroy(g_ctx.wgrp_ht, nullptr);
        if (g_ctx.scope_ht != 0) {
            nkht_destroy(g_ctx.scope_ht, nullptr);
        }
    }

    // A frame in a heap block of its exact size, so that a read beyond it is seen; length is that on the
    // wire.
    static void feed(const std::vector<uint8_t>& frame, size_t length)
    {
        const auto block = std::make_unique<uint8_t[]>(frame.size());
        memcpy(block.get(), frame.data(), frame.size());
        pcap_pkthdr header = {};
        header.caplen = static_cast<bpf_u_int32>(frame.size());
        header.len = static_cast<bpf_u_int32>(length);
        on_pcap_pkt(nullptr, &header, block.get());
    }

    // All that was relayed so far.
    std::string all_relayed()
    {
        fflush(g_ctx.rep.fp);
        return {text_, length_};
    }

  private:
    char* text_ = nullptr;
    size_t length_ = 0;
};

#endif
