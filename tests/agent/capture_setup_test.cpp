// The capture's set-up and the run loop, on a libpcap whose answers are scripted.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>
#include <unistd.h>

#include "agent_test.h"
#include "child.h"
#include "log.h"
#include "logcap.h"
#include "text.h"
#include "wrap.h"

using support::Lines;
using support::LogCapture;

namespace {

pcap_t* const kCapture = reinterpret_cast<pcap_t*>(0x10);
constexpr bpf_u_int32 kMask = 0x00ffffff;

// A result of pcap_dispatch; with quits, a quit signal has come meanwhile.
struct Dispatch {
    int result;
    bool quits = false;
};

std::string g_failing; // the call that is to fail
Lines g_calls;
std::deque<Dispatch> g_script;
time_t g_now = 0;

int result_of(const std::string& call)
{
    g_calls.push_back(call);
    return call == g_failing ? -1 : 0;
}

void explain(char* errbuf)
{
    strcpy(errbuf, "not today");
}

} // namespace

WRAPPED(time_t, time, (time_t * to));
WRAPPED(int, pcap_lookupnet, (const char* device, bpf_u_int32* net, bpf_u_int32* mask, char* errbuf));
WRAPPED(pcap_t*, pcap_open_live, (const char* device, int snaplen, int promisc, int to_ms, char* errbuf));
WRAPPED(int, pcap_compile,
        (pcap_t * p, struct bpf_program* prog, const char* text, int optimize, bpf_u_int32 mask));
WRAPPED(int, pcap_setfilter, (pcap_t * p, struct bpf_program* prog));
WRAPPED(int, pcap_dispatch, (pcap_t * p, int count, pcap_handler callback, u_char* user));
WRAPPED(char*, pcap_geterr, (pcap_t * p));
WRAPPED(void, pcap_breakloop, (pcap_t * p));
WRAPPED_UNCALLED(void, pcap_freecode, (struct bpf_program * prog));

extern "C" {
time_t __wrap_time(time_t* to)
{
    return g_now != 0 ? g_now : __real_time(to);
}

int __wrap_pcap_lookupnet(const char* device, bpf_u_int32* net, bpf_u_int32* mask, char* errbuf)
{
    EXPECT_STREQ(device, "eth7");
    EXPECT_EQ(errbuf, g_ctx.errbuf);
    explain(errbuf);
    *net = 10;
    *mask = kMask;
    return result_of("pcap_lookupnet");
}

pcap_t* __wrap_pcap_open_live(const char* device, int snaplen, int promisc, int to_ms, char* errbuf)
{
    EXPECT_STREQ(device, "eth7");
    EXPECT_EQ(snaplen, 8192);
    EXPECT_EQ(promisc, 0);
    EXPECT_EQ(to_ms, 5000);
    EXPECT_EQ(errbuf, g_ctx.errbuf);
    return result_of("pcap_open_live") == 0 ? kCapture : nullptr;
}

int __wrap_pcap_compile(pcap_t* p, struct bpf_program* prog, const char* text, int optimize, bpf_u_int32 mask)
{
    EXPECT_EQ(p, kCapture);
    EXPECT_NE(prog, nullptr);
    EXPECT_STREQ(text, "igmp");
    EXPECT_EQ(optimize, 0);
    EXPECT_EQ(mask, kMask);
    return result_of("pcap_compile");
}

int __wrap_pcap_setfilter(pcap_t* p, struct bpf_program* prog)
{
    EXPECT_EQ(p, kCapture);
    EXPECT_NE(prog, nullptr);
    return result_of("pcap_setfilter");
}

int __wrap_pcap_dispatch(pcap_t* p, int count, pcap_handler callback, u_char* user)
{
    EXPECT_EQ(p, kCapture);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(callback, on_pcap_pkt);
    EXPECT_EQ(user, nullptr);
    result_of("pcap_dispatch");
    if (g_script.empty()) {
        ADD_FAILURE() << "nothing more was to be taken";
        g_quit = 1;
        return -2;
    }
    const Dispatch next = g_script.front();
    g_script.pop_front();
    g_quit = next.quits ? 1 : 0;
    return next.result;
}

char* __wrap_pcap_geterr(pcap_t* p)
{
    static char text[] = "the wire is cut";
    EXPECT_EQ(p, kCapture);
    return text;
}

void __wrap_pcap_breakloop(pcap_t* p)
{
    EXPECT_EQ(p, kCapture);
    result_of("pcap_breakloop");
}

void __wrap_pcap_freecode(struct bpf_program* prog)
{
    (void)prog;
    result_of("pcap_freecode");
}
}

namespace {

class CaptureSetup : public support::AgentTest {
  protected:
    void SetUp() override
    {
        g_calls.clear();
        g_failing.clear();
        g_script.clear();
    }

    void TearDown() override { g_now = 0; }

    // Fails at a call: one line, -1, and no further call.
    static void expect_failure(const std::string& call, const std::string& line, const Lines& calls)
    {
        g_ctx = {};
        g_calls.clear();
        g_failing = call;
        LogCapture log;
        EXPECT_EQ(pcap_setup("eth7"), -1) << call;
        EXPECT_EQ(log.lines(), Lines{line});
        EXPECT_EQ(g_calls, calls);
    }
};

class Run : public CaptureSetup {
  protected:
    void SetUp() override
    {
        CaptureSetup::SetUp();
        g_ctx.handle = kCapture;
        g_now = 1000;
    }

