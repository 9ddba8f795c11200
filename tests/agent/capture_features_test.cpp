// The features of the capture on a scripted libpcap: immediate mode, and the expiry of groups by a stepped
// clock.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <malloc.h>
#include <sys/time.h>
#include <unistd.h>

#include "agent_test.h"
#include "child.h"
#include "frames_v3.h"
#include "log.h"
#include "logcap.h"
#include "oom.h"
#include "tempdir.h"
#include "text.h"
#include "wrap.h"

using support::Lines;
using support::LogCapture;

namespace {

pcap_t* const kCapture = reinterpret_cast<pcap_t*>(0x10);

Lines g_calls;
std::string g_failing; // the call that fails, with g_code
int g_code = -1;
std::string g_geterr;                        // what the handle says of itself
int64_t g_ms = -1;                           // the monotonic clock; below 0: the real one
std::vector<std::function<void()>> g_script; // what happens in each wait for packets
size_t g_at = 0;

int called(const std::string& call, const std::string& name)
{
    g_calls.push_back(call);
    return !name.empty() && name == g_failing ? g_code : 0;
}

int setting(pcap_t* p, const char* name, int value)
{
    EXPECT_EQ(p, kCapture);
    return called(std::string(name) + " " + std::to_string(value), name);
}

} // namespace

WRAPPED(int, clock_gettime, (clockid_t clock, struct timespec* ts));
WRAPPED(int, setitimer, (__itimer_which_t which, const struct itimerval* value, struct itimerval* old));
WRAPPED(pcap_t*, pcap_create, (const char* device, char* errbuf));
WRAPPED(pcap_t*, pcap_open_live, (const char* device, int snaplen, int promisc, int to_ms, char* errbuf));
WRAPPED(int, pcap_set_snaplen, (pcap_t * p, int value));
WRAPPED(int, pcap_set_promisc, (pcap_t * p, int value));
WRAPPED(int, pcap_set_timeout, (pcap_t * p, int value));
WRAPPED(int, pcap_set_immediate_mode, (pcap_t * p, int value));
WRAPPED(int, pcap_set_buffer_size, (pcap_t * p, int value));
WRAPPED(int, pcap_activate, (pcap_t * p));
WRAPPED(int, pcap_lookupnet, (const char* device, bpf_u_int32* net, bpf_u_int32* mask, char* errbuf));
WRAPPED(int, pcap_compile,
        (pcap_t * p, struct bpf_program* prog, const char* text, int optimize, bpf_u_int32 mask));
WRAPPED(int, pcap_setfilter, (pcap_t * p, struct bpf_program* prog));
WRAPPED(int, pcap_dispatch, (pcap_t * p, int count, pcap_handler callback, u_char* user));
WRAPPED(char*, pcap_geterr, (pcap_t * p));
WRAPPED(void, pcap_breakloop, (pcap_t * p));
WRAPPED(void, pcap_close, (pcap_t * p));

