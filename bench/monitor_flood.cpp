// Sends lines to a receiver as agents would: each agent from an address of its own in 127.1.0.0/16, each line
// a change: JOIN of all groups of all agents, then LEAVE of all, and again.
//
// usage: monitor_flood PORT LINES_PER_SECOND TOTAL AGENTS GROUPS [SENDERS]
//
// A rate of 0 is as fast as it goes. SENDERS processes share the agents (1). A sender that was late does not
// send more than 2 ms of its lines at once: the rate is that of each moment. It says "sent N seconds S" on
// stdout.
#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kBatch = 25;       // lines of one agent at a time
constexpr double kMostLate = 0.002; // what is later is not made up for

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
    // Of the agents from the first on, each `step`-th one.
    Flood(uint16_t port, size_t first, size_t step, size_t agents, size_t groups)
    {
        const struct rlimit files = {65536, 65536};
        setrlimit(RLIMIT_NOFILE, &files);
        for (size_t i = first; i < agents; i += step) {
            sockets_.push_back(open_agent(static_cast<unsigned>(i), port));
        }
        for (size_t i = 0; i < groups; ++i) {
            const std::string group = "239." + std::to_string(1 + (i >> 16 & 0x7f)) + "." +
                                      std::to_string(i >> 8 & 0xff) + "." + std::to_string(i & 0xff) + "\n";
            joins_.push_back("JOIN UDP://" + group);
            leaves_.push_back("LEAVE UDP://" + group);
        }
    }

    // The next lines of one agent. How many were sent.
    size_t send_batch(size_t most)
    {
        std::vector<std::string>& lines = leaving_ ? leaves_ : joins_;
        struct iovec iov[kBatch];
        struct mmsghdr messages[kBatch] = {};
        size_t count = 0;
        for (; count < kBatch && count < most && group_ + count < lines.size(); ++count) {
            std::string& line = lines[group_ + count];
            iov[count] = {line.data(), line.size()};
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
        if (group_ < joins_.size()) {
            return;
        }
        group_ = 0;
        if (++agent_ == sockets_.size()) {
            agent_ = 0;
            leaving_ = !leaving_;
        }
    }

    std::vector<int> sockets_;
    std::vector<std::string> joins_, leaves_; // a line each group
    size_t group_ = 0;
    size_t agent_ = 0;
    bool leaving_ = false;
};

// Sends at a rate. How many.
size_t run(Flood& flood, double rate, size_t total)
{
    double start = seconds();
    size_t sent = 0;
    while (sent < total) {
        sent += flood.send_batch(total - sent);
        if (rate > 0) {
            const double due = start + static_cast<double>(sent) / rate;
            wait_for(due);
            start += std::max(0.0, seconds() - due - kMostLate);
        }
    }
    return sent;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6 && argc != 7) {
        fprintf(stderr, "usage: monitor_flood PORT LINES_PER_SECOND TOTAL AGENTS GROUPS [SENDERS]\n");
        return 2;
    }
    const auto number = [argv](int n) { return static_cast<size_t>(atol(argv[n])); };
    const size_t senders = argc == 7 ? number(6) : 1;
    const auto share = static_cast<double>(senders);
    const double start = seconds();
    for (size_t i = 0; i < senders; ++i) {
        if (fork() == 0) {
            Flood flood(static_cast<uint16_t>(number(1)), i, senders, number(4), number(5));
            run(flood, static_cast<double>(number(2)) / share, number(3) / senders);
            _exit(0);
        }
    }
    bool fine = true;
    for (int status = 0; wait(&status) > 0;) {
        fine = fine && status == 0;
    }
    printf("sent %zu seconds %.3f\n", number(3) / senders * senders, seconds() - start);
    return fine ? 0 : 1;
}
