// An echo server on the loopback address: what a client sends comes back, idle clients are shut out, and
// SIGTERM lets those that are still served finish.
//
// usage: echo_server [-p port] [-i idle_ms] [-g grace_ms]
//
// It says "listening on 127.0.0.1:PORT" on stdout when it is ready; port 0, the default, is one of the
// system's choice. It serves 1,024 clients at once and shuts out more. A second signal ends it at once.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <morvane/log.h>
#include <morvane/rqs.h>
#include <morvane/syswrap.h>
#include <morvane/timeop.h>
#include <morvane/util.h>
#include <morvane/xvdat.h>

DECLARE_MLL(MLL_COMMON);

extern "C" {
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;
}

namespace {

// What a reader's udata points to begins with a tag: it tells the kinds of records apart.
constexpr n32_tag kListener = {{'l', 's', 'n', 0}};
constexpr n32_tag kClient = {{'c', 'l', 'n', 0}};

struct Client {
    n32_tag tag;
    int fd;
    bool dead; // freed when the batch of events is over
    struct timespec last;
    size_t pending; // bytes of buf that must still go back
    char buf[4096];
};

struct Listener {
    n32_tag tag;
    int fd;
};

Listener g_listener = {kListener, -1};
constexpr size_t kClientSlot = sizeof(void*);
constexpr size_t kMostClients = 1024;
struct xvlst g_clients = NULL_xvlst; // of Client*
struct timespec g_idle_limit = {30, 0};
struct timespec g_grace = {5, 0};
constexpr struct timespec g_quiet = {0, 200'000'000};
struct timespec g_stopped_at;
volatile sig_atomic_t g_stop = 0;

Client*& client_at(void* data, size_t index)
{
    return static_cast<Client**>(data)[index];
}

void on_signal(int)
{
    g_quit = g_stop; // the second one
    g_stop = 1;
}

void drop(Client* c)
{
    if (!c->dead) {
        rqs_rm_fd(c->fd, true, true);
        Close(c->fd);
        c->dead = true;
    }
}

// Sends what is pending and waits for the direction that is due.
int flush(Client* c)
{
    const ssize_t sent = send(c->fd, c->buf, c->pending, MSG_NOSIGNAL);
    if (sent > 0) {
        c->pending -= static_cast<size_t>(sent);
        memmove(c->buf, c->buf + sent, c->pending);
    } else if (sent < 0 && no_fault(errno, 0) == 0) {
        drop(c);
        return 0;
    }
    return rqs_mod(c->fd, c, c->pending > 0 ? RQS_WRITE : RQS_READ);
}

void accept_client()
{
    const int fd = accept4(g_listener.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return; // gone again, or no descriptor left: the others are served on
    }
    auto* c = static_cast<Client*>(Calloc(1, sizeof(Client)));
    const ssize_t slot = c != nullptr ? xvlst_add(&g_clients, kClientSlot, 1) : -1;
    if (slot < 0) {
        free(c);
        Close(fd);
        return;
    }
    client_at(g_clients.data, static_cast<size_t>(slot)) = c;
    c->tag = kClient;
    c->fd = fd;
    c->last = rqs_now();
    if (rqs_add_reader(fd, c) != 0) {
        Close(fd);
        c->dead = true;
    }
}

int on_readable(int, int, void* udata, void*)
{
    if (static_cast<n32_tag*>(udata)->num == kListener.num) {
        accept_client();
        return 0;
    }
    auto* c = static_cast<Client*>(udata);
    if (c->dead) {
        return 0;
    }
    const ssize_t got = Read_f(c->fd, c->buf, sizeof c->buf, 0);
    if (got <= 0) {
        if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            drop(c);
        }
        return 0;
    }
    c->pending = static_cast<size_t>(got);
    c->last = rqs_now();
    flush(c);
    return 0;
}

int on_writable(int, int, void* udata, void*)
{
    auto* c = static_cast<Client*>(udata);
    if (!c->dead) {
        c->last = rqs_now();
        flush(c);
    }
    return 0;
}

int on_error(int, int, void* udata, void*)
{
    drop(static_cast<Client*>(udata));
    return 0;
}

void free_client(void* data, size_t index)
{
    free(client_at(data, index));
}

int is_dead(void* data, size_t index, void*)
{
    if (!client_at(data, index)->dead) {
        return 0;
    }
    free_client(data, index);
    return 1;
}

