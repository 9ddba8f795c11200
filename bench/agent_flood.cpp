// Sends IGMPv2 frames on an interface at a given rate: agent_flood IFACE COUNT RATE changes|repeats
// "changes": reports and leaves of 512 groups by turns, so that each frame is a change. "repeats": one round
// of reports, then the same reports over and over, with one change in a hundred. RATE is frames a second, 0
// for as fast as it goes; what a pause of this program's own has cost is made up for 10 ms of it, so that no
// burst at many times the rate follows. Prints the frames sent, the rate reached, and the milliseconds given
// up so.
#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kGroups = 512;
constexpr size_t kBatch = 64;
constexpr size_t kFrameLength = 42;
constexpr double kMadeUp = 0.01; // seconds

using Frame = std::array<uint8_t, kFrameLength>;

// Last octets stay below 128: the agent's tables keep such groups in one total order.
Frame make_frame(size_t group, uint8_t type)
{
    Frame frame = {0x01, 0x00, 0x5e, 0x01, 0x02, 0x03, 0x02, 0, 0, 0, 0, 0x02, 0x08, 0x00};
    uint8_t* ip = frame.data() + 14;
    ip[0] = 0x45;
    ip[3] = 28;
    ip[8] = 1;
    ip[9] = 2;
    const uint8_t address[4] = {239, 1, static_cast<uint8_t>(group / 100), static_cast<uint8_t>(group % 100)};
    memcpy(ip + 16, address, 4);
    ip[20] = type;
    memcpy(ip + 24, address, 4);
    return frame;
}

double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The frame that is sent as number n.
const Frame& frame_at(const std::vector<Frame>& reports, const std::vector<Frame>& leaves, size_t n,
                      bool changes)
{
    const size_t round = n / kGroups;
    if (changes) {
        return round % 2 == 0 ? reports[n % kGroups] : leaves[n % kGroups];
    }
    if (round > 0 && n % 100 == 0) {
        return (n / 100) % 2 == 0 ? leaves[0] : reports[0];
    }
    return reports[1 + n % (kGroups - 1)];
}

// Waits without sleep. Where it is so late already that catching up would be a burst, due is moved to what
// can be made up; gives the seconds by which it was.
double wait_until(double& due)
{
    double at = now();
    while (at < due) {
        at = now();
    }
    const double late = at - due - kMadeUp;
    if (late <= 0) {
        return 0;
    }
    due += late;
    return late;
}

void send_all(int fd, size_t count, double rate, bool changes)
{
    std::vector<Frame> reports;
    std::vector<Frame> leaves;
    for (size_t group = 0; group < kGroups; ++group) {
        reports.push_back(make_frame(group, 22));
        leaves.push_back(make_frame(group, 23));
    }
    const double start = now();
    double due = start; // when the next batch is to go
    double given_up = 0;
    for (size_t sent = 0; sent < count;) {
        iovec parts[kBatch];
        mmsghdr messages[kBatch] = {};
        size_t batch = 0;
        for (; batch < kBatch && sent + batch < count; ++batch) {
            const Frame& frame = frame_at(reports, leaves, sent + batch, changes);
            parts[batch] = {const_cast<uint8_t*>(frame.data()), frame.size()};
            messages[batch].msg_hdr.msg_iov = &parts[batch];
            messages[batch].msg_hdr.msg_iovlen = 1;
        }
        const int n = sendmmsg(fd, messages, static_cast<unsigned>(batch), 0);
        if (n < 0) {
            continue; // no buffer space: once more
        }
        sent += static_cast<size_t>(n);
        if (rate > 0) {
            due += n / rate;
            given_up += wait_until(due);
        }
    }
    const double seconds = now() - start;
    printf("%zu %.0f %.0f\n", count, static_cast<double>(count) / seconds, given_up * 1000);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: agent_flood IFACE COUNT RATE changes|repeats\n");
        return 2;
    }
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(argv[1]));
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        perror("packet socket");
        return 1;
    }
    send_all(fd, strtoul(argv[2], nullptr, 10), strtod(argv[3], nullptr), strcmp(argv[4], "changes") == 0);
    close(fd);
    return 0;
}
