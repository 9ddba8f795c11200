// The index fed from real UDP streams through the event loop, and asked for what the test has written down
// itself.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "detail/owned.h"
#include "dgram.h"
#include "dstream.h"
#include "fixtures.h"
#include "mpegts.h"
#include "rqs.h"
#include "streams.h"
#include "util.h"

using support::Buffer;

namespace {

constexpr u_long kTimeOut = 1000; // of a sequence, milliseconds
constexpr long kSlot = 100;

// What is known of one datagram without the index.
struct Arrival {
    off_t offset;
    size_t len;
    size_t packets;
    ssize_t dseq;
    timespec loop; // the loop's time
    timespec from; // the clock before and after it was entered
    timespec till;
};

long long ns(const timespec& tms)
{
    return tms.tv_sec * 1'000'000'000LL + tms.tv_nsec;
}

timespec clock_now()
{
    timespec tms;
    clock_gettime(CLOCK_MONOTONIC, &tms);
    return tms;
}

// A daemon in small: a socket, a store, and the index of the store. The loop knows it by the tag in front.
struct Daemon {
    n32_tag tag = {{'u', 'd', 'p', 0}};
    mv::OwnedFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    int port = 0;
    Buffer store = Buffer(4 << 20, 0);
    off_t end = 0;
    dgram_idx* di = mk_dgram_idx(8, kTimeOut);
    std::vector<Arrival> arrivals;
    bool counts = false; // whether segments are given with their count of transport packets
    timespec started = clock_now();
    std::function<bool()> idle; // what is done once a cycle; true ends the loop

    Daemon()
    {
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(sin);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&sin), sizeof(sin)), 0);
        EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sin), &length), 0);
        port = ntohs(sin.sin_port);
        const int room = 4 << 20;
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
    }

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    ~Daemon() { free_dgram_idx(di); }

    const dgram_seq& seq(size_t index) const { return static_cast<dgram_seq*>(di->seq.data)[index]; }

    // Receives one datagram to the end of the store and enters it.
    bool take()
    {
        const ssize_t n = recv(fd.get(), store.data() + end, 65536, 0);
        if (n < 0) {
            return false;
        }
        Arrival one = {end,
                       static_cast<size_t>(n),
                       counts ? static_cast<size_t>(n) / 188 : 1,
                       -1,
                       rqs_now(),
                       clock_now(),
                       {}};
        one.dseq = counts ? dgram_add_count(di, one.len, one.packets, store.data(), end)
                          : dgram_add(di, one.len, store.data(), end);
        one.till = clock_now();
        arrivals.push_back(one);
        end += n;
        return true;
    }
};

Daemon* the_daemon = nullptr;

int on_read(int, int, void* udata, void*)
{
    static_cast<Daemon*>(udata)->take();
    return 0;
}

int on_unexpected(int, int, void*, void*)
{
    ADD_FAILURE() << "neither writing nor an error was expected";
    return 1;
}

void on_update_tmout(timespec* tmout)
{
    *tmout = {0, 2'000'000};
}

int on_idle()
{
    EXPECT_LT(clock_now().tv_sec - the_daemon->started.tv_sec, support::kLimit.count())
        << "the stream does not come";
    if (testing::Test::HasFailure() || the_daemon->idle()) {
        g_quit = 1;
    }
    return 0;
}

// Runs the loop until the daemon's idle function ends it.
void run_loop(Daemon& daemon)
{
    the_daemon = &daemon;
    g_quit = 0;
    rqs_config cfg = {};
    cfg.cb.update_tmout = on_update_tmout;
    cfg.cb.on_idle = on_idle;
    cfg.cb.read = on_read;
    cfg.cb.write = on_unexpected;
    cfg.cb.error = on_unexpected;
    ASSERT_EQ(rqs_init(&cfg), 0);
    EXPECT_EQ(rqs_add_reader(daemon.fd.get(), &daemon), 0);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(rqs_rm_fd(daemon.fd.get(), true, false), 0);
    rqs_destroy();
}

// Asks for the time of each packet that arrived, and holds it against what was written down.
void check_times(const Daemon& daemon)
{
    std::vector<const Arrival*> by_packet; // of the present sequence
    for (size_t i = 0; i < daemon.arrivals.size(); ++i) {
        const Arrival& one = daemon.arrivals[i];
        if (i > 0 && one.dseq != daemon.arrivals[i - 1].dseq) {
            by_packet.clear();
        }
        const auto dseq = static_cast<size_t>(one.dseq);
        const dgram_seq& seq = daemon.seq(dseq);
        const long long start = ns(seq.first_io);
        for (size_t j = 0; j < one.packets; ++j) {
            const size_t k = by_packet.size();
            by_packet.push_back(&one);
            const auto offset = one.offset + static_cast<off_t>(j * seq.pkt_size);
            const ssize_t asked = j % 2 == 0 ? dgram_find_seq(daemon.di, -1, offset + 1) : one.dseq;
            ASSERT_EQ(asked, one.dseq);
            const long long told = ns(dgram_calc_time(daemon.di, asked, offset + 1));
            if (k == 0) {
                EXPECT_EQ(told, ns(one.loop)) << "first packet of sequence " << dseq;
            } else if (k + 1 == seq.count) {
                EXPECT_EQ(told, ns(seq.last_io)) << "last packet of sequence " << dseq;
                EXPECT_GE(told, ns(one.loop));
            } else {
                const long long low = (ns(by_packet[k - 1]->from) - start) / 1'000'000 / kSlot;
                const long long high = (ns(one.till) - start) / 1'000'000 / kSlot + 1;
                EXPECT_GE(told - start, low * kSlot * 1'000'000) << "packet " << k;
                EXPECT_LE(told - start, high * kSlot * 1'000'000) << "packet " << k;
            }
        }
    }
}

} // namespace