extern "C" {
int __wrap_clock_gettime(clockid_t clock, struct timespec* ts)
{
    if (clock != CLOCK_MONOTONIC || g_ms < 0) {
        return __real_clock_gettime(clock, ts);
    }
    *ts = {g_ms / 1000, g_ms % 1000 * 1'000'000};
    return 0;
}

int __wrap_setitimer(__itimer_which_t which, const struct itimerval* value, struct itimerval* old)
{
    EXPECT_EQ(which, ITIMER_REAL);
    EXPECT_EQ(value->it_value.tv_sec, value->it_interval.tv_sec);
    EXPECT_EQ(value->it_value.tv_usec + value->it_interval.tv_usec, 0);
    EXPECT_EQ(old, nullptr);
    return called("setitimer " + std::to_string(value->it_value.tv_sec), "setitimer");
}

pcap_t* __wrap_pcap_create(const char* device, char* errbuf)
{
    snprintf(errbuf, PCAP_ERRBUF_SIZE, "not today");
    return called(std::string("pcap_create ") + device, "pcap_create") == 0 ? kCapture : nullptr;
}

pcap_t* __wrap_pcap_open_live(const char* device, int snaplen, int promisc, int to_ms, char* errbuf)
{
    (void)errbuf;
    called("pcap_open_live " + std::string(device) + " " + std::to_string(snaplen) + " " +
               std::to_string(promisc) + " " + std::to_string(to_ms),
           "");
    return kCapture;
}

int __wrap_pcap_set_snaplen(pcap_t* p, int value)
{
    return setting(p, "pcap_set_snaplen", value);
}

int __wrap_pcap_set_promisc(pcap_t* p, int value)
{
    return setting(p, "pcap_set_promisc", value);
}

int __wrap_pcap_set_timeout(pcap_t* p, int value)
{
    return setting(p, "pcap_set_timeout", value);
}

int __wrap_pcap_set_immediate_mode(pcap_t* p, int value)
{
    return setting(p, "pcap_set_immediate_mode", value);
}

int __wrap_pcap_set_buffer_size(pcap_t* p, int value)
{
    return setting(p, "pcap_set_buffer_size", value);
}

int __wrap_pcap_activate(pcap_t* p)
{
    EXPECT_EQ(p, kCapture);
    return called("pcap_activate", "pcap_activate");
}

int __wrap_pcap_lookupnet(const char* device, bpf_u_int32* net, bpf_u_int32* mask, char* errbuf)
{
    (void)errbuf;
    *net = 10;
    *mask = 0x00ffffff;
    return called(std::string("pcap_lookupnet ") + device, "");
}

int __wrap_pcap_compile(pcap_t* p, struct bpf_program* prog, const char* text, int optimize, bpf_u_int32 mask)
{
    EXPECT_EQ(p, kCapture);
    EXPECT_NE(prog, nullptr);
    return called("pcap_compile " + std::string(text) + " " + std::to_string(optimize) + " " +
                      std::to_string(mask),
                  "");
}

int __wrap_pcap_setfilter(pcap_t* p, struct bpf_program* prog)
{
    EXPECT_EQ(p, kCapture);
    EXPECT_NE(prog, nullptr);
    return called("pcap_setfilter", "");
}

int __wrap_pcap_dispatch(pcap_t* p, int count, pcap_handler callback, u_char* user)
{
    EXPECT_EQ(p, kCapture);
    EXPECT_EQ(count, g_cfg.features.immediate ? 128 : -1);
    EXPECT_EQ(callback, on_pcap_pkt);
    EXPECT_EQ(user, nullptr);
    const size_t calls = g_calls.size();
    if (g_at < g_script.size()) {
        g_script[g_at++]();
    } else {
        g_quit = 1;
        return -2;
    }
    return g_calls.size() != calls ? -2 : 1; // only a tick's breakloop is a call in a wait
}

char* __wrap_pcap_geterr(pcap_t* p)
{
    EXPECT_EQ(p, kCapture);
    return g_geterr.data();
}

void __wrap_pcap_breakloop(pcap_t* p)
{
    EXPECT_EQ(p, kCapture);
    called("pcap_breakloop", "");
}

void __wrap_pcap_close(pcap_t* p)
{
    EXPECT_EQ(p, kCapture);
    called("pcap_close", "");
}
}

namespace {

class CaptureFeatures : public support::AgentTest {
  protected:
    void SetUp() override
    {
        g_calls.clear();
        g_failing.clear();
        g_geterr.clear();
        g_script.clear();
        g_at = 0;
        g_cfg.features.any = true;
    }

    void TearDown() override { g_ms = -1; }
};

class Immediate : public CaptureFeatures {
  protected:
    void SetUp() override
    {
        CaptureFeatures::SetUp();
        g_cfg.features.immediate = true;
    }

