/* One program in C that calls every module of the library: the headers are C, and so are the calls. */
#include <arpa/inet.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "clk.h"
#include "dgram.h"
#include "dstream.h"
#include "fdio.h"
#include "fdrec.h"
#include "gkh.h"
#include "ktime.h"
#include "libmeta.h"
#include "log.h"
#include "mpegts.h"
#include "mvtypes.h"
#include "netops.h"
#include "prfm.h"
#include "psensor.h"
#include "rqs.h"
#include "rtp.h"
#include "rusage_ops.h"
#include "sigsafe.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmr.h"
#include "uri.h"
#include "util.h"
#include "webops.h"
#include "wopen.h"
#include "xvdat.h"

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;

static int g_failures = 0;

static void check(int holds, const char* what, int line)
{
    if (!holds) {
        fprintf(stderr, "line %d: %s does not hold\n", line, what);
        ++g_failures;
    }
}

#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

MV_PRINTF(3, 4) static int quickly(char* buf, size_t len, const char* fmt, ...)
{
    va_list args;
    int n;

    va_start(args, fmt);
    n = quick_vsnprintf(buf, len, fmt, args);
    va_end(args);
    return n;
}

static void texts_and_tables(void)
{
    char text[64] = "line\r\n";
    ssize_t size = 0;
    nkht_t numbers = 0;
    void* value = text;
    struct uri_layout layout;
    char seconds[64];

    chomp(text);
    CHECK(strcmp(text, "line") == 0);
    CHECK(quickly(text, sizeof text, "%s %d", "group", 5) == 7 && strcmp(text, "group 5") == 0);
    CHECK(a2size("2K", &size) == 0 && size == 2048);
    CHECK(nkht_create(&numbers, 16, tw_shift) == 0);
    CHECK(nkht_add(numbers, 7, &value) == 0 && nkht_count(numbers) == 1);
    nkht_destroy(numbers, NULL);
    CHECK(uri_parse("udp://239.1.1.1:5000", &layout) == 0 && layout.s_len == 3);
    CHECK(mk_timespan(59, seconds, sizeof seconds) == 0 && strcmp(seconds, "00h:00m:59s") == 0);
    CHECK(strcmp(get_base("/usr/bin/tool"), "tool") == 0);
    CHECK(strncmp(lbmvn_info(), "libmvn/1.0", 10) == 0);
}

static void containers(void)
{
    struct xvlst list = NULL_xvlst;
    CHECK(xvlst_add(&list, sizeof(int), 8) == 0);
    CHECK(xvlst_add(&list, sizeof(int), 8) == 1);
    CHECK(xvlst_del(&list, 0, NULL) == 0 && list.len == 1);
    struct xvlst_walk walk = {0, 0};
    CHECK(xvlst_next(&list, &walk) == 1 && xvlst_next(&list, &walk) == -1);
    xvlst_reset(&list);
}

static void clocks_and_sensors(void)
{
    struct timespec first;
    struct timespec second;
    struct timespec span;
    struct prfm probe;
    struct rusage usage;

    set_clk_now(&first, FAST_MONOTONIC_CLOCK);
    set_clk_now(&second, FAST_MONOTONIC_CLOCK);
    calc_timespan(&first, &second, &span);
    CHECK(span.tv_sec >= 0 && timespeccmp(&first, &second, <=));
    prfm_tm_init(&probe);
    prfm_start(&probe);
    prfm_stop(&probe);
    prfm_destroy(&probe);
    rusage_clear(&usage);
    CHECK(usage.ru_maxrss == 0);
    CHECK(psensors_init(NULL, 0) == 0);
    psensor_start(PRF_APP);
    psensor_stop(PRF_APP);
    psensors_destroy();
}

static void sockets_and_transfer(void)
{
    int pair[2];
    char answer[8] = "";
    struct usock_ctx url;
    struct fdrec* record = alloc_fdrec();
    struct http_response* found = match_http_response(404);
    const char request[] = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
    const char* at = request;
    const char* end = request + sizeof request - 1;
    struct web_request_line line;
    struct web_field field;
    int fd = -1;

    CHECK(strcmp(af_name(AF_INET), af_name(AF_INET6)) != 0);
    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
    CHECK(nwrite(pair[0], "hello", 5, 0) == 5);
    CHECK(nread(pair[1], answer, 5, 0) == 5 && strcmp(answer, "hello") == 0);
    CHECK(Close(pair[0]) == 0 && Close(pair[1]) == 0);
    CHECK(fdio_init(0) == 0);
    fdio_destroy();

    memset(&url, 0, sizeof url);
    fd = usock_open("udp://127.0.0.1:9", &url);
    CHECK(fd >= 0);
    usock_close(fd, &url);

    CHECK(record != NULL);
    free_fdrec(record);
    CHECK(found != NULL && found->code == 404);
    CHECK(web_read_request_line(&at, end, &line) == 0 && line.target_len == 1);
    CHECK(web_read_field(&at, end, &field) == 0 && field.value_len == 1);
    CHECK(web_read_field(&at, end, &field) == 1 && at == end);
}