class DgramLoop : public support::GuardedTest {};

TEST_F(DgramLoop, raw_datagrams_have_the_times_of_their_arrival)
{
    log.set_level(ERR_level);
    constexpr size_t kDatagrams = 300;
    Daemon daemon;
    const mv::OwnedFd sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(daemon.port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const Buffer bytes(1400, 0x11);
    size_t sent = 0;
    long long next = 0;
    daemon.idle = [&] {
        if (sent < kDatagrams && ns(clock_now()) >= next) {
            const size_t len = sent % 100 < 60 ? 1316 : 1200;
            EXPECT_EQ(sendto(sender.get(), bytes.data(), len, 0, reinterpret_cast<const sockaddr*>(&to),
                             sizeof(to)),
                      static_cast<ssize_t>(len));
            ++sent;
            next = ns(clock_now()) + 2'000'000;
        }
        return daemon.arrivals.size() == kDatagrams;
    };
    run_loop(daemon);
    ASSERT_EQ(daemon.arrivals.size(), kDatagrams);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(daemon.di->stype.num, STY_RAW.num);
    EXPECT_GE(daemon.di->seq.len, 6U) << "one at each change of length";
    check_times(daemon);
    for (size_t i = 0; i < daemon.arrivals.size(); ++i) {
        const Arrival& one = daemon.arrivals[i];
        const bool first = i == 0 || daemon.arrivals[i - 1].dseq != one.dseq;
        const bool last = i + 1 == daemon.arrivals.size() || daemon.arrivals[i + 1].dseq != one.dseq;
        if (first) {
            EXPECT_EQ(first_dseq_offset(daemon.di, one.dseq), one.offset);
        }
        if (last) {
            EXPECT_EQ(last_dseq_offset(daemon.di, one.dseq), one.offset);
        }
    }
    const timespec now = rqs_now();
    EXPECT_EQ(ns(dgram_calc_time(daemon.di, 0, daemon.end)), ns(now));
}

TEST_F(DgramLoop, transport_stream_of_a_real_sender)
{
    if (const std::string reason = support::streams_missing(); !reason.empty()) {
        GTEST_SKIP() << "skipped: " << reason;
    }
    const std::string stream = support::stream_188("mpeg2video");
    log.set_level(ERR_level);
    Daemon daemon;
    daemon.counts = true;
    {
        support::Process sender({"/usr/bin/ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-i", stream,
                                 "-c", "copy", "-f", "mpegts",
                                 "udp://127.0.0.1:" + std::to_string(daemon.port) + "?pkt_size=1316"});
        daemon.idle = [&] {
            siginfo_t info = {};
            waitid(P_PID, static_cast<id_t>(sender.pid()), &info, WEXITED | WNOHANG | WNOWAIT);
            if (info.si_pid == 0) {
                return false;
            }
            while (daemon.take()) { // all that it has sent lies in the socket
            }
            return true;
        };
        run_loop(daemon);
        const auto result = sender.wait();
        EXPECT_EQ(result.exit_code, 0) << result.err;
    }
    ASSERT_GT(daemon.arrivals.size(), 20U);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(daemon.di->stype.num, STY_MPEGTS.num);
    check_times(daemon);

    // Entry points: the first table of each sequence, and the first one of the newest segment that holds one.
    std::vector<off_t> first(daemon.di->seq.len, -1);
    std::vector<off_t> last(daemon.di->seq.len, -1);
    std::vector<off_t> start(daemon.di->seq.len, -1);
    std::vector<off_t> end(daemon.di->seq.len, -1);
    size_t tables = 0;
    for (const Arrival& one : daemon.arrivals) {
        const auto dseq = static_cast<size_t>(one.dseq);
        start[dseq] = start[dseq] < 0 ? one.offset : start[dseq];
        end[dseq] = one.offset + static_cast<off_t>(one.len);
        bool seen = false;
        for (size_t pos = 0; pos < one.len; pos += 188) {
            const uint8_t* b = daemon.store.data() + one.offset + pos;
            if (ts_pid(b) == 0 && ts_payload_start(b) != 0 && !seen) {
                seen = true;
                ++tables;
                last[dseq] = one.offset + static_cast<off_t>(pos);
                first[dseq] = first[dseq] < 0 ? last[dseq] : first[dseq];
            }
        }
    }
    EXPECT_GT(tables, 5U) << "a table every 100 ms";
    for (size_t i = 0; i < first.size(); ++i) {
        const auto dseq = static_cast<ssize_t>(i);
        EXPECT_EQ(first_dseq_offset(daemon.di, dseq), first[i] >= 0 ? first[i] : start[i]);
        EXPECT_EQ(last_dseq_offset(daemon.di, dseq), last[i] >= 0 ? last[i] : end[i] - 188);
    }
    EXPECT_EQ(ns(dgram_calc_time(daemon.di, 0, daemon.end)), ns(rqs_now()));
}
