// Sends lines to a receiver as agents would: each agent from an address of its own in 127.1.0.0/16, each line
// a change: JOIN of all groups of all agents, then LEAVE of all, and again.
//
// usage: monitor_flood PORT LINES_PER_SECOND TOTAL AGENTS GROUPS
//
// A rate of 0 is as fast as it goes. It says "sent N seconds S" on stdout.
#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr size_t kBatch = 25; // lines of one agent at a time

double seconds()
{
    struct timespec t = {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

int open_agent(unsigned number, uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(0x7f010001 + number);
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr*>(&own), sizeof own) != 0 ||
        connect(fd, reinterpret_cast<struct sockaddr*>(&to), sizeof to) != 0) {
        perror("monitor_flood");
        exit(1);
    }
    return fd;
}

void wait_for(double due)
{
    const double left = due - seconds();
    if (left > 50e-6) {
        const auto whole = static_cast<time_t>(left);
        const struct timespec pause = {whole, static_cast<long>((left - static_cast<double>(whole)) * 1e9)};
        nanosleep(&pause, nullptr);
    }
}

class Flood {
  public:
    Flood(uint16_t port, size_t agents, size_t groups) : groups_(groups)
    {
        const struct rlimit files = {65536, 65536};
        setrlimit(RLIMIT_NOFILE, &files);
        for (size_t i = 0; i < agents; ++i) {
            sockets_.push_back(open_agent(static_cast<unsigned>(i), port));
        }
    }

    // The next lines of one agent. How many were sent.
    size_t send_batch(size_t most)
    {
        char text[kBatch][40];
        struct iovec iov[kBatch];
        struct mmsghdr messages[kBatch] = {};
        size_t count = 0;
        for (; count < kBatch && count < most && group_ + count < groups_; ++count) {
            const auto group = static_cast<unsigned>(group_ + count);
            const int n = snprintf(text[count], sizeof text[count], "%s UDP://239.%u.%u.%u\n",
                                   leaving_ ? "LEAVE" : "JOIN", 1 + (group >> 16 & 0x7f), group >> 8 & 0xff,
                                   group & 0xff);
            iov[count] = {text[count], static_cast<size_t>(n)};
            messages[count].msg_hdr.msg_iov = &iov[count];
            messages[count].msg_hdr.msg_iovlen = 1;
        }
        const int sent = sendmmsg(sockets_[agent_], messages, static_cast<unsigned>(count), 0);
        advance(sent > 0 ? static_cast<size_t>(sent) : 0);
        return sent > 0 ? static_cast<size_t>(sent) : 0;
    }

  private:
    void advance(size_t sent)
    {
        group_ += sent;
        if (group_ < groups_) {
            return;
        }
        group_ = 0;
        if (++agent_ == sockets_.size()) {
            agent_ = 0;
            leaving_ = !leaving_;
        }
    }

    std::vector<int> sockets_;
    size_t groups_;
    size_t group_ = 0;
    size_t agent_ = 0;
    bool leaving_ = false;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        fprintf(stderr, "usage: monitor_flood PORT LINES_PER_SECOND TOTAL AGENTS GROUPS\n");
        return 2;
    }
    const double rate = atof(argv[2]);
    const auto total = static_cast<size_t>(atol(argv[3]));
    Flood flood(static_cast<uint16_t>(atoi(argv[1])), static_cast<size_t>(atol(argv[4])),
                static_cast<size_t>(atol(argv[5])));
    const double start = seconds();
    size_t sent = 0;
    while (sent < total) {
        sent += flood.send_batch(total - sent);
        if (rate > 0) {
            wait_for(start + static_cast<double>(sent) / rate);
        }
    }
    printf("sent %zu seconds %.3f\n", sent, seconds() - start);
    return 0;
}
