// The HTTP server: accepts, reads heads, has them answered, sends. Each callback does one bounded piece of
// work; nobody's reading or not reading is waited for.
#include "http.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "event.h"
#include "log.h"
#include "syswrap.h"
#include "webops.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr int kSweepMs = 250;
constexpr int kPauseMs = 1000;                   // without descriptors, before accepting again
constexpr int kSendBuffer = 256 * 1024;          // the kernel's, a client
constexpr size_t kSendMost = size_t{256} * 1024; // in one turn
constexpr size_t kDiscardMost = size_t{64} * 1024;
constexpr int kBacklog = 512;
constexpr int kAcceptMost = 64; // in one turn
constexpr size_t kChunkOverhead = 24;
constexpr int64_t kWarnMs = 60'000;

// What every answer carries: the page runs our own scripts alone, in nobody's frame, and sends its address
// nowhere.
constexpr char kSecurityFields[] =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "X-Frame-Options: DENY\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

const char* reason_of(int code)
{
    switch (code) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 421: return "Misdirected Request";
    case 431: return "Request Header Fields Too Large";
    case 503: return "Service Unavailable";
    default: return "Internal Server Error";
    }
}

const char* text_of(int code)
{
    switch (code) {
    case 400: return "bad request";
    case 404: return "not found";
    case 405: return "only GET and HEAD are served";
    case 421: return "this host is not served here; --host NAME allows it";
    case 431: return "the head is larger than 8192 bytes";
    case 503: return "too many clients";
    default: return "error";
    }
}

size_t body_length(const Reply& reply)
{
    return reply.asset.empty() ? reply.text.size() : reply.asset.size();
}

// The head of an answer, with its empty line.
std::string compose_head(const Reply& reply, const Request& request, bool keep_alive)
{
    http_response head = {};
    head.code = reply.code;
    head.reason = reason_of(reply.code);
    head.server = "zentmon";
    head.content_type = reply.type;
    head.content_length = reply.body ? -1 : static_cast<long>(body_length(reply));
    head.connection = keep_alive ? "keep-alive" : "close";
    char buffer[1024];
    const ssize_t length = mk_http_response(&head, buffer, sizeof buffer);
    ASSERT(length > 2);
    std::string text(buffer, static_cast<size_t>(length) - 2); // without the empty line: more is to come
    if (reply.body && !request.http10) {
        text += "Transfer-Encoding: chunked\r\n";
    }
    if (reply.asset.empty()) {
        text += "Cache-Control: no-store\r\n";
    } else {
        text += "Cache-Control: no-cache\r\n";
    }
    if (reply.code == 405) {
        text += "Allow: GET, HEAD\r\n";
    }
    text += kSecurityFields;
    text += reply.fields;
    text += "\r\n";
    return text;
}

} // namespace

Reply error_reply(int code, std::string_view text)
{
    Reply reply;
    reply.code = code;
    reply.text = "{\"error\":";
    append_quoted(reply.text, std::string(text));
    reply.text += "}\n";
    return reply;
}

// ---- one client -------------------------------------------------------------------------------------

class HttpServer::Client : public Handler {
  public:
    enum class Phase {
        head,    // a request is awaited or read
        waiting, // for a deferred answer
        reply,   // an answer is sent
        linger,  // all is sent: the peer may read it, then we close
        gone
    };

    Client(HttpServer& server, int fd, ClientId id) : server_(server), fd_(fd), id_(id) {}

    ~Client() override
    {
        watch_.stop();
        if (fd_ >= 0) {
            Close(fd_);
        }
    }

    int start(int64_t mono_ms)
    {
        since_ms_ = mono_ms;
        return watch_.start(fd_, this);
    }

    void on_readable() override;
    void on_writable() override;

    void on_error() override { close(); }

    void refuse(int code);
    void send_reply(Reply reply);
    void flush_idle();
    void close();
    bool is_overdue(int64_t mono_ms) const;

    Phase phase() const { return phase_; }

    ClientId id() const { return id_; }

    int64_t since_ms() const { return since_ms_; }

    bool is_stream() const { return phase_ == Phase::reply && stream_; }

  private:
    void read_head();
    void skip_empty_lines();
    void process_head();
    void discard();
    void pump();
    bool fill();
    bool send_out();
    void finish_reply();
    void start_linger();

    HttpServer& server_;
    int fd_;
    ClientId id_;
    Watch watch_;
    Phase phase_ = Phase::head;
    int64_t since_ms_ = 0; // when this phase began, or of the last progress in a reply
    std::string in_;
    size_t looked_at_ = 0; // bytes of in_ that hold no end of a head
    Request request_;      // its texts are valid during the answer alone
    std::string out_;
    size_t sent_ = 0;
    std::unique_ptr<Body> body_;
    std::shared_ptr<void> hold_;
    std::string_view asset_; // what is left of a static body
    size_t discarded_ = 0;
    bool body_done_ = true;
    bool chunked_ = false;
    bool keep_alive_ = false;
    bool stream_ = false;
    bool idle_ = false; // the body has nothing to send
};