    // The set-up with a call that gives a code: the line of the log, and the result.
    static std::string line_of(const std::string& call, int code, int result)
    {
        g_ctx = {};
        g_calls.clear();
        g_failing = call;
        g_code = code;
        LogCapture log;
        EXPECT_EQ(pcap_setup("eth7"), result) << call;
        EXPECT_EQ(log.lines().size(), 1U) << log.text();
        return log.text();
    }
};

// The agent's run with expiry after 260 s, on a clock that stands at 1000 s in the beginning.
class Expire : public CaptureFeatures {
  protected:
    void SetUp() override
    {
        CaptureFeatures::SetUp();
        g_cfg.features.expire = 260;
        g_cfg.log_level = INFO_level;
        g_ms = 1'000'000;
        ASSERT_EQ(nkht_create(&g_ctx.wgrp_ht, MAX_ZENT_CHANNELS, tw_shift), 0);
        g_ctx.handle = kCapture;
        g_ctx.rep.sockfd = -1;
        g_ctx.rep.fp = open_memstream(&text_, &length_);
    }

    void TearDown() override
    {
        fclose(g_ctx.rep.fp);
        free(text_);
        g_ctx.rep.fp = nullptr;
        app_shutdown();
        CaptureFeatures::TearDown();
    }

    static void feed(const std::vector<uint8_t>& frame)
    {
        pcap_pkthdr header = {};
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        on_pcap_pkt(nullptr, &header, frame.data());
    }

    // A group is joined, and as many seconds pass as end it at the next tick. There is a querier.
    static void pass_the_time_of_a_group()
    {
        feed(support::general_query_frame());
        feed(support::report_frame("239.1.1.1"));
        g_ms += 200'000;
        feed(support::general_query_frame());
        g_ms += 60'000;
    }

    // Steps of the script: what is heard at a second, and a tick then.
    static void at(int second, const std::vector<uint8_t>& frame, int ms = 0)
    {
        g_script.push_back([=] {
            g_ms = 1'000'000 + int64_t{second} * 1000 + ms;
            feed(frame);
        });
    }

    static void tick(int second, int ms = 0)
    {
        g_script.push_back([=] {
            g_ms = 1'000'000 + int64_t{second} * 1000 + ms;
            raise(SIGALRM);
        });
    }

    static void report(int second, const std::string& group = "239.1.1.1")
    {
        at(second, support::report_frame(group));
    }

    static void query(int second) { at(second, support::general_query_frame()); }

    // Queries as a querier sends them.
    static void query_every_125(int from, int to)
    {
        for (int second = from; second <= to; second += 125) {
            query(second);
        }
    }

    // Runs the script and gives the lines that were relayed and the states that were told, in their order.
    Lines run()
    {
        LogCapture told(INFO_level);
        EXPECT_EQ(app_run(), 0);
        EXPECT_EQ(g_at, g_script.size());
        Lines result;
        for (const std::string& line : told.lines()) {
            if (line.find("bytes output: ") != std::string::npos) {
                result.push_back(line.substr(line.find("output: ") + 8));
            } else if (line.find("expiry of groups is ") != std::string::npos) {
                result.push_back(line.substr(line.find(" is ") + 4));
            }
        }
        return result;
    }

    const std::string suspended_ = "suspended: no general query within 260 s";
    const std::string running_ = "running: a general query was heard";
    const std::string join_ = "JOIN UDP://239.1.1.1";
    const std::string leave_ = "LEAVE UDP://239.1.1.1";

    // What has left the sink's stream.
    std::string written() const { return {text_, length_}; }

  private:
    char* text_ = nullptr;
    size_t length_ = 0;
};

// The agent's run in immediate mode, with that script.
class Gathering : public Expire {
  protected:
    void SetUp() override
    {
        Expire::SetUp();
        g_cfg.features = {.any = true, .exact = false, .immediate = true, .igmpv3 = false, .expire = 0};
    }
};

} // namespace

TEST_F(Immediate, capture_is_made_step_by_step_and_gets_the_usual_filter)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(pcap_setup("eth7"), 0);
    EXPECT_EQ(g_calls,
              (Lines{"pcap_lookupnet eth7", "pcap_create eth7", "pcap_set_snaplen 2048", "pcap_set_promisc 0",
                     "pcap_set_timeout 5000", "pcap_set_immediate_mode 1", "pcap_set_buffer_size 16777216",
                     "pcap_activate", "pcap_compile igmp 0 16777215", "pcap_setfilter"}));
    EXPECT_EQ(g_ctx.handle, kCapture);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Immediate, other_features_open_the_capture_as_ever)
{
    g_cfg.features = {.any = true, .exact = true, .immediate = false, .igmpv3 = true, .expire = 60};
    EXPECT_EQ(pcap_setup("eth7"), 0);
    EXPECT_EQ(g_calls, (Lines{"pcap_lookupnet eth7", "pcap_open_live eth7 8192 0 5000",
                              "pcap_compile igmp 0 16777215", "pcap_setfilter"}));
}

