// How long a watcher takes from a frame to its line: agent_latency IFACE COUNT FD
// Joins COUNT groups one by one on IFACE, as the kernel does it by default, 50 ms apart. A packet socket
// tells when the frame left, FD (an inherited pipe) when the watcher's line came: the first behind the frame
// that names the group, or any. Prints for both, the watcher and the host's own delay from the call to the
// frame, median and maximum in microseconds.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t kPaceNs = 50'000'000;
constexpr int kLimitMs = 10'000;

[[noreturn]] void fail(const char* what)
{
    perror(what);
    exit(1);
}

int64_t nanoseconds(const timespec& ts)
{
    return int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

// The kernel stamps frames by this clock.
int64_t now()
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return nanoseconds(ts);
}

class Segment {
  public:
    explicit Segment(const char* name) : index_(static_cast<int>(if_nametoindex(name)))
    {
        const int one = 1;
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = index_;
        raw_ = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
        host_ = socket(AF_INET, SOCK_DGRAM, 0);
        if (raw_ < 0 || host_ < 0 || setsockopt(raw_, SOL_SOCKET, SO_TIMESTAMPNS, &one, sizeof one) != 0 ||
            bind(raw_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            fail("packet socket");
        }
    }

    int raw() const { return raw_; }

    void join(in_addr group) const
    {
        ip_mreqn request = {};
        request.imr_multiaddr = group;
        request.imr_ifindex = index_;
        if (setsockopt(host_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
            fail("IP_ADD_MEMBERSHIP");
        }
    }

    // The stamp of a frame, if it names the group; else 0.
    int64_t frame_with(in_addr group) const
    {
        std::array<char, 2048> bytes;
        alignas(cmsghdr) std::array<char, 256> control;
        iovec part = {bytes.data(), bytes.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t n = recvmsg(raw_, &message, 0);
        const auto* needle = reinterpret_cast<const char*>(&group);
        if (n <= 0 ||
            std::search(bytes.begin(), bytes.begin() + n, needle, needle + 4) == bytes.begin() + n) {
            return 0;
        }
        const cmsghdr* head = CMSG_FIRSTHDR(&message);
        if (head == nullptr || head->cmsg_type != SCM_TIMESTAMPNS) {
            return 0;
        }
        timespec stamp;
        memcpy(&stamp, CMSG_DATA(head), sizeof stamp);
        return nanoseconds(stamp);
    }

  private:
    int index_;
    int raw_;
    int host_;
};

struct Sample {
    int64_t host_ns;
    int64_t line_ns;
};

// Whether a text names the group, and not one whose last octet only begins like it.
bool names(const std::string& text, const std::string& group)
{
    const size_t at = text.find(group);
    return at != std::string::npos && at + group.size() < text.size() &&
           isdigit(static_cast<unsigned char>(text[at + group.size()])) == 0;
}

// One join, until its frame and its line are there.
Sample measure(const Segment& segment, int lines, in_addr group, const std::string& group_name)
{
    std::string text;
    int64_t frame = 0;
    int64_t line = 0;
    const int64_t start = now();
    segment.join(group);
    while (frame == 0 || line == 0) {
        pollfd waits[] = {{segment.raw(), POLLIN, 0}, {lines, POLLIN, 0}};
        if (poll(waits, 2, kLimitMs) <= 0) {
            fprintf(stderr, "agent_latency: no line with %s\n", group_name.c_str());
            exit(1);
        }
        const int64_t at = now();
        if ((waits[1].revents & (POLLIN | POLLHUP)) != 0) {
            char block[4096];
            const ssize_t n = read(lines, block, sizeof block);
            text.append(block, n > 0 ? static_cast<size_t>(n) : 0);
            line = line == 0 && names(text, group_name) ? at : line;
        }
        if (frame == 0 && (waits[0].revents & POLLIN) != 0) {
            frame = segment.frame_with(group);
        }
    }
    return {frame - start, line - frame};
}

void print(std::vector<int64_t> values)
{
    std::sort(values.begin(), values.end());
    printf("%.0f %.0f ", static_cast<double>(values[values.size() / 2]) / 1e3,
           static_cast<double>(values.back()) / 1e3);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: agent_latency IFACE COUNT FD\n");
        return 2;
    }
    const Segment segment(argv[1]);
    const int lines = atoi(argv[3]);
    std::vector<int64_t> host;
    std::vector<int64_t> line;
    for (int i = 0; i < atoi(argv[2]); ++i) {
        const int64_t next = now() + kPaceNs;
        const std::string text = "239.50." + std::to_string(i / 100) + "." + std::to_string(1 + i % 100);
        in_addr group;
        inet_aton(text.c_str(), &group);
        const Sample sample = measure(segment, lines, group, text);
        host.push_back(sample.host_ns);
        line.push_back(sample.line_ns);
        while (now() < next) {
            usleep(1000);
        }
    }
    print(line);
    print(host);
    puts("");
    return 0;
}