void HttpServer::Client::on_readable()
{
    switch (phase_) {
    case Phase::head: read_head(); break;
    case Phase::linger:
    case Phase::reply:
    case Phase::waiting: discard(); break;
    case Phase::gone: break;
    }
}

void HttpServer::Client::read_head()
{
    char buffer[kHeadMax];
    const ssize_t got = recv(fd_, buffer, kHeadMax - std::min(in_.size(), kHeadMax - 1), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        close();
        return;
    }
    in_.append(buffer, static_cast<size_t>(got));
    process_head();
}

// Empty lines in front of a request are forgiven, in whatever pieces they come.
void HttpServer::Client::skip_empty_lines()
{
    size_t length = 0;
    while (in_.compare(length, 2, "\r\n") == 0) {
        length += 2;
    }
    if (length > 0) {
        in_.erase(0, length);
        looked_at_ = 0;
    }
}

// Answers the request in in_, if it is whole.
void HttpServer::Client::process_head()
{
    skip_empty_lines();
    const HeadEnd end = find_head_end(in_, looked_at_);
    looked_at_ = in_.size();
    if (end.broken) {
        refuse(400);
    } else if (end.length > kHeadMax || (end.length == 0 && in_.size() >= kHeadMax)) {
        refuse(431);
    } else if (end.length > 0) {
        const std::string head = in_.substr(0, end.length);
        in_.erase(0, end.length);
        looked_at_ = 0;
        request_ = read_request(head, server_.hosts_);
        if (request_.status != 0) {
            refuse(request_.status);
            return;
        }
        Reply reply = server_.handler_.answer(request_, id_);
        request_.path = request_.query = request_.last_event_id = {};
        if (reply.deferred) {
            phase_ = Phase::waiting;
            watch_.change(Watch::none);
        } else {
            send_reply(std::move(reply));
        }
    }
}

// An answer after which the connection ends: what follows on it is not trusted to be a request.
void HttpServer::Client::refuse(int code)
{
    request_.keep_alive = false;
    send_reply(error_reply(code, text_of(code)));
}

void HttpServer::Client::send_reply(Reply reply)
{
    ++server_.counters_.http_requests[static_cast<size_t>(reply.code - 100)];
    keep_alive_ = request_.keep_alive && (!reply.body || !request_.http10);
    phase_ = Phase::reply;
    since_ms_ = now().mono_ms;
    out_ = compose_head(reply, request_, keep_alive_);
    sent_ = 0;
    stream_ = reply.stream;
    chunked_ = reply.body != nullptr && !request_.http10;
    body_done_ = reply.body == nullptr || request_.head_only;
    body_.reset();
    hold_ = std::move(reply.hold);
    asset_ = {};
    if (!request_.head_only) {
        out_ += reply.text;
        asset_ = reply.asset;
        body_ = std::move(reply.body);
    }
    server_.count();
    pump();
}

// Draws the next piece of the body. False where there is nothing to send now.
bool HttpServer::Client::fill()
{
    out_.clear();
    sent_ = 0;
    if (!asset_.empty()) {
        const size_t part = std::min(asset_.size(), kSendMost);
        out_.append(asset_.substr(0, part));
        asset_.remove_prefix(part);
        return true;
    }
    if (body_done_) {
        return false;
    }
    std::string& piece = server_.scratch_;
    piece.clear();
    const Body::Step step = body_->next(piece);
    idle_ = step == Body::Step::idle;
    body_done_ = step == Body::Step::last;
    if (!piece.empty()) {
        char size[kChunkOverhead];
        snprintf(size, sizeof size, "%zx\r\n", piece.size());
        out_ += chunked_ ? size : "";
        out_ += piece;
        out_ += chunked_ ? "\r\n" : "";
    }
    if (body_done_) {
        out_ += chunked_ ? "0\r\n\r\n" : "";
        body_.reset();
    }
    return !out_.empty();
}

// False where the client has gone.
bool HttpServer::Client::send_out()
{
    const size_t count = std::min(out_.size() - sent_, kSendMost);
    const ssize_t sent = send(fd_, out_.data() + sent_, count, MSG_NOSIGNAL);
    if (sent > 0) {
        sent_ += static_cast<size_t>(sent);
        since_ms_ = now().mono_ms;
    } else if (sent < 0 && errno != EAGAIN && errno != EINTR) {
        close();
        return false;
    }
    return true;
}

