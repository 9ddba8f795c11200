// The way out: one line per change, to a stream or as a datagram to the relay.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <sys/socket.h>

#include "log.h"
#include "strops.h"
#include "syswrap.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr const char* kRelay = "relay_msg"; // its stages speak for it
constexpr int kMsgMax = 128;

// With the feature immediate: lines whose packets came together leave by one write. A pipe takes so much as a
// whole, so that no line is ever seen in part.
char g_gathered[PIPE_BUF];
size_t g_gathered_length = 0;

// Gathered lines stand in the stream's own buffer: what fails in a write is then treated as in a stream that
// is flushed by each line.
void make_room(size_t length)
{
    if (g_gathered_length + length > sizeof g_gathered) {
        relay_flush();
    }
    g_gathered_length += length;
}

void send_to_stream(char* msg, int length)
{
    if (g_cfg.features.immediate) [[unlikely]] {
        make_room(static_cast<size_t>(length));
    }
    fputs(msg, g_ctx.rep.fp);
    chomp(msg);
    log_norm("%s: %d bytes output: %s\n", kRelay, length, msg);
}

// Never waits: where the socket's buffer is full the line is lost, and packets are taken in time.
void send_to_relay(char* msg, int length)
{
    const struct socket_spec& to = g_ctx.rep.usock.sspec;
    const ssize_t sent = W_sendto(kRelay, g_ctx.rep.sockfd, msg, static_cast<size_t>(length), MSG_DONTWAIT,
                                  reinterpret_cast<const struct sockaddr*>(&to.addr_ss), to.addr_len);
    if (sent == length) {
        chomp(msg);
        log_norm("%s: %d bytes sent: %s\n", kRelay, length, msg);
    } else {
        log_err("%s: failed to relay: %s\n", kRelay, msg);
    }
}

} // namespace

int reporter_setup()
{
    g_ctx.rep = {};
    g_ctx.rep.sockfd = -1;
    if (g_cfg.report_url[0] == 0) {
        g_ctx.rep.fp = stdout;
        log_dbg("%s: reporting to STDOUT\n", __func__);
        if (g_cfg.features.immediate) {
            setvbuf(stdout, g_gathered, _IOFBF, sizeof g_gathered);
        } else {
            setlinebuf(stdout);
        }
        return 0;
    }
    g_ctx.rep.usock.inbound = false;
    g_ctx.rep.usock.non_blocking = true;
    g_ctx.rep.sockfd = usock_open(g_cfg.report_url, &g_ctx.rep.usock);
    if (g_ctx.rep.sockfd == -1) {
        log_err("%s: failed to open [%s]\n", __func__, g_cfg.report_url);
        return -1;
    }
    log_dbg("%s: reporting to %s\n", __func__, g_cfg.report_url);
    return 0;
}

void relay_msg(const char* fmt, ...)
{
    log_dbg("%s: BEGIN\n", __func__);
    // Kept: descriptor 0 counts as no sink.
    if (g_ctx.rep.fp == nullptr && g_ctx.rep.sockfd <= 0) {
        return;
    }
    char msg[kMsgMax] = "";
    va_list args;
    va_start(args, fmt);
    const int n = quick_vsnprintf(msg, kMsgMax - 1, fmt, args); // Kept: a text of 127 passes, cut by one
    va_end(args);
    if (n <= 0 || n > kMsgMax - 1) {
        log_err("%s: not enough buffer space\n", __func__);
    } else if (g_ctx.rep.fp != nullptr) {
        send_to_stream(msg, n);
    } else {
        send_to_relay(msg, n);
    }
    log_dbg("%s: END\n", __func__);
}

void relay_flush()
{
    if (g_gathered_length > 0) {
        g_gathered_length = 0;
        fflush(g_ctx.rep.fp);
    }
}