TEST_F(Immediate, each_failure_is_a_line_with_the_name_of_the_call_and_stops_the_set_up)
{
    EXPECT_EQ(line_of("pcap_create", -1, -1),
              "(ERR)  pcap_setup: pcap_create(eth7, ...): FAILED: not today\n");
    EXPECT_EQ(g_ctx.handle, nullptr);
    const std::string already = pcap_statustostr(PCAP_ERROR_ACTIVATED);
    EXPECT_EQ(line_of("pcap_set_snaplen", PCAP_ERROR_ACTIVATED, -1),
              "(ERR)  pcap_setup: pcap_set_snaplen(2048) FAILED: " + already + "\n");
    EXPECT_EQ(line_of("pcap_set_promisc", PCAP_ERROR_ACTIVATED, -1),
              "(ERR)  pcap_setup: pcap_set_promisc(0) FAILED: " + already + "\n");
    EXPECT_EQ(line_of("pcap_set_timeout", PCAP_ERROR_ACTIVATED, -1),
              "(ERR)  pcap_setup: pcap_set_timeout(5000) FAILED: " + already + "\n");
    EXPECT_EQ(line_of("pcap_set_immediate_mode", PCAP_ERROR_ACTIVATED, -1),
              "(ERR)  pcap_setup: pcap_set_immediate_mode(1) FAILED: " + already + "\n");
    EXPECT_EQ(line_of("pcap_set_buffer_size", PCAP_ERROR_ACTIVATED, -1),
              "(ERR)  pcap_setup: pcap_set_buffer_size(16777216) FAILED: " + already + "\n");
    EXPECT_EQ(g_calls.back(), "pcap_set_buffer_size 16777216");
    EXPECT_EQ(g_ctx.handle, kCapture); // the shutdown closes it
}

TEST_F(Immediate, error_of_activate_is_told_with_all_that_libpcap_says)
{
    const std::string begin = "(ERR)  pcap_setup: pcap_activate(eth7): FAILED: ";
    const std::string down = pcap_statustostr(PCAP_ERROR_IFACE_NOT_UP);
    EXPECT_EQ(line_of("pcap_activate", PCAP_ERROR_IFACE_NOT_UP, -1), begin + down + "\n");
    g_geterr = "the wire is cut";
    EXPECT_EQ(line_of("pcap_activate", PCAP_ERROR, -1), begin + "the wire is cut\n");
    const std::string denied = pcap_statustostr(PCAP_ERROR_PERM_DENIED);
    EXPECT_EQ(line_of("pcap_activate", PCAP_ERROR_PERM_DENIED, -1), begin + denied + " (the wire is cut)\n");
    EXPECT_EQ(g_calls.back(), "pcap_activate");
}

TEST_F(Immediate, warning_of_activate_is_a_line_and_the_set_up_goes_on)
{
    g_geterr = "slow today";
    EXPECT_EQ(line_of("pcap_activate", PCAP_WARNING, 0),
              "(WRN)  pcap_setup: pcap_activate(eth7): slow today\n");
    EXPECT_EQ(g_calls.back(), "pcap_setfilter");
}

TEST_F(Gathering, lines_of_one_wait_are_written_together_and_before_the_next_wait)
{
    g_script.push_back([this] {
        feed(support::report_frame("239.1.1.1"));
        feed(support::report_frame("239.1.1.2"));
        EXPECT_EQ(written(), "");
    });
    g_script.push_back([this] {
        EXPECT_EQ(written(), "JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\n");
        feed(support::leave_frame("239.1.1.1"));
    });
    EXPECT_EQ(run(), (Lines{"JOIN UDP://239.1.1.1", "JOIN UDP://239.1.1.2", "LEAVE UDP://239.1.1.1"}));
    EXPECT_EQ(written(), "JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\nLEAVE UDP://239.1.1.1\n");
}

