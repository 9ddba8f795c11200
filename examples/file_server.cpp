// file_server: answers HTTP GET and HEAD of a path under a directory: the head of a response, then the file
// by sendfile. One request a connection. SIGTERM ends it.
//
//   file_server [-p PIDFILE] [-l LOGFILE] [-S] ADDRESS PORT DIRECTORY
//
// -S measures with the library's sensors, and one of our own for requests, and prints them at the end.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <morvane/fdio.h>
#include <morvane/log.h>
#include <morvane/netops.h>
#include <morvane/psensor.h>
#include <morvane/rqs.h>
#include <morvane/sigsafe.h>
#include <morvane/syswrap.h>
#include <morvane/uri.h>
#include <morvane/util.h>
#include <morvane/webops.h>

DECLARE_MLL(MLL_COMMON);

// What every application owes the library.
volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

namespace {

constexpr size_t kHeadMax = 4096;
constexpr size_t kPathMax = 1024;
constexpr int kRequests = USENSOR_FIRST; // our own sensor

// One registered descriptor; fd is -1 in a free place. The loop reads the tag.
struct Client {
    union n32_tag tag = {"web"};
    int fd = -1;
    int file = -1;
    size_t length = 0; // of what is read of the head
    uint32_t flags = 0;
    off_t offset = 0; // sent so far
    off_t size = 0;
    transfer_spec* spec = nullptr;
    char head[kHeadMax] = {};
};

Client g_clients[128]; // the first is the listener

// Sets the flags; the wake-up ends the wait, or the one that is about to begin.
void on_signal(int signo)
{
    on_sigquit(signo);
    sigsafe_wake();
}

// The record is at once free for the next client: no other event of this batch belongs to its descriptor.
int finish(Client* c)
{
    rqs_rm_fd(c->fd, true, true);
    Close(c->fd);
    if (c->file != -1) {
        Close(c->file);
    }
    free(c->spec);
    *c = {};
    return 0;
}

// Opens the file that a request names. The status code of the answer.
int open_target(Client* c, const http_header& request)
{
    char path[kPathMax + 3] = "./";
    if (request.uri.path == nullptr || request.uri.p_len >= kPathMax) {
        return 404;
    }
    memcpy(path + 2, request.uri.path, request.uri.p_len);
    if (uri_decode(path, sizeof path) == nullptr || strstr(path, "..") != nullptr) {
        return 403;
    }
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
        return 404;
    }
    c->size = st.st_size;
    check_can_sendfile(st.st_mode, S_IFSOCK, SOCK_STREAM, &c->flags);
    c->file = open_src_file(path);
    return c->file == -1 ? 403 : 200;
}

// The head is complete: answers it, and goes on to the file where there is one to send.
int handle(Client* c)
{
    psensor_start(kRequests);
    http_header request = {};
    const int parsed = parse_http_header(c->head, c->length, &request, nullptr, 0);
    const int code = parsed == 0 ? open_target(c, request) : 400;
    http_response response = *match_http_response(code);
    response.server = "file_server";
    response.connection = "close";
    response.content_length = c->size;
    const int sent = send_http_response(c->fd, &response);
    log_norm("fd%d: %.*s -> %d\n", c->fd, static_cast<int>(strcspn(c->head, "\r\n")), c->head, code);
    if (sent != 0 || c->file == -1 || request.type == RQTYPE_HEAD || c->size == 0) {
        finish(c);
    } else {
        c->spec = new_transfer_spec(c->file, c->fd, &c->offset, &c->flags, nullptr, 0);
        rqs_mod(c->fd, c, RQS_WRITE);
    }
    psensor_stop(kRequests);
    return 0;
}

int on_client(Client* c)
{
    const ssize_t n = nread(c->fd, c->head + c->length, kHeadMax - 1 - c->length, 0);
    c->length += n > 0 ? static_cast<size_t>(n) : 0;
    if (strstr(c->head, "\r\n\r\n") != nullptr) {
        return handle(c);
    }
    return n == 0 || (n < 0 && errno != EAGAIN) ? finish(c) : 0; // also where the head is too long
}

int on_readable(int, int, void* udata, void*)
{
    if (sigsafe_is_wakeup(udata)) {
        return 0;
    }
    if (udata != &g_clients[0]) {
        return on_client(static_cast<Client*>(udata));
    }
    const int fd = Accept(g_clients[0].fd, nullptr, nullptr);
    for (Client& c : g_clients) {
        if (fd != -1 && c.fd == -1) {
            c.fd = fd;
            return set_nblock(fd, 1) == 0 ? rqs_add_reader(fd, &c) : 1;
        }
    }
    return fd == -1 ? 0 : Close(fd); // nobody is free to serve it
}

// Nothing moved to a writable socket means that the peer has gone.
int on_writable(int, int, void* udata, void*)
{
    auto* c = static_cast<Client*>(udata);
    ssize_t moved = 0;
    transfer(c->spec, static_cast<size_t>(c->size - c->offset), &moved);
    return moved < 1 || c->offset >= c->size ? finish(c) : 0;
}

int serve(const char* address, const char* port)
{
    socket_spec spec = {};
    spec.passive = 1;
    spec.non_blocking = 1;
    spec.socktype = SOCK_STREAM;
    rqs_config config = {};
    config.cb.read = on_readable;
    config.cb.write = on_writable;
    config.cb.error = [](int, int, void* udata, void*) { return finish(static_cast<Client*>(udata)); };
    g_clients[0].fd = open_socket(address, port, nullptr, &spec, nullptr, nullptr);
    if (g_clients[0].fd == -1 || rqs_init(&config) != 0 || sigsafe_open() != 0 ||
        rqs_add_reader(g_clients[0].fd, &g_clients[0]) != 0) {
        return -1;
    }
    log_norm("serving\n");
    const int rc = rqs_event_loop();
    sigsafe_close();
    rqs_destroy(); // descriptors that are still open end with the process
    return rc;
}

} // namespace

int main(int argc, char** argv)
{
    const char* pidfile = nullptr;
    const char* logfile = nullptr;
    bool sensors = false;
    for (int c; (c = getopt(argc, argv, "p:l:S")) != -1;) {
        switch (c) {
        case 'p': pidfile = optarg; break;
        case 'l': logfile = optarg; break;
        case 'S': sensors = true; break;
        default: optind = argc;
        }
    }
    if (argc - optind != 3) {
        fprintf(stderr, "usage: file_server [-p PIDFILE] [-l LOGFILE] [-S] ADDRESS PORT DIRECTORY\n");
        return 2;
    }
    glog_init("file_server");
    log_open(&g_log, logfile);
    log_set_rota(&g_log, 1 << 20, 4); // a megabyte, and four old files
    const char* tags[] = {"requests", nullptr};
    psensors_init(tags, sensors ? 1 : 0);
    if (chdir(argv[optind + 2]) != 0) {
        log_err("%s: %s\n", argv[optind + 2], strerror(errno));
        return 1;
    }
    // The pid file last: it is taken away below, by whatever ends the server.
    if (handle_quit_signals(on_signal) != 0 || ignore_sigpipe() != 0 || fdio_init(-1) != 0 ||
        (pidfile != nullptr && create_pidfile(pidfile, getpid()) != 0)) {
        return 1;
    }
    const int rc = serve(argv[optind], argv[optind + 1]);
    if (rc != 0) {
        log_err("an error ends the server\n");
    }
    fdio_destroy();
    psensors_dump(stdout);
    if (pidfile != nullptr) {
        Unlink(pidfile);
    }
    return rc == 0 ? 0 : 1;
}
