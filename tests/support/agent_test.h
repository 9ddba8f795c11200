// What a test of the agent's functions begins with.
#ifndef TESTS_SUPPORT_AGENT_TEST_H
#define TESTS_SUPPORT_AGENT_TEST_H

#include "fixtures.h"
#include "util.h"
#include "zent.h"

namespace support {

// The agent as it is before main: the state of one test is not that of the next.
inline void clear_agent()
{
    g_cfg = {};
    g_ctx = {};
    g_appname = "zent";
    g_quit = 0;
}

class AgentTest : public GuardedTest {
  protected:
    AgentTest() { clear_agent(); }

    ~AgentTest() override { clear_agent(); }
};

} // namespace support

#endif