static void streams(void)
{
    uint8_t packets[7 * 188];
    size_t length = 0;
    size_t count = 0;
    struct dgram_idx* index = mk_dgram_idx(8, 1000);

    memset(packets, 0xff, sizeof packets);
    for (size_t i = 0; i < 7; ++i) {
        packets[i * 188] = MPEG_TS_SYNC;
    }
    CHECK(ts_probe(packets, sizeof packets, true) == 188);
    CHECK(rtp_header_len(packets, sizeof packets) != 12);
    CHECK(probe_segment(packets, sizeof packets, 0, &length, &count, NULL) != 0 && length == 188 &&
          count == 7);
    CHECK(index != NULL);
    free_dgram_idx(index);
}

/* What a reader is registered with: the loop reads the tag, and only the record knows the descriptor. */
struct byte_reader {
    union n32_tag tag;
    int fd;
    char byte;
};

static int read_byte(int fd, int fd_err, void* udata, void* aux)
{
    struct byte_reader* reader = udata;
    (void)fd;
    (void)fd_err;
    (void)aux;
    CHECK(read(reader->fd, &reader->byte, 1) == 1);
    return rqs_rm_fd(reader->fd, true, false);
}

static int no_event(int fd, int fd_err, void* udata, void* aux)
{
    (void)fd;
    (void)fd_err;
    (void)udata;
    (void)aux;
    return 0;
}

/* A reader that takes one byte and goes: the loop ends by itself when nothing is left to wait for. */
static void event_loop(void)
{
    struct rqs_config config;
    int ends[2];
    struct byte_reader reader = {{"rdr"}, -1, 0};

    memset(&config, 0, sizeof config);
    config.cb.read = read_byte;
    config.cb.write = no_event;
    config.cb.error = no_event;
    config.quit_on_zero_fds = 1;
    CHECK(rqs_init(&config) == 0);
    CHECK(Pipe(ends) == 0);
    reader.fd = ends[0];
    CHECK(rqs_add_reader(reader.fd, &reader) == 0);
    CHECK(Write_f(ends[1], "x", 1, 1) == 1);
    CHECK(rqs_event_loop() == 0);
    CHECK(reader.byte == 'x');
    rqs_destroy();
    CHECK(Close(ends[0]) == 0 && Close(ends[1]) == 0);
}

static void end_loop(struct tmr* t, void* udata)
{
    (void)t;
    (void)udata;
    sigsafe_wake();
}

static int end_when_woken(int fd, int fd_err, void* udata, void* aux)
{
    (void)fd;
    (void)fd_err;
    (void)aux;
    return sigsafe_is_wakeup(udata) ? rqs_fd_count(GET_POLLFDS) : 0;
}

/* A timer wakes the loop as a signal handler would; the read that follows ends it. */
static void timer_and_wakeup(void)
{
    struct rqs_config config;
    struct tmr timer = NULL_tmr;
    const struct timespec soon = {0, 1000000};

    memset(&config, 0, sizeof config);
    config.cb.update_tmout = tmr_update_tmout;
    config.cb.time_out = tmr_time_out;
    config.cb.read = end_when_woken;
    config.cb.write = no_event;
    config.cb.error = no_event;
    CHECK(rqs_init(&config) == 0);
    CHECK(sigsafe_open() == 0);
    CHECK(tmr_add(&timer, &soon, NULL, end_loop, NULL) == 0);
    CHECK(tmr_pending(&timer) && tmr_count() == 1);
    CHECK(rqs_event_loop() == 1);
    CHECK(!tmr_pending(&timer));
    tmr_reset();
    sigsafe_close();
    rqs_destroy();
}

int main(void)
{
    glog_init("every_module");
    log_default(&g_log, stderr);
    set_myloglevel(ERR_level);
    texts_and_tables();
    containers();
    clocks_and_sensors();
    sockets_and_transfer();
    streams();
    event_loop();
    timer_and_wakeup();
    if (g_failures == 0) {
        puts("every module answers");
    }
    return g_failures == 0 ? 0 : 1;
}
