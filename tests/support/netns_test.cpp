// The pair of namespaces that other tests stand on.
#include "../lib/netops_support.h"

#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>

using namespace net_test;
using support::FdGuard;
using support::NetnsPair;

namespace {

bool is_running(const char* name)
{
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request = {};
    strcpy(request.ifr_name, name);
    EXPECT_EQ(ioctl(fd, SIOCGIFFLAGS, &request), 0) << name;
    return (request.ifr_flags & IFF_RUNNING) != 0;
}

} // namespace

TEST(SupportNetns, both_ends_of_a_new_pair_are_running)
{
    NEEDS_NAMESPACES();
    FdGuard guard;
    for (int i = 0; i < 20; ++i) {
        const NetnsPair pair;
        EXPECT_TRUE(inside(pair, &NetnsPair::enter_a, [] { return is_running("va"); })) << i;
        EXPECT_TRUE(inside(pair, &NetnsPair::enter_b, [] { return is_running("vb"); })) << i;
    }
}

TEST(SupportNetns, first_datagrams_to_groups_arrive)
{
    NEEDS_NAMESPACES();
    FdGuard guard;
    for (const char* group : {"239.1.9.1", "ff15::91"}) {
        const NetnsPair pair;
        sockaddr_storage to = addr(group, 5004);
        const Fd reader(inside(pair, &NetnsPair::enter_b, [&] {
            const int fd = socket(to.ss_family, SOCK_DGRAM, 0);
            EXPECT_EQ(bind(fd, raw(to), size_of(to)), 0);
            EXPECT_EQ(mcast_join(fd, &to, nullptr), 0);
            return fd;
        }));
        const Fd writer(
            inside(pair, &NetnsPair::enter_a, [&] { return socket(to.ss_family, SOCK_DGRAM, 0); }));
        EXPECT_EQ(sendto(writer, "first", 5, 0, raw(to), size_of(to)), 5) << strerror(errno);
        pollfd wait{reader, POLLIN, 0};
        EXPECT_EQ(poll(&wait, 1, 120'000), 1) << group << ": the datagram is lost";
    }
}
