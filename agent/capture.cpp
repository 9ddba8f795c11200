// The capture: set-up, the run loop, and the end by a signal.
#include <cerrno>
#include <ctime>
#include <unistd.h>

#include "log.h"
#include "util.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr int kSnapLen = 8192;
constexpr const char* kFilter = "igmp";
constexpr int kBroken = -2; // pcap_dispatch() after pcap_breakloop()

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

} // namespace

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

    handle_quit_signals(handle_qsig);
    if (pcap_lookupnet(ifc_name, &net, &mask, g_ctx.errbuf) != 0) {
        log_err("%s: pcap_lookupnet(%s,...) FAILED: %s\n", __func__, ifc_name, g_ctx.errbuf);
        return -1;
    }
    g_ctx.handle = pcap_open_live(ifc_name, kSnapLen, 0, IDLE_MS, g_ctx.errbuf);
    if (g_ctx.handle == nullptr) {
        log_err("%s: pcap_open_live(%s, ...): FAILED: %s\n", __func__, ifc_name, g_ctx.errbuf);
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
    int rc = 0;
    log_info("%s is running as UID=%ld, pid=%d\n", g_appname, static_cast<long>(geteuid()), getpid());
    while (g_quit == 0 && rc == 0) {
        log_dbg("%s: waiting for packets\n", __func__);
        const int count = pcap_dispatch(g_ctx.handle, -1, on_pcap_pkt, nullptr);
        if (count == kBroken && g_quit != 0) {
            break;
        }
        if (count == -1) {
            log_err("%s: pcap_dispatch() ERROR: %s\n", __func__, pcap_geterr(g_ctx.handle));
            rc = -1;
            break;
        }
        log_dbg("%s: %d packets\n", __func__, count);
        rc = on_idle();
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