    static std::string running()
    {
        return "(INF)  zent is running as UID=" + std::to_string(geteuid()) +
               ", pid=" + std::to_string(getpid());
    }
};

const std::string kWaiting = "(DBG)  app_run: waiting for packets";
const std::string kIdle = "(DBG)  on_idle: doing nothing";

} // namespace

TEST_F(CaptureSetup, captures_igmp_without_promiscuous_mode_or_optimisation_and_waits_5_seconds)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(pcap_setup("eth7"), 0);
    EXPECT_EQ(g_calls, (Lines{"pcap_lookupnet", "pcap_open_live", "pcap_compile", "pcap_setfilter"}));
    EXPECT_EQ(g_ctx.handle, kCapture);
    EXPECT_EQ(log.text(), "");
}

TEST_F(CaptureSetup, kept_the_filter_program_is_not_freed)
{
    EXPECT_EQ(pcap_setup("eth7"), 0);
    EXPECT_EQ(g_calls.back(), "pcap_setfilter");
}

TEST_F(CaptureSetup, installs_the_quit_signals_even_if_it_fails_then)
{
    const auto result = support::run_in_child([this] {
        g_failing = "pcap_lookupnet";
        log.clear();
        pcap_setup("eth7");
        for (const int signum : {SIGTERM, SIGQUIT, SIGINT}) {
            struct sigaction action;
            sigaction(signum, nullptr, &action);
            if (action.sa_handler != handle_qsig) {
                return signum;
            }
        }
        return 0;
    });
    EXPECT_EQ(result.exit_code, 0);
}

TEST_F(CaptureSetup, each_failure_is_one_line_and_leaves_an_open_capture_to_the_shutdown)
{
    expect_failure("pcap_lookupnet", "(ERR)  pcap_setup: pcap_lookupnet(eth7,...) FAILED: not today",
                   {"pcap_lookupnet"});
    EXPECT_EQ(g_ctx.handle, nullptr);
    expect_failure("pcap_open_live", "(ERR)  pcap_setup: pcap_open_live(eth7, ...): FAILED: not today",
                   {"pcap_lookupnet", "pcap_open_live"});
    EXPECT_EQ(g_ctx.handle, nullptr);
    expect_failure("pcap_compile", "(ERR)  pcap_setup: pcap_compile(..,igmp,...) FAILED: not today",
                   {"pcap_lookupnet", "pcap_open_live", "pcap_compile"});
    EXPECT_EQ(g_ctx.handle, kCapture);
    expect_failure("pcap_setfilter", "(ERR)  pcap_setup: pcap_setfilter(...) FAILED: not today",
                   {"pcap_lookupnet", "pcap_open_live", "pcap_compile", "pcap_setfilter"});
    EXPECT_EQ(g_ctx.handle, kCapture);
}

TEST_F(Run, takes_packets_until_a_quit_signal_and_tells_each_turn)
{
    log.set_level(DEBUG_level);
    g_script = {{3}, {0}, {-2, true}};
    EXPECT_EQ(app_run(), 0);
    EXPECT_EQ(log.lines(), (Lines{running(), kWaiting, "(DBG)  app_run: 3 packets", kIdle, kWaiting,
                                  "(DBG)  app_run: 0 packets", kWaiting, "(INF)  app_run: ended with rc=0"}));
}

TEST_F(Run, goes_on_where_the_loop_was_broken_by_something_else)
{
    g_now = 2000;
    log.set_level(DEBUG_level);
    g_script = {{-2}, {1, true}};
    EXPECT_EQ(app_run(), 0);
    EXPECT_EQ(log.lines(), (Lines{running(), kWaiting, "(DBG)  app_run: -2 packets", kIdle, kWaiting,
                                  "(DBG)  app_run: 1 packets", "(INF)  app_run: ended with rc=0"}));
}

TEST_F(Run, ends_with_the_error_of_the_capture)
{
    log.set_level(INFO_level);
    g_script = {{-1}};
    EXPECT_EQ(app_run(), -1);
    EXPECT_EQ(log.lines(), (Lines{running(), "(ERR)  app_run: pcap_dispatch() ERROR: the wire is cut",
                                  "(INF)  app_run: ended with rc=-1"}));
}

TEST_F(Run, ends_at_once_where_the_quit_signal_came_during_the_start)
{
    log.set_level(DEBUG_level);
    g_quit = 1;
    EXPECT_EQ(app_run(), 0);
    EXPECT_EQ(g_calls, Lines{});
    EXPECT_EQ(log.lines(), (Lines{running(), "(INF)  app_run: ended with rc=0"}));
}

TEST_F(Run, idle_turn_is_told_again_after_five_whole_seconds)
{
    log.set_level(DEBUG_level);
    for (const time_t now : {3000, 3004, 3005, 3009, 3010}) {
        g_now = now;
        EXPECT_EQ(on_idle(), 0);
    }
    EXPECT_EQ(log.lines(), (Lines{kIdle, kIdle, kIdle}));
}

TEST_F(Run, quit_handler_breaks_an_open_capture_and_keeps_errno_when_it_cannot_write)
{
    const auto result = support::run_in_child([] {
        close(STDERR_FILENO);
        errno = EXDEV;
        handle_qsig(SIGTERM);
        if (errno != EXDEV || g_quit != 1 || g_calls != Lines{"pcap_breakloop"}) {
            return 1;
        }
        g_ctx.handle = nullptr;
        handle_qsig(SIGTERM);
        return g_calls.size() == 1 ? 0 : 2;
    });
    EXPECT_EQ(result.exit_code, 0);
}