TEST_F(Gathering, lines_of_expired_groups_are_written_before_the_next_wait_too)
{
    g_cfg.features.expire = 260;
    query(0);
    report(1);
    query_every_125(125, 250);
    tick(261);
    g_script.push_back([this] { EXPECT_EQ(written(), join_ + "\n" + leave_ + "\n"); });
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, leave_}));
}

TEST_F(Gathering, lines_before_a_report_that_ends_the_process_are_written)
{
    const auto result = support::run_in_child([] {
        fclose(g_ctx.rep.fp);
        reporter_setup();
        feed(support::report_frame("239.1.1.1"));
        feed(support::report_frame("0.0.0.0"));
        return 0;
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.out, "JOIN UDP://239.1.1.1\n");
}

TEST_F(CaptureFeatures, run_tells_in_one_line_which_features_are_on)
{
    g_ctx.handle = kCapture;
    g_cfg.features = {.any = true, .exact = true, .immediate = true, .igmpv3 = true, .expire = 0};
    log.set_level(INFO_level);
    EXPECT_EQ(app_run(), 0);
    EXPECT_EQ(log.lines().size(), 3U);
    EXPECT_EQ(log.lines()[1], "(INF)  app_run: features on: exact,immediate,igmpv3");
}

TEST_F(CaptureFeatures, set_up_with_exact_makes_room_for_the_list_or_4096_groups)
{
    std::string list;
    for (int n = 0; n < 12000; ++n) {
        list += "239.3." + std::to_string(n / 250) + "." + std::to_string(n % 250) + "\n";
    }
    const support::TempDir dir;
    dir.write("list", list);
    const std::string path = dir.path("list");
    const auto slots_with = [&](bool exact, const char* list_file) {
        support::clear_agent();
        g_cfg.features.any = g_cfg.features.exact = exact;
        g_cfg.non_daemon = true;
        g_cfg.grp_list_file = list_file;
        snprintf(g_cfg.mifc, sizeof g_cfg.mifc, "eth7");
        log.clear();
        EXPECT_EQ(app_setup(), 0) << log.text();
        const size_t slots = reinterpret_cast<const size_t*>(g_ctx.wgrp_ht)[2];
        EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U);
        app_shutdown();
        if (g_ctx.scope_ht != 0) {
            nkht_destroy(g_ctx.scope_ht, nullptr);
        }
        return slots;
    };
    EXPECT_EQ(slots_with(false, nullptr), 512U);
    EXPECT_EQ(slots_with(false, path.c_str()), 512U);
    EXPECT_EQ(slots_with(true, nullptr), 4096U);
    EXPECT_EQ(slots_with(true, path.c_str()), 16384U);
}

TEST_F(CaptureFeatures, set_up_with_exact_and_no_memory_for_its_table_fails_with_12_and_a_line)
{
    g_cfg.features.exact = true;
    g_cfg.non_daemon = true;
    bool told = false;
    for (size_t n = 1; n < 20 && !told; ++n) {
        g_ctx = {};
        log.clear();
        support::FailAllocation fail(n);
        const int rc = app_setup();
        told = log.text() == "(ERR)  app_setup: failed to create channel hastable\n";
        EXPECT_EQ(told, rc == ENOMEM) << log.text();
        EXPECT_EQ(g_ctx.wgrp_ht, 0);
        app_shutdown();
    }
    EXPECT_TRUE(told);
}

TEST_F(Expire, timer_runs_only_while_the_agent_does_and_only_with_the_feature)
{
    EXPECT_EQ(run(), Lines{suspended_});
    EXPECT_EQ(g_calls, (Lines{"setitimer 1", "setitimer 0"}));
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_flags & SA_RESTART, SA_RESTART); // no write of a line is cut short
    g_calls.clear();
    g_quit = 0;
    g_cfg.features.expire = 0;
    EXPECT_EQ(run(), Lines{});
    EXPECT_EQ(g_calls, Lines{});
}