// One piece: drawn if the last one is sent, and sent as far as the kernel takes it.
void HttpServer::Client::pump()
{
    idle_ = false;
    if (sent_ == out_.size() && !fill() && !body_done_) {
        since_ms_ = now().mono_ms; // a body that works or idles is no stall
        watch_.change(idle_ ? Watch::read : Watch::write);
        return;
    }
    if (sent_ < out_.size() && !send_out()) {
        return;
    }
    const bool all_sent = sent_ == out_.size();
    if (all_sent && body_done_ && asset_.empty()) {
        finish_reply();
    } else {
        watch_.change(all_sent && idle_ ? Watch::read : Watch::write);
    }
}

void HttpServer::Client::on_writable()
{
    if (phase_ == Phase::reply) {
        pump();
    } else if (phase_ == Phase::head) {
        watch_.change(Watch::read);
        process_head(); // the next request came along with the last one
    }
}

// There may be news for a stream that had sent all.
void HttpServer::Client::flush_idle()
{
    if (phase_ == Phase::reply && idle_ && sent_ == out_.size()) {
        pump();
    }
}

void HttpServer::Client::finish_reply()
{
    out_.clear();
    out_.shrink_to_fit();
    sent_ = 0;
    body_.reset();
    hold_.reset();
    if (!keep_alive_) {
        start_linger();
        return;
    }
    phase_ = Phase::head;
    since_ms_ = now().mono_ms;
    server_.count();
    // In its own turn, so that a train of requests does not keep the others waiting.
    watch_.change(in_.empty() ? Watch::read : Watch::write);
}

// Closing with unread bytes would reset the connection and take the answer from the peer's hands.
void HttpServer::Client::start_linger()
{
    phase_ = Phase::linger;
    since_ms_ = now().mono_ms;
    in_.clear();
    ::shutdown(fd_, SHUT_WR);
    watch_.change(Watch::read);
    server_.count();
}

void HttpServer::Client::discard()
{
    static char buffer[kDiscardMost];
    const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    discarded_ += got > 0 ? static_cast<size_t>(got) : 0;
    // Whoever talks into a stream has no business here; lingering ends by its time.
    if (got <= 0 || (phase_ != Phase::linger && discarded_ > kHeadMax)) {
        close();
    }
}

void HttpServer::Client::close()
{
    if (phase_ == Phase::gone) {
        return;
    }
    phase_ = Phase::gone;
    watch_.stop();
    Close(fd_);
    fd_ = -1;
    server_.remove(this);
}

bool HttpServer::Client::is_overdue(int64_t mono_ms) const
{
    const int64_t age = mono_ms - since_ms_;
    switch (phase_) {
    case Phase::head: return age >= server_.limits_.head_ms;
    case Phase::reply: return !idle_ && age >= server_.limits_.stall_ms;
    case Phase::linger: return age >= server_.limits_.linger_ms;
    default: return false;
    }
}

// ---- listeners --------------------------------------------------------------------------------------

class HttpServer::Listener : public Handler {
  public:
    Listener(HttpServer& server, int fd) : server_(server), fd_(fd) {}

    ~Listener() override
    {
        watch_.stop();
        Close(fd_);
    }

    int start() { return watch_.start(fd_, this); }

    void pause() { watch_.change(Watch::none); }

    void resume() { watch_.change(Watch::read); }

    int fd() const { return fd_; }

    void on_readable() override
    {
        for (int i = 0; i < kAcceptMost; ++i) {
            const int fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd >= 0) {
                server_.add_client(fd);
            } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                server_.pause_accepting();
                return;
            } else if (errno != EINTR && errno != ECONNABORTED) {
                return;
            }
        }
    }

  private:
    HttpServer& server_;
    int fd_;
    Watch watch_;
};

// ---- the server ---------------------------------------------------------------------------------------

HttpServer::HttpServer(HttpHandler& handler, std::vector<std::string> hosts, Counters& counters,
                       const HttpLimits& limits)
    : handler_(handler),
      hosts_(std::move(hosts)),
      counters_(counters),
      limits_(limits),
      sweep_([this] { sweep(); }),
      resume_([this] {
          for (const auto& listener : listeners_) {
              listener->resume();
          }
      }),
      clear_([this] { clear_gone(); })
{
}

HttpServer::~HttpServer() = default;

