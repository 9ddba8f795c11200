// A site for the tests of the HTTP side: loop, state, ring, answers and server in a child process, which is
// told by lines on a socket what agents report; and a client that speaks raw bytes.
#ifndef TESTS_MONITOR_HTTP_SITE_H
#define TESTS_MONITOR_HTTP_SITE_H

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "api.h"
#include "http.h"
#include "log.h"
#include "loop.h"
#include "wait.h"

namespace support {

struct SiteOptions {
    zentmon::HttpLimits http;
    zentmon::StreamLimits stream;
    zentmon::StateOptions state;
    std::vector<std::string> hosts;
    bool history = false; // with a history that answers as HistoryStub does
};

// Answers "at once" and "later"; a limit of 0 is a bad parameter, an agent "away" makes the database be away,
// an agent "large" an answer of kLargeAnswer bytes.
class HistoryStub : public zentmon::HistoryReader {
  public:
    static constexpr size_t kLargeAnswer = size_t{40} << 20;

    bool ask(const Parameters& parameters, std::function<void(zentmon::HistoryAnswer)> done) override
    {
        for (const auto& [name, value] : parameters) {
            if (name == "limit" && value == "0") {
                return false;
            }
            if (name == "agent" && value == "away") {
                done({true, {}});
                return true;
            }
            if (name == "agent" && value == "later") {
                done_ = std::move(done);
                timer_.start_ms(20);
                return true;
            }
            if (name == "agent" && value == "large") {
                done({false, std::string(kLargeAnswer, ' ')});
                return true;
            }
        }
        done({false, R"({"events":[],"next":null})"});
        return true;
    }

  private:
    std::function<void(zentmon::HistoryAnswer)> done_;
    zentmon::Timer timer_{[this] { done_({false, R"({"events":[{"id":"x-1"}],"next":"x-1"})"}); }};
};

// The child's side of the control socket. Each line is answered by "ok":
//   JOIN|LEAVE LISTENER ADDRESS PORT GROUP    a line of an agent
//   MANY COUNT ADDRESS                         so many joins of 239.1.0.0 and up
//   NAME ADDRESS TEXT                          the only name that is given, as at SIGHUP
class Control : public zentmon::Handler {
  public:
    Control(int fd, zentmon::State& state) : fd_(fd), state_(state) { watch_.start(fd, this); }

    void on_readable() override
    {
        char buffer[4096];
        const ssize_t got = read(fd_, buffer, sizeof buffer);
        if (got <= 0) {
            zentmon::Loop::stop();
            return;
        }
        text_.append(buffer, static_cast<size_t>(got));
        for (size_t end = text_.find('\n'); end != std::string::npos; end = text_.find('\n')) {
            take(text_.substr(0, end));
            text_.erase(0, end + 1);
            (void)!write(fd_, "ok\n", 3);
        }
    }

  private:
    void take(const std::string& line)
    {
        char word[8] = "";
        char listener[64] = "";
        char address[64] = "";
        char group[32] = "";
        unsigned port = 0;
        unsigned count = 0;
        const zentmon::Now now = zentmon::now();
        if (sscanf(line.c_str(), "MANY %u %63s", &count, address) == 2) {
            for (unsigned i = 0; i < count; ++i) {
                state_.apply("site", address, 1, zentmon::LineKind::join, 0xef010000 + i, now);
            }
        } else if (sscanf(line.c_str(), "NAME %63s %63s", address, listener) == 2) {
            state_.rename({{address, listener}});
        } else if (sscanf(line.c_str(), "%7s %63s %63s %u %31s", word, listener, address, &port, group) ==
                   5) {
            const auto kind = strcmp(word, "JOIN") == 0 ? zentmon::LineKind::join : zentmon::LineKind::leave;
            state_.apply(listener, address, static_cast<uint16_t>(port), kind, ntohl(inet_addr(group)), now);
        }
    }