TEST_F(Expire, timer_that_cannot_be_had_ends_the_run)
{
    g_failing = "setitimer";
    g_code = -1;
    errno = EINVAL;
    EXPECT_EQ(app_run(), -1);
    EXPECT_EQ(log.text(),
              "(ERR)  expire_start: no timer for the expiry of groups: ERROR(22): Invalid argument\n");
}

TEST_F(Expire, silent_group_gets_its_leave_once)
{
    query_every_125(1, 126);
    report(130);
    query_every_125(251, 376);
    tick(389);
    tick(390);
    tick(391);
    query(501);
    tick(502);
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, leave_}));
    EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U);
}

TEST_F(Expire, leave_comes_when_the_time_is_over_and_not_before)
{
    query(1);
    report(2);
    query_every_125(126, 251);
    tick(261);
    g_script.push_back([] { EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 1U); });
    tick(262);
    g_script.push_back([] { EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U); });
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, leave_}));
}

TEST_F(Expire, thousandths_of_a_second_count_too)
{
    query(1);
    at(2, support::report_frame("239.1.1.1"), 900);
    query_every_125(126, 251);
    tick(262, 400);
    tick(262, 899);
    g_script.push_back([] { EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 1U); });
    tick(262, 900);
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, leave_}));
}

TEST_F(Expire, report_in_time_keeps_its_group)
{
    query(1);
    report(2);
    report(2, "239.1.1.2");
    query_every_125(126, 251);
    report(255);
    tick(263);
    query_every_125(376, 501);
    tick(514);
    at(514, support::leave_frame("239.1.1.1"));
    EXPECT_EQ(run(),
              (Lines{suspended_, running_, join_, "JOIN UDP://239.1.1.2", "LEAVE UDP://239.1.1.2", leave_}));
}

TEST_F(Expire, nothing_expires_before_the_first_query)
{
    report(1);
    tick(300);
    tick(100000);
    EXPECT_EQ(run(), (Lines{suspended_, join_}));
}

TEST_F(Expire, nothing_expires_once_the_queries_stop)
{
    query(1);
    report(1); // as old as the silence, at any time
    tick(260);
    tick(261);
    tick(360);
    tick(100000);
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, suspended_}));
    EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 1U);
}

TEST_F(Expire, hosts_get_their_time_when_the_queries_are_back)
{
    query(1);
    report(2);
    report(2, "239.1.1.2");
    tick(300);
    query(1000);
    tick(1001);
    report(1005, "239.1.1.2");
    query_every_125(1125, 1250);
    tick(1259);
    tick(1260);
    tick(1264);
    tick(1265);
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, "JOIN UDP://239.1.1.2", suspended_, running_, leave_,
                            "LEAVE UDP://239.1.1.2"}));
}

TEST_F(Expire, silence_is_noticed_by_the_query_that_ends_it_where_no_tick_came)
{
    query(1);
    report(2);
    query(262);
    tick(300);
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, suspended_, running_}));
    EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 1U);
}

TEST_F(Expire, only_whole_general_queries_count)
{
    at(1, support::igmp_frame({.type = 17, .group = "239.1.1.1"}));
    at(2, support::igmp_frame({.type = 17, .group = "0.0.0.0", .cut = 41}));
    at(3, support::igmp_frame({.type = 18, .group = "0.0.0.1"}));
    auto fragment = support::general_query_frame();
    fragment[14 + 7] = 1;
    at(4, fragment);
    EXPECT_EQ(run(), (Lines{suspended_, "JOIN UDP://0.0.0.1"}));
}

TEST_F(Expire, queries_count_though_they_are_out_of_scope_or_of_no_group)
{
    g_cfg.min_group = 0xe0000100;
    g_cfg.features.exact = true;
    query(1);
    EXPECT_EQ(run(), (Lines{suspended_, running_}));
}

