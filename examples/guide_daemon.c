/* guide_daemon: a small daemon of the family, whole; docs/guide.md takes it apart, piece by piece.
 *
 *   guide_daemon [-T] [-p PIDFILE] [-l LOGFILE] PORT
 *
 * It answers GET /ping on PORT of every address, and any other path with 404; it logs each minute how many it
 * has answered, rotates its log at SIGHUP and ends at SIGTERM. -T: it stays in the foreground. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <morvane/log.h>
#include <morvane/netops.h>
#include <morvane/psensor.h>
#include <morvane/rqs.h>
#include <morvane/sigsafe.h>
#include <morvane/syswrap.h>
#include <morvane/tmr.h>
#include <morvane/util.h>
#include <morvane/webops.h>

/* guide: flags */
DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

/* guide: end */

/* guide: record */
static struct listener {
    union n32_tag tag; /* the loop reads it before each call of on_readable */
    int fd;
    unsigned long answered;
} g_listener = {{"lsn"}, -1, 0};

/* guide: end */

/* guide: signals */
static void on_signal(int signo)
{
    if (signo == SIGHUP) {
        g_hup = 1;
    } else {
        g_quit = 1;
    }
    sigsafe_wake(); /* ends the wait, or the one that is about to begin */
}

/* guide: end */

/* guide: answer */
static void answer(int client)
{
    char request[1024];
    char path[256] = "";
    struct http_header head;
    struct http_response response = g_resp_nfound;
    const ssize_t got = Read_f(client, request, sizeof request - 1, 0);

    if (got <= 0) {
        return;
    }
    request[got] = 0;
    if (parse_http_header(request, (size_t)got, &head, path, sizeof path) != 0) {
        response = g_resp_bad;
    } else if (is_ping_request(path)) {
        response = g_resp_ok;
    }
    response.server = "guide_daemon";
    response.content_length = 0;
    response.connection = "close";
    send_http_response(client, &response);
    ++g_listener.answered;
}

static int on_readable(int fd, int fd_err, void* udata, void* aux)
{
    int client;
    (void)fd, (void)fd_err, (void)aux;
    if (sigsafe_is_wakeup(udata)) {
        return 0;
    }
    client = Accept(g_listener.fd, NULL, NULL);
    if (client >= 0) {
        set_rcv_timeout(client, 500); /* one client at a time, and none for long */
        set_send_timeout(client, 500);
        answer(client);
        Close(client);
    }
    return 0;
}

/* guide: end */

static int on_nothing(int fd, int fd_err, void* udata, void* aux)
{
    (void)fd, (void)fd_err, (void)udata, (void)aux;
    return 0;
}

/* guide: timer */
static void report(struct tmr* t, void* udata)
{
    (void)t, (void)udata;
    log_norm("%lu requests answered\n", g_listener.answered);
}

/* guide: end */

/* guide: idle */
static int on_idle(void)
{
    if (g_hup) {
        g_hup = 0;
        log_rotate(&g_log);
        log_norm("the log was rotated at SIGHUP\n");
    }
    return 0;
}

/* guide: end */

/* guide: loop */
static int run(const char* port)
{
    const struct timespec minute = {60, 0};
    struct tmr timer = NULL_tmr;
    struct rqs_config config;
    int rc;

    memset(&config, 0, sizeof config);
    config.cb.update_tmout = tmr_update_tmout;
    config.cb.time_out = tmr_time_out;
    config.cb.read = on_readable;
    config.cb.write = config.cb.error = on_nothing;
    config.cb.on_idle = on_idle;
    g_listener.fd = open_anyaddr_listener(AF_INET, port, 0);
    if (g_listener.fd < 0 || rqs_init(&config) != 0 || sigsafe_open() != 0 ||
        rqs_add_reader(g_listener.fd, &g_listener) != 0 ||
        tmr_add(&timer, &minute, &minute, report, NULL) != 0) {
        return -1;
    }
    log_norm("listening on port %s\n", port);
    rc = rqs_event_loop();
    log_norm("ending after %lu requests, rc=%d\n", g_listener.answered, rc);
    tmr_reset();
    sigsafe_close();
    rqs_rm_fd(g_listener.fd, true, false);
    Close(g_listener.fd);
    rqs_destroy();
    return rc;
}

/* guide: end */

/* guide: main */
int main(int argc, char** argv)
{
    const char* pidfile = NULL;
    const char* logfile = NULL;
    int foreground = 0;
    int option;
    int rc;

    while ((option = getopt(argc, argv, "Tp:l:")) != -1) {
        switch (option) {
        case 'T': foreground = 1; break;
        case 'p': pidfile = optarg; break;
        case 'l': logfile = optarg; break;
        default: optind = argc; break;
        }
    }
    if (argc - optind != 1) {
        fprintf(stderr, "usage: guide_daemon [-T] [-p PIDFILE] [-l LOGFILE] PORT\n");
        return 2;
    }
    glog_init("guide_daemon");
    log_default(&g_log, stderr); /* until the log stands */
    if (!foreground && daemonize() != 0) {
        return 1;
    }
    log_append_old(&g_log);
    if (logfile != NULL && log_open(&g_log, logfile) != 0) {
        return 1;
    }
    log_set_rota(&g_log, 1 << 20, 4); /* a megabyte, and four old files */
    log_set_pid(&g_log, getpid());
    psensors_init(NULL, 1);
    handle_sig(SIGHUP, on_signal);
    if (handle_quit_signals(on_signal) != 0 || ignore_sigpipe() != 0 ||
        (pidfile != NULL && create_pidfile(pidfile, getpid()) != 0)) { /* last: it is taken away below */
        return 1;
    }
    rc = run(argv[optind]);
    if (rc != 0) {
        log_err("an error ends the daemon\n");
    }
    if (foreground) {
        psensors_dump(stdout);
    }
    if (pidfile != NULL) {
        Unlink(pidfile);
    }
    log_close(&g_log);
    return rc == 0 ? 0 : 1;
}

/* guide: end */
