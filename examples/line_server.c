/* line_server: a TCP server of lines on the loopback address, with timers: each line comes back with its
 * number in front, all clients get a line every -t milliseconds, and who says nothing for -i milliseconds is
 * shut out.
 *
 *   line_server [-p PORT] [-t TICK_MS] [-i IDLE_MS]
 *
 * It says "listening on 127.0.0.1:PORT" when it is ready; port 0, the default, is one of the system's choice.
 * SIGTERM ends it. */
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <morvane/log.h>
#include <morvane/netops.h>
#include <morvane/rqs.h>
#include <morvane/sigsafe.h>
#include <morvane/syswrap.h>
#include <morvane/tmr.h>
#include <morvane/util.h>

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

enum { LINE_LEN = 1024 };

struct client {
    union n32_tag tag;
    int fd;
    int is_dead; /* freed when the batch of events is over: one of them may still name it */
    unsigned long lines;
    size_t length; /* bytes of buf that are no whole line yet */
    char buf[LINE_LEN];
    struct tmr idle;
    struct client* next;
};

static union n32_tag g_listener_tag = {"lsn"};
static int g_listener = -1;
static struct client* g_clients;
static struct timespec g_idle_limit = {30, 0};
static unsigned long g_ticks;

static void on_signal(int signo)
{
    (void)signo;
    g_quit = 1;
    sigsafe_wake();
}

static void drop(struct client* c)
{
    if (!c->is_dead) {
        tmr_cancel(&c->idle);
        rqs_rm_fd(c->fd, true, false);
        Close(c->fd);
        c->is_dead = 1;
    }
}

/* A client that does not read loses its connection, not the others' time. */
static void say(struct client* c, const char* text, size_t length)
{
    if (!c->is_dead && send(c->fd, text, length, MSG_NOSIGNAL | MSG_DONTWAIT) != (ssize_t)length) {
        drop(c);
    }
}

static void on_idle_client(struct tmr* t, void* udata)
{
    (void)t;
    say(udata, "bye\n", 4);
    drop(udata);
}

static void on_tick(struct tmr* t, void* udata)
{
    char text[64];
    const int length = snprintf(text, sizeof text, "tick %lu\n", ++g_ticks);
    struct client* c;

    (void)t, (void)udata;
    for (c = g_clients; c != NULL; c = c->next) {
        say(c, text, (size_t)length);
    }
}

static void accept_client(void)
{
    struct client* c = Calloc(1, sizeof *c);
    const int fd = Accept(g_listener, NULL, NULL);
    const union n32_tag tag = {"cln"};

    if (c == NULL || fd < 0 || set_non_blocking(fd) != 0 || rqs_add_reader(fd, c) != 0) {
        free(c);
        if (fd >= 0) {
            Close(fd);
        }
        return;
    }
    c->tag = tag;
    c->fd = fd;
    c->next = g_clients;
    g_clients = c;
    tmr_add(&c->idle, &g_idle_limit, NULL, on_idle_client, c);
}

static void answer_lines(struct client* c)
{
    char* end;
    while (!c->is_dead && (end = memchr(c->buf, '\n', c->length)) != NULL) {
        char text[LINE_LEN + 32];
        const size_t length = (size_t)(end - c->buf);
        const int n = snprintf(text, sizeof text, "%lu: %.*s\n", ++c->lines, (int)length, c->buf);
        say(c, text, (size_t)n);
        c->length -= length + 1;
        memmove(c->buf, end + 1, c->length);
    }
    if (c->length == LINE_LEN) {
        say(c, "too long\n", 9);
        drop(c);
    }
}

static int on_readable(int fd, int fd_err, void* udata, void* aux)
{
    struct client* c = udata;
    ssize_t got;

    (void)fd, (void)fd_err, (void)aux;
    if (sigsafe_is_wakeup(udata)) {
        return 0;
    }
    if (udata == &g_listener_tag) {
        accept_client();
        return 0;
    }
    if (c->is_dead) {
        return 0;
    }
    got = Read_f(c->fd, c->buf + c->length, LINE_LEN - c->length, 0);
    if (got > 0) {
        c->length += (size_t)got;
        tmr_change(&c->idle, &g_idle_limit);
        answer_lines(c);
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        drop(c);
    }
    return 0;
}

static int on_gone(int fd, int fd_err, void* udata, void* aux)
{
    (void)fd, (void)fd_err, (void)aux;
    if (udata != &g_listener_tag) {
        drop(udata);
    }
    return 0;
}

/* The batch is over: no event can name a dead client any more. */
static int free_dead(void)
{
    struct client** link = &g_clients;
    while (*link != NULL) {
        struct client* c = *link;
        if (c->is_dead) {
            *link = c->next;
            free(c);
        } else {
            link = &c->next;
        }
    }
    return 0;
}

static int listen_on(const char* port)
{
    struct sockaddr_storage ss;
    struct sockaddr_in* in = (struct sockaddr_in*)&ss;
    socklen_t length = sizeof ss;

    memset(&ss, 0, sizeof ss);
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    g_listener = open_listener(&ss, port, 0);
    if (g_listener < 0 || getsockname(g_listener, (struct sockaddr*)&ss, &length) != 0) {
        return -1;
    }
    printf("listening on 127.0.0.1:%d\n", ntohs(in->sin_port));
    fflush(stdout);
    return rqs_add_reader(g_listener, &g_listener_tag);
}

static struct timespec milliseconds(const char* text)
{
    const long ms = strtol(text, NULL, 10);
    const struct timespec span = {ms / 1000, ms % 1000 * 1000000};
    return span;
}

static int run(const char* port, struct timespec tick)
{
    struct rqs_config config;
    struct tmr timer = NULL_tmr;
    struct client* c;
    int rc = 1;

    memset(&config, 0, sizeof config);
    config.cb.update_tmout = tmr_update_tmout;
    config.cb.time_out = tmr_time_out;
    config.cb.read = on_readable;
    config.cb.write = config.cb.error = on_gone;
    config.cb.post_process = free_dead;
    if (rqs_init(&config) == 0 && sigsafe_open() == 0 && listen_on(port) == 0 &&
        tmr_add(&timer, &tick, &tick, on_tick, NULL) == 0) {
        rc = rqs_event_loop();
    }
    for (c = g_clients; c != NULL; c = c->next) {
        drop(c);
    }
    free_dead();
    tmr_reset();
    sigsafe_close();
    if (g_listener >= 0) {
        rqs_rm_fd(g_listener, true, false);
        Close(g_listener);
    }
    rqs_destroy();
    return rc;
}

int main(int argc, char** argv)
{
    const char* port = "0";
    struct timespec tick = {1, 0};
    int option;

    glog_init("line_server");
    log_default(&g_log, stderr);
    set_myloglevel(ERR_level);
    while ((option = getopt(argc, argv, "p:t:i:")) != -1) {
        switch (option) {
        case 'p': port = optarg; break;
        case 't': tick = milliseconds(optarg); break;
        case 'i': g_idle_limit = milliseconds(optarg); break;
        default: optind = argc + 1; break;
        }
    }
    if (optind != argc) {
        fprintf(stderr, "usage: line_server [-p PORT] [-t TICK_MS] [-i IDLE_MS]\n");
        return 2;
    }
    if (handle_quit_signals(on_signal) != 0 || ignore_sigpipe() != 0) {
        return 1;
    }
    if (run(port, tick) != 0) {
        log_err("an error ends the server\n");
        return 1;
    }
    return 0;
}