TEST_F(Expire, every_kind_of_report_keeps_a_group)
{
    g_cfg.features.igmpv3 = true;
    query(1);
    report(2);
    query(126);
    at(200, support::v3_frame({{IGMP3_MODE_IS_INCLUDE, "239.1.1.1", 2}}));
    query(251);
    tick(400);
    at(410, support::igmp_frame({.type = 18, .group = "239.1.1.1"}));
    query_every_125(376, 501);
    tick(620);
    query(626);
    tick(669);
    tick(670);
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_, leave_}));
}

TEST_F(Expire, many_groups_end_at_once_and_their_keys_are_those_of_the_table)
{
    for (const bool exact : {true, false}) {
        g_quit = 0;
        g_script.clear();
        g_at = 0;
        g_cfg.features.exact = exact;
        query(1);
        for (int n = 0; n < 300; ++n) {
            // Without exact, last octets below 128: the usual tables find such groups again.
            report(2, "239.4." + std::to_string(n / 100) + "." + std::to_string(n % 100 + (exact ? 100 : 0)));
        }
        query_every_125(126, 251);
        tick(262);
        const Lines lines = run();
        EXPECT_EQ(lines.size(), 602U);
        EXPECT_EQ(
            std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.starts_with("LEAVE UDP://239.4."); }),
            300);
        EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U);
    }
}

TEST_F(Expire, groups_are_looked_at_once_a_second_only)
{
    query(1);
    report(2);
    query_every_125(126, 251);
    query(262); // the time is over, but no second has been told
    EXPECT_EQ(run(), (Lines{suspended_, running_, join_}));
}

TEST_F(Expire, lack_of_memory_for_a_report_is_a_line_and_no_join)
{
    for (const size_t n : {1U, 2U}) {
        log.clear();
        {
            const support::FailAllocation fail(n);
            feed(support::report_frame("239.1.1.1"));
        }
        EXPECT_EQ(log.text(), "(ERR)  on_pcap_pkt: error adding group 10101ef\n");
        EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U);
    }
}

TEST_F(Expire, tick_breaks_the_wait_where_there_is_one)
{
    ASSERT_EQ(expire_start(), 0);
    g_calls.clear();
    raise(SIGALRM);
    EXPECT_EQ(g_calls.size(), 1U) << "pcap_breakloop";
    g_ctx.handle = nullptr;
    raise(SIGALRM);
    EXPECT_EQ(g_calls.size(), 1U);
    g_ctx.handle = kCapture;
}

TEST_F(Expire, groups_that_have_ended_keep_no_memory)
{
    ASSERT_EQ(expire_start(), 0);
    log.set_level(ERR_level);
    FILE* const lines = g_ctx.rep.fp;
    g_ctx.rep.fp = fopen("/dev/null", "w");
    const auto join_and_end = [] {
        pass_the_time_of_a_group();
        raise(SIGALRM);
        expire_groups();
        return nkht_count(g_ctx.wgrp_ht);
    };
    ASSERT_EQ(join_and_end(), 0U); // the stream's buffer is made here
    g_calls.clear();
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        join_and_end();
        g_calls.clear();
    }
    EXPECT_LE(mallinfo2().uordblks, before + 1024); // the calls that the test notes have a block or two
    fclose(g_ctx.rep.fp);
    g_ctx.rep.fp = lines;
}

TEST_F(Expire, group_that_ends_is_told_at_debug_level)
{
    ASSERT_EQ(expire_start(), 0);
    pass_the_time_of_a_group();
    log.set_level(DEBUG_level);
    raise(SIGALRM);
    expire_groups();
    EXPECT_NE(log.text().find("(DBG)  expire_groups: no report of 239.1.1.1 for " +
                              std::to_string(g_cfg.features.expire) + " s\n"),
              std::string::npos)
        << log.text();
}

TEST_F(Expire, lack_of_memory_for_the_keys_is_a_line_and_the_next_second_makes_up_for_it)
{
    ASSERT_EQ(expire_start(), 0);
    pass_the_time_of_a_group();
    log.clear();
    {
        raise(SIGALRM);
        const support::FailAllocation fail(1);
        expire_groups();
    }
    EXPECT_EQ(log.text(), "(ERR)  expire_groups: no memory to expire 1 groups, trying again\n");
    EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 1U);
    raise(SIGALRM);
    expire_groups();
    EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U);
}
