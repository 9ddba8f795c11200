/* mcast_receive: joins a multicast group and tells what arrives, until it has seen -n datagrams, or SIGTERM.
 *
 *   mcast_receive [-i INTERFACE] [-n COUNT] udp://[SOURCE@]GROUP:PORT
 *
 * With a source the membership is source-specific (RFC 4607). The kernel sends the IGMP report, and the leave
 * when the socket is closed. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <morvane/log.h>
#include <morvane/netops.h>
#include <morvane/rqs.h>
#include <morvane/sigsafe.h>
#include <morvane/util.h>
#include <morvane/wopen.h>

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

static struct receiver {
    union n32_tag tag;
    int fd;
    unsigned long count;
    unsigned long limit; /* 0: none */
} g_receiver = {{"rcv"}, -1, 0, 0};

static void on_signal(int signo)
{
    (void)signo;
    g_quit = 1;
    sigsafe_wake();
}

static int on_readable(int fd, int fd_err, void* udata, void* aux)
{
    char data[65536];
    char text[128];
    struct sockaddr_storage from;
    socklen_t length = sizeof from;
    ssize_t got;

    (void)fd, (void)fd_err, (void)aux;
    if (sigsafe_is_wakeup(udata)) {
        return 0;
    }
    got = recvfrom(g_receiver.fd, data, sizeof data, MSG_DONTWAIT, (struct sockaddr*)&from, &length);
    if (got < 0) {
        return 0; /* taken by nobody else: the checksum was wrong */
    }
    if (saddr_str((struct sockaddr*)&from, length, text, sizeof text) != NULL) {
        printf("%ld bytes from %s\n", (long)got, text);
        fflush(stdout);
    }
    g_quit = ++g_receiver.count == g_receiver.limit;
    return 0;
}

static int on_nothing(int fd, int fd_err, void* udata, void* aux)
{
    (void)fd, (void)fd_err, (void)udata, (void)aux;
    return 0;
}

static int receive(const char* url, const char* ifc)
{
    struct usock_ctx uc;
    struct rqs_config config;
    int rc = -1;

    memset(&uc, 0, sizeof uc);
    memset(&config, 0, sizeof config);
    uc.inbound = true;
    uc.ifc_tag = ifc;
    config.cb.read = on_readable;
    config.cb.write = config.cb.error = on_nothing;
    g_receiver.fd = usock_open(url, &uc);
    if (g_receiver.fd >= 0 && rqs_init(&config) == 0 && sigsafe_open() == 0 &&
        rqs_add_reader(g_receiver.fd, &g_receiver) == 0) {
        printf("receiving %s\n", url);
        fflush(stdout);
        rc = rqs_event_loop();
        rqs_rm_fd(g_receiver.fd, true, false);
    }
    sigsafe_close();
    rqs_destroy();
    usock_close(g_receiver.fd, &uc); /* which leaves the group */
    return rc;
}

int main(int argc, char** argv)
{
    const char* ifc = NULL;
    int option;

    glog_init("mcast_receive");
    log_default(&g_log, stderr);
    while ((option = getopt(argc, argv, "i:n:")) != -1) {
        switch (option) {
        case 'i': ifc = optarg; break;
        case 'n': g_receiver.limit = strtoul(optarg, NULL, 10); break;
        default: optind = argc; break;
        }
    }
    if (argc - optind != 1) {
        fprintf(stderr, "usage: mcast_receive [-i INTERFACE] [-n COUNT] udp://[SOURCE@]GROUP:PORT\n");
        return 2;
    }
    if (handle_quit_signals(on_signal) != 0) {
        return 1;
    }
    if (receive(argv[optind], ifc) != 0) {
        log_err("nothing is received from %s\n", argv[optind]);
        return 1;
    }
    return 0;
}