// The batch is over: no event can name a dead client any more.
int free_dead()
{
    xvlst_rmif(&g_clients, nullptr, is_dead, nullptr);
    return 0;
}

int drop_if_idle(void* data, size_t index)
{
    Client* c = client_at(data, index);
    if (!c->dead && timed_out(&c->last, &g_idle_limit)) {
        log_norm("client fd%d is idle\n", c->fd);
        drop(c);
    }
    return 0;
}

// While stopping: whoever has been answered and says nothing more goes; the others may take until the grace
// is over.
int drop_if_served(void* data, size_t index)
{
    Client* c = client_at(data, index);
    if (!c->dead &&
        ((c->pending == 0 && timed_out(&c->last, &g_quiet)) || timed_out(&g_stopped_at, &g_grace))) {
        drop(c);
    }
    return 0;
}

void stop_listening()
{
    log_norm("stopping, %ld clients\n", static_cast<long>(g_clients.len));
    rqs_rm_fd(g_listener.fd, true, false);
    Close(g_listener.fd);
    g_listener.fd = -1;
    g_stopped_at = rqs_now();
}

int on_idle()
{
    xvlst_each(&g_clients, drop_if_idle, nullptr);
    if (g_stop != 0) {
        if (g_listener.fd >= 0) {
            stop_listening();
        }
        xvlst_each(&g_clients, drop_if_served, nullptr);
    }
    return free_dead(); // the loop ends by itself when the last descriptor is gone
}

// A signal between two waits is seen after one of them; so no wait is long.
void set_limit(struct timespec* tmout)
{
    *tmout = {0, 100'000'000};
}

int listen_on(uint16_t port)
{
    g_listener.fd = Socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (g_listener.fd < 0) {
        return -1;
    }
    const int on = 1;
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<struct sockaddr*>(&address);
    if (Setsockopt(g_listener.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        Bind(g_listener.fd, generic, length) != 0 || Listen(g_listener.fd, 128) != 0 ||
        getsockname(g_listener.fd, generic, &length) != 0 ||
        rqs_add_reader(g_listener.fd, &g_listener) != 0) {
        return -1;
    }
    printf("listening on 127.0.0.1:%u\n", static_cast<unsigned>(ntohs(address.sin_port)));
    fflush(stdout);
    return 0;
}

struct timespec milliseconds(const char* text)
{
    const long ms = strtol(text, nullptr, 10);
    return {ms / 1000, ms % 1000 * 1'000'000};
}

bool read_options(int argc, char** argv, uint16_t* port)
{
    for (int opt = 0; (opt = getopt(argc, argv, "p:i:g:")) != -1;) {
        switch (opt) {
        case 'p': *port = static_cast<uint16_t>(strtoul(optarg, nullptr, 10)); break;
        case 'i': g_idle_limit = milliseconds(optarg); break;
        case 'g': g_grace = milliseconds(optarg); break;
        default: return false;
        }
    }
    return optind == argc;
}

} // namespace

int main(int argc, char** argv)
{
    uint16_t port = 0;
    if (!read_options(argc, argv, &port)) {
        fprintf(stderr, "usage: echo_server [-p port] [-i idle_ms] [-g grace_ms]\n");
        return 2;
    }
    glog_init("echo_server");
    log_default(&g_log, stderr);
    struct rqs_config cfg = {};
    cfg.cb.update_tmout = set_limit;
    cfg.cb.on_idle = on_idle;
    cfg.cb.read = on_readable;
    cfg.cb.write = on_writable;
    cfg.cb.error = on_error;
    cfg.cb.post_process = free_dead;
    cfg.quit_on_zero_fds = 1;
    // All room is taken now: a list that could not grow once would take nobody any more.
    if (xvlst_mmap_fixed(&g_clients, kMostClients, kClientSlot) != 0 || handle_quit_signals(on_signal) != 0 ||
        ignore_sigpipe() != 0 || rqs_init(&cfg) != 0) {
        log_err("the server cannot start\n");
        return 1;
    }
    const int rc = listen_on(port) == 0 ? rqs_event_loop() : 1;
    xvlst_each(
        &g_clients, [](void* data, size_t index) { return drop(client_at(data, index)), 0; }, nullptr);
    xvlst_purge_all(&g_clients, free_client);
    xvlst_reset(&g_clients);
    if (g_listener.fd >= 0) {
        Close(g_listener.fd);
    }
    rqs_destroy();
    if (rc != 0) {
        log_err("an error ends the server\n");
    }
    return rc == 0 ? 0 : 1;
}
