// The whole agent, main included, on a libpcap that plays a script from standard input, with a clock that the
// script steps. A script is a row of records, each a letter and a number of 32 bits, little-endian:
//   W MS          a wait of the capture begins and takes so long; the frames up to the next W come with it
//   F LENGTH ...  a frame and its bytes; what exceeds the snapshot length that the agent asked for is cut off
// Behind the last record comes SIGTERM. scripts/model_run.py writes such scripts.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

#include "wrap.h"

WRAPPED(int, clock_gettime, (clockid_t id, struct timespec* now));
WRAPPED(int, setitimer, (int which, const struct itimerval* value, struct itimerval* old));
WRAPPED(int, ifc_addr_lookup, (int family, const char* ifc, struct sockaddr* sa, socklen_t len));
WRAPPED(int, pcap_lookupnet, (const char* ifc, bpf_u_int32* net, bpf_u_int32* mask, char* errbuf));
WRAPPED(pcap_t*, pcap_open_live, (const char* ifc, int snaplen, int promisc, int ms, char* errbuf));
WRAPPED(pcap_t*, pcap_create, (const char* ifc, char* errbuf));
WRAPPED(int, pcap_set_snaplen, (pcap_t * handle, int snaplen));
WRAPPED(int, pcap_set_promisc, (pcap_t * handle, int promisc));
WRAPPED(int, pcap_set_timeout, (pcap_t * handle, int ms));
WRAPPED(int, pcap_set_immediate_mode, (pcap_t * handle, int on));
WRAPPED(int, pcap_set_buffer_size, (pcap_t * handle, int size));
WRAPPED(int, pcap_activate, (pcap_t * handle));
WRAPPED(int, pcap_compile,
        (pcap_t * handle, struct bpf_program* prog, const char* text, int optimize, bpf_u_int32 mask));
WRAPPED(int, pcap_setfilter, (pcap_t * handle, struct bpf_program* prog));
WRAPPED(int, pcap_dispatch, (pcap_t * handle, int count, pcap_handler handler, u_char* user));
WRAPPED(void, pcap_breakloop, (pcap_t * handle));
WRAPPED(void, pcap_close, (pcap_t * handle));

namespace {

const int64_t START_MS = 1'000'000; // of the monotonic clock

std::vector<u_char> g_script;
size_t g_pos = 0;
int64_t g_now_ms = START_MS;
bool g_ticks = false; // the agent has set its timer
uint32_t g_snaplen = 0;

pcap_t* handle()
{
    static char place;
    return reinterpret_cast<pcap_t*>(&place);
}

[[noreturn]] void refuse(const char* why)
{
    std::fprintf(stderr, "zent_replay: %s\n", why);
    std::_Exit(3); // no exit code of the agent
}

void read_script()
{
    u_char part[65536];
    for (size_t n = 0; (n = std::fread(part, 1, sizeof(part), stdin)) > 0;) {
        g_script.insert(g_script.end(), part, part + n);
    }
}

char next_kind()
{
    return g_pos < g_script.size() ? static_cast<char>(g_script[g_pos]) : '\0';
}

// The number of the record at hand, which is then behind us.
uint32_t take_number()
{
    if (g_script.size() - g_pos < 5) {
        refuse("the script ends within a record");
    }
    const u_char* p = &g_script[g_pos + 1];
    g_pos += 5;
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// A copy of just the captured length: a sanitizer sees a read behind it.
void deliver_frame(pcap_handler handler, u_char* user)
{
    const uint32_t len = take_number();
    if (g_script.size() - g_pos < len) {
        refuse("the script ends within a frame");
    }
    struct pcap_pkthdr head = {};
    head.len = len;
    head.caplen = std::min(len, g_snaplen);
    const std::unique_ptr<u_char[]> bytes(new u_char[head.caplen]);
    std::copy_n(g_script.data() + g_pos, head.caplen, bytes.get());
    g_pos += len;
    handler(user, &head, bytes.get());
}

} // namespace

int __wrap_clock_gettime(clockid_t id, struct timespec* now)
{
    if (id != CLOCK_MONOTONIC && id != CLOCK_MONOTONIC_COARSE && id != CLOCK_BOOTTIME) {
        return __real_clock_gettime(id, now);
    }
    now->tv_sec = static_cast<time_t>(g_now_ms / 1000);
    now->tv_nsec = static_cast<long>(g_now_ms % 1000) * 1'000'000;
    return 0;
}

int __wrap_setitimer(int, const struct itimerval* value, struct itimerval* old)
{
    if (old) {
        *old = {};
    }
    g_ticks = value->it_interval.tv_sec != 0 || value->it_interval.tv_usec != 0;
    return 0;
}

int __wrap_ifc_addr_lookup(int family, const char*, struct sockaddr* sa, socklen_t len)
{
    std::memset(sa, 0, len);
    sa->sa_family = static_cast<sa_family_t>(family);
    return 0;
}

int __wrap_pcap_lookupnet(const char*, bpf_u_int32* net, bpf_u_int32* mask, char*)
{
    *net = *mask = 0;
    return 0;
}

pcap_t* __wrap_pcap_open_live(const char*, int snaplen, int, int, char*)
{
    g_snaplen = static_cast<uint32_t>(snaplen);
    return handle();
}

pcap_t* __wrap_pcap_create(const char*, char*)
{
    return handle();
}

int __wrap_pcap_set_snaplen(pcap_t*, int snaplen)
{
    g_snaplen = static_cast<uint32_t>(snaplen);
    return 0;
}

int __wrap_pcap_set_promisc(pcap_t*, int)
{
    return 0;
}

int __wrap_pcap_set_timeout(pcap_t*, int)
{
    return 0;
}

int __wrap_pcap_set_immediate_mode(pcap_t*, int)
{
    return 0;
}

int __wrap_pcap_set_buffer_size(pcap_t*, int)
{
    return 0;
}

int __wrap_pcap_activate(pcap_t*)
{
    return 0;
}

int __wrap_pcap_compile(pcap_t*, struct bpf_program* prog, const char*, int, bpf_u_int32)
{
    *prog = {};
    return 0;
}

int __wrap_pcap_setfilter(pcap_t*, struct bpf_program*)
{
    return 0;
}

int __wrap_pcap_dispatch(pcap_t*, int, pcap_handler handler, u_char* user)
{
    if (g_script.empty()) {
        read_script();
    }
    if (next_kind() == '\0') {
        std::raise(SIGTERM);
        return -2;
    }
    if (next_kind() != 'W') {
        refuse("a wait was expected");
    }
    const uint32_t ms = take_number();
    g_now_ms += ms;
    const bool tick = g_ticks && ms >= 1000;
    if (tick) {
        std::raise(SIGALRM);
    }
    int count = 0;
    for (; next_kind() == 'F'; count++) {
        deliver_frame(handler, user);
    }
    return count == 0 && tick ? -2 : count; // as a wait that was broken
}

void __wrap_pcap_breakloop(pcap_t*) {}

void __wrap_pcap_close(pcap_t*) {}