    int fd_;
    zentmon::State& state_;
    zentmon::Watch watch_;
    std::string text_;
};

class HttpSite {
  public:
    explicit HttpSite(const SiteOptions& options = {})
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(pair[0]);
            _Exit(serve(options, pair[1]));
        }
        close(pair[1]);
        control_ = pair[0];
        port_ = static_cast<uint16_t>(strtoul(answer().c_str(), nullptr, 10));
        EXPECT_NE(port_, 0);
    }

    HttpSite(const HttpSite&) = delete;
    HttpSite& operator=(const HttpSite&) = delete;

    ~HttpSite()
    {
        close(control_); // which ends the loop
        int status = 0;
        waitpid(pid_, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the site ended with " << status;
    }

    void tell(const std::string& line)
    {
        const std::string text = line + "\n";
        ASSERT_EQ(write(control_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ASSERT_EQ(answer(), "ok");
    }

    uint16_t port() const { return port_; }

  private:
    static int serve(const SiteOptions& options, int control_fd)
    {
        using namespace zentmon;
        signal(SIGPIPE, SIG_IGN);
        if (Loop::init() != 0) {
            return 1;
        }
        {
            Counters counters;
            State state(options.state, counters);
            EventRing ring(options.stream);
            HistoryStub history;
            state.add_sink(&ring);
            ApiSources sources;
            sources.state = &state;
            sources.ring = &ring;
            sources.counters = &counters;
            sources.history = options.history ? &history : nullptr;
            counters.listeners.push_back({"site", 3, 0});
            sources.version = "1.2.3";
            Api api(sources);
            HttpServer server(api, options.hosts, counters, options.http);
            api.bind(&server);
            Endpoint at;
            auto* in = reinterpret_cast<struct sockaddr_in*>(&at.ss);
            in->sin_family = AF_INET;
            in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            at.len = sizeof *in;
            if (server.listen(at) != 0) {
                return 1;
            }
            Control control(control_fd, state);
            const struct sockaddr_storage bound = server.address();
            const uint16_t number = ntohs(reinterpret_cast<const struct sockaddr_in*>(&bound)->sin_port);
            const std::string port = std::to_string(number) + "\n";
            (void)!write(control_fd, port.data(), port.size());
            Loop::run([] {});
        }
        Loop::destroy();
        return 0;
    }

    std::string answer()
    {
        std::string line;
        char c = 0;
        while (read(control_, &c, 1) == 1 && c != '\n') {
            line += c;
        }
        return line;
    }

    pid_t pid_ = -1;
    int control_ = -1;
    uint16_t port_ = 0;
};

struct HttpAnswer {
    int code = 0;
    std::string head;
    std::string body; // without chunks

    // The value of a field, which must stand in the head once; empty otherwise.
    std::string field(const std::string& name) const
    {
        const std::string start = "\r\n" + name + ": ";
        const size_t at = head.find(start);
        if (at == std::string::npos || head.find(start, at + 1) != std::string::npos) {
            return {};
        }
        const size_t value = at + start.size();
        return head.substr(value, head.find("\r\n", value) - value);
    }
};

// A connection that speaks raw bytes.
class RawClient {
  public:
    explicit RawClient(uint16_t port, int receive_buffer = 0)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receive_buffer > 0) {
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
        }
        struct sockaddr_in in = {};
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_, reinterpret_cast<struct sockaddr*>(&in), sizeof in), 0) << strerror(errno);
    }

    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    ~RawClient() { close(fd_); }

    // False where the peer has closed; all of it otherwise.
    bool send(const std::string& bytes)
    {
        size_t at = 0;
        while (at < bytes.size()) {
            const ssize_t sent = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            at += static_cast<size_t>(sent);
        }
        return true;
    }

    void get(const std::string& target, const std::string& fields = {})
    {
        send("GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n");
    }

    void end_of_requests() { shutdown(fd_, SHUT_WR); }

    // Reads some more into the buffer. False at the end, or when the limit has passed.
    bool read_some(int limit_ms = 120'000)
    {
        struct pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, limit_ms) != 1) {
            timed_out_ = true;
            return false;
        }
        char buffer[65536];
        const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
        if (got > 0) {
            in_.append(buffer, static_cast<size_t>(got));
        }
        return got > 0;
    }

    // Until a text is there; what stands in front of it and the text are taken. False at the end.
    bool read_until(const std::string& text, std::string* taken = nullptr)
    {
        size_t at = in_.find(text);
        while (at == std::string::npos) {
            const size_t from = in_.size() < text.size() ? 0 : in_.size() - text.size();
            if (!read_some()) {
                return false;
            }
            at = in_.find(text, from);
        }
        if (taken != nullptr) {
            *taken = in_.substr(0, at + text.size());
        }
        in_.erase(0, at + text.size());
        return true;
    }

    // One whole answer; of HEAD the head alone.
    HttpAnswer answer(bool head_only = false)
    {
        HttpAnswer answer;
        if (!read_until("\r\n\r\n", &answer.head)) {
            return answer;
        }
        answer.code = answer.head.size() > 12 ? atoi(answer.head.c_str() + 9) : 0;
        const std::string length = answer.field("Content-Length");
        if (head_only) {
            return answer;
        }
        if (!length.empty()) {
            take(strtoul(length.c_str(), nullptr, 10), answer.body);
        } else if (answer.field("Transfer-Encoding") == "chunked") {
            while (take_chunk(answer.body)) {
            }
        } else {
            while (read_some()) {
            }
            answer.body = std::exchange(in_, {});
        }
        return answer;
    }

    // One chunk; false at the last one.
    bool take_chunk(std::string& body)
    {
        std::string line;
        if (!read_until("\r\n", &line)) {
            return false;
        }
        const size_t size = strtoul(line.c_str(), nullptr, 16);
        take(size, body);
        read_until("\r\n");
        return size > 0;
    }

    // Whether the server ends the connection, whatever it still sends.
    bool ends()
    {
        while (read_some()) {
        }
        return !timed_out_;
    }

    int fd() const { return fd_; }

  private:
    void take(size_t size, std::string& body)
    {
        while (in_.size() < size && read_some()) {
        }
        body += in_.substr(0, size);
        in_.erase(0, size);
    }

    int fd_;
    std::string in_;
    bool timed_out_ = false;
};

inline HttpAnswer http_get(const HttpSite& site, const std::string& target)
{
    RawClient client(site.port());
    client.get(target);
    return client.answer();
}

} // namespace support

#endif
