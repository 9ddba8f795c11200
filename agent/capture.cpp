// The capture: set-up, the run loop, and the end by a signal.
#include <cerrno>
#include <ctime>
#include <unistd.h>

#include "log.h"
#include "util.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr const char* kSetUp = "pcap_setup"; // its stages speak for it
constexpr int kSnapLen = 8192;
constexpr const char* kFilter = "igmp";
constexpr int kBroken = -2; // pcap_dispatch() after pcap_breakloop()
constexpr int kWholeBuffer = -1;
constexpr int kAtOnce = 128; // packets in immediate mode, between two writes of what they change

// The pattern with the number in place of its "%d", by hand: nothing of stdio may run in a handler.
size_t signal_text(const char* pattern, int signo, char (&text)[32])
{
    size_t length = 0;
    for (const char* from = pattern; *from != 0; ++from) {
        if (*from != '%') {
            text[length++] = *from;
            continue;
        }
        ++from;
        if (signo >= 10) {
            text[length++] = static_cast<char>('0' + signo / 10);
        }
        text[length++] = static_cast<char>('0' + signo % 10);
    }
    return length;
}

// The one call of the default mode; packets wait in the kernel for up to IDLE_MS.
int open_live(const char* ifc_name)
{
    g_ctx.handle = pcap_open_live(ifc_name, kSnapLen, 0, IDLE_MS, g_ctx.errbuf);
    if (g_ctx.handle == nullptr) {
        log_err("%s: pcap_open_live(%s, ...): FAILED: %s\n", kSetUp, ifc_name, g_ctx.errbuf);
        return -1;
    }
    return 0;
}

// What a capture in immediate mode is made of. Its buffer has slots of the snapshot's length: with 8192 and
// the default size there would be some 250 of them, with these there are some 7,900.
struct Setting {
    const char* call;
    int (*set)(pcap_t* handle, int value);
    int value;
};

constexpr Setting kImmediate[] = {
    {"pcap_set_snaplen", pcap_set_snaplen, 2048},
    {"pcap_set_promisc", pcap_set_promisc, 0},
    {"pcap_set_timeout", pcap_set_timeout, IDLE_MS},
    {"pcap_set_immediate_mode", pcap_set_immediate_mode, 1},
    {"pcap_set_buffer_size", pcap_set_buffer_size, 16 * 1024 * 1024},
};

// What libpcap has to say about a result, in g_ctx.errbuf: the code's text, the handle's own, or both.
const char* reason_of(int code)
{
    const char* own = pcap_geterr(g_ctx.handle);
    if (code == PCAP_ERROR || code == PCAP_WARNING) {
        return own;
    }
    const char* general = pcap_statustostr(code);
    if (own[0] == 0) {
        return general;
    }
    snprintf(g_ctx.errbuf, sizeof g_ctx.errbuf, "%s (%s)", general, own);
    return g_ctx.errbuf;
}

// Below 0 the capture does not run; above 0 it does, and what libpcap warns of is told.
int activate(const char* ifc_name)
{
    const int rc = pcap_activate(g_ctx.handle);
    if (rc < 0) {
        log_err("%s: pcap_activate(%s): FAILED: %s\n", kSetUp, ifc_name, reason_of(rc));
        return -1;
    }
    if (rc > 0) {
        log_warn("%s: pcap_activate(%s): %s\n", kSetUp, ifc_name, reason_of(rc));
    }
    return 0;
}

int open_immediate(const char* ifc_name)
{
    g_ctx.handle = pcap_create(ifc_name, g_ctx.errbuf);
    if (g_ctx.handle == nullptr) {
        log_err("%s: pcap_create(%s, ...): FAILED: %s\n", kSetUp, ifc_name, g_ctx.errbuf);
        return -1;
    }
    for (const Setting& setting : kImmediate) {
        const int rc = setting.set(g_ctx.handle, setting.value);
        if (rc != 0) {
            log_err("%s: %s(%d) FAILED: %s\n", kSetUp, setting.call, setting.value, reason_of(rc));
            return -1;
        }
    }
    return activate(ifc_name);
}

// Takes packets until g_quit or an error, which is -1.
int take_packets(const char* caller)
{
    const int at_once = g_cfg.features.immediate ? kAtOnce : kWholeBuffer;
    int rc = 0;
    while (g_quit == 0 && rc == 0) {
        log_dbg("%s: waiting for packets\n", caller);
        // Before the wait, which may be long: a line that was made does not sit in a buffer meanwhile.
        relay_flush();
        const int count = pcap_dispatch(g_ctx.handle, at_once, on_pcap_pkt, nullptr);
        // Broken off by the timer of the expiry instead, it goes on below.
        if (count == kBroken && g_quit != 0) {
            break;
        }
        if (count == -1) {
            log_err("%s: pcap_dispatch() ERROR: %s\n", caller, pcap_geterr(g_ctx.handle));
            rc = -1;
            break;
        }
        log_dbg("%s: %d packets\n", caller, count);
        if (g_cfg.features.expire != 0) {
            expire_groups();
        }
        rc = on_idle();
    }
    relay_flush();
    return rc;
}

} // namespace

// Calls only what a handler may. A wait that has not begun ends at once, too: libpcap keeps the break.
void handle_qsig(int signo)
{
    const int saved = errno;
    char text[32];
    const size_t length = signal_text("\nSIG(%d)\n", signo, text);
    // Nothing can be done about a failure here.
    [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, text, length);
    g_quit = 1;
    if (g_ctx.handle != nullptr) {
        pcap_breakloop(g_ctx.handle);
    }
    errno = saved;
}

int pcap_setup(const char* ifc_name)
{
    bpf_u_int32 net = 0;
    bpf_u_int32 mask = 0;
    // Kept: the compiled program is not freed; it lives as long as the process does.
    static struct bpf_program prog;

    // First, so that a signal during a slow set-up is not lost.
    handle_quit_signals(handle_qsig);
    if (pcap_lookupnet(ifc_name, &net, &mask, g_ctx.errbuf) != 0) {
        log_err("%s: pcap_lookupnet(%s,...) FAILED: %s\n", __func__, ifc_name, g_ctx.errbuf);
        return -1;
    }
    if ((g_cfg.features.immediate ? open_immediate(ifc_name) : open_live(ifc_name)) != 0) {
        return -1;
    }
    if (pcap_compile(g_ctx.handle, &prog, kFilter, 0, mask) != 0) {
        log_err("%s: pcap_compile(..,%s,...) FAILED: %s\n", __func__, kFilter, g_ctx.errbuf);
        return -1;
    }
    if (pcap_setfilter(g_ctx.handle, &prog) != 0) {
        log_err("%s: pcap_setfilter(...) FAILED: %s\n", __func__, g_ctx.errbuf);
        return -1;
    }
    return 0;
}

int app_run()
{
    log_info("%s is running as UID=%ld, pid=%d\n", g_appname, static_cast<long>(geteuid()), getpid());
    if (g_cfg.features.any) {
        log_info("%s: features on: %s\n", __func__, features_text(&g_cfg.features));
    }
    const bool expires = g_cfg.features.expire != 0;
    int rc = expires ? expire_start() : 0;
    if (rc == 0) {
        rc = take_packets(__func__);
    }
    if (expires) {
        expire_stop();
    }
    log_info("%s: ended with rc=%d\n", __func__, rc);
    return rc;
}

int on_idle()
{
    static time_t last_tm = 0;
    const time_t now = time(nullptr);
    if ((now - last_tm) * 1000 < IDLE_MS) {
        return 0;
    }
    last_tm = now;
    log_dbg("%s: doing nothing\n", __func__);
    return 0;
}