int HttpServer::listen(const Endpoint& at)
{
    const int fd = Socket(at.ss.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    const int on = 1;
    Setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (at.ss.ss_family == AF_INET6) {
        Setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (Bind(fd, reinterpret_cast<const struct sockaddr*>(&at.ss), at.len) != 0 ||
        Listen(fd, kBacklog) != 0) {
        const int error = errno;
        Close(fd);
        errno = error;
        return -1;
    }
    return adopt(fd);
}

int HttpServer::adopt(int fd)
{
    listeners_.push_back(std::make_unique<Listener>(*this, fd));
    if (listeners_.back()->start() != 0) {
        listeners_.pop_back();
        return -1;
    }
    return 0;
}

struct sockaddr_storage HttpServer::address() const
{
    struct sockaddr_storage ss = {};
    socklen_t length = sizeof ss;
    if (!listeners_.empty()) {
        getsockname(listeners_.back()->fd(), reinterpret_cast<struct sockaddr*>(&ss), &length);
    }
    return ss;
}

void HttpServer::set_hosts(std::vector<std::string> hosts)
{
    hosts_ = std::move(hosts);
}

// The listeners would be reported again and again while there is no descriptor to accept with.
void HttpServer::pause_accepting()
{
    log_warn("http: no descriptor left for another client\n");
    for (const auto& listener : listeners_) {
        listener->pause();
    }
    resume_.start_ms(kPauseMs);
}

void HttpServer::add_client(int fd)
{
    const int on = 1;
    const int size = kSendBuffer;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    const bool full = !make_room();
    auto client = std::make_unique<Client>(*this, fd, ++last_id_);
    if (client->start(now().mono_ms) != 0) {
        return; // which closes it
    }
    Client* added = client.get();
    clients_.push_back(std::move(client));
    if (full) {
        added->refuse(503);
    }
    count();
    if (!sweep_.runs()) {
        sweep_.start_ms(kSweepMs);
    }
}

// Over the limit whoever has been slowest to say what he wants is closed. False where all are being served:
// the newcomer is told 503. Who has his answer and only lingers does not count, but there is an end to that.
bool HttpServer::make_room()
{
    size_t lingering = 0;
    Client* oldest_head = nullptr;
    Client* oldest_lingering = nullptr;
    for (const auto& client : clients_) {
        const bool lingers = client->phase() == Client::Phase::linger;
        lingering += lingers ? 1 : 0;
        Client*& oldest = lingers ? oldest_lingering : oldest_head;
        if ((lingers || client->phase() == Client::Phase::head) &&
            (oldest == nullptr || client->since_ms() < oldest->since_ms())) {
            oldest = client.get();
        }
    }
    if (clients_.size() >= limits_.clients + limits_.lingering && oldest_lingering != nullptr) {
        oldest_lingering->close();
    }
    if (clients_.size() - lingering < limits_.clients) {
        return true;
    }
    warn_full();
    if (oldest_head == nullptr) {
        return false;
    }
    oldest_head->close();
    return true;
}

void HttpServer::warn_full()
{
    const int64_t mono_ms = now().mono_ms;
    if (last_warned_ms_ == 0 || mono_ms - last_warned_ms_ >= kWarnMs) {
        last_warned_ms_ = mono_ms;
        log_warn("http: more than %zu clients\n", limits_.clients);
    }
}

void HttpServer::remove(Client* client)
{
    const auto it = std::find_if(clients_.begin(), clients_.end(),
                                 [client](const std::unique_ptr<Client>& c) { return c.get() == client; });
    if (it != clients_.end()) {
        gone_.push_back(std::move(*it));
        clients_.erase(it);
        clear_.start_ms(0);
    }
    count();
}

void HttpServer::clear_gone()
{
    gone_.clear();
}

// Closes who has had his time, and asks idle streams, which have their pings to send.
void HttpServer::sweep()
{
    const int64_t mono_ms = now().mono_ms;
    std::vector<Client*> overdue;
    for (const auto& client : clients_) {
        if (client->is_overdue(mono_ms)) {
            overdue.push_back(client.get());
        }
    }
    for (Client* client : overdue) {
        client->close();
    }
    flush();
    if (!clients_.empty()) {
        sweep_.start_ms(kSweepMs);
    }
}

void HttpServer::flush()
{
    std::vector<Client*> streams;
    for (const auto& client : clients_) {
        if (client->is_stream()) {
            streams.push_back(client.get());
        }
    }
    for (Client* client : streams) {
        client->flush_idle();
    }
}

void HttpServer::complete(ClientId id, Reply reply)
{
    for (const auto& client : clients_) {
        if (client->id() == id && client->phase() == Client::Phase::waiting) {
            client->send_reply(std::move(reply));
            return;
        }
    }
}

void HttpServer::count()
{
    uint64_t streams = 0;
    for (const auto& client : clients_) {
        streams += client->is_stream() ? 1 : 0;
    }
    counters_.http_stream_clients = streams;
    counters_.http_plain_clients = clients_.size() - streams;
}

} // namespace zentmon
