// What the tests of the socket layer share: addresses from texts, a private namespace, what the kernel says.
#ifndef TESTS_LIB_NETOPS_SUPPORT_H
#define TESTS_LIB_NETOPS_SUPPORT_H

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "logcap.h"
#include "netns.h"
#include "netops.h"
#include "tempdir.h"
#include "text.h"

namespace net_test {

using support::expect_abort;
using support::Fd;
using support::format;
using support::Lines;
using support::TempDir;

inline sockaddr* raw(sockaddr_storage& ss)
{
    return reinterpret_cast<sockaddr*>(&ss);
}

// An address of a numeric text, zeroed but for what is given.
inline sockaddr_storage addr(const std::string& host, uint16_t port = 0, uint32_t scope = 0)
{
    sockaddr_storage ss{};
    sockaddr_in in{};
    sockaddr_in6 in6{};
    if (inet_pton(AF_INET, host.c_str(), &in.sin_addr) == 1) {
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        memcpy(&ss, &in, sizeof in);
    } else {
        EXPECT_EQ(inet_pton(AF_INET6, host.c_str(), &in6.sin6_addr), 1) << host;
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(port);
        in6.sin6_scope_id = scope;
        memcpy(&ss, &in6, sizeof in6);
    }
    return ss;
}

inline sockaddr_storage of_family(int family)
{
    sockaddr_storage ss{};
    ss.ss_family = static_cast<sa_family_t>(family);
    return ss;
}

inline socklen_t size_of(const sockaddr_storage& ss)
{
    return ss.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

inline uint16_t port_of(const sockaddr_storage& ss)
{
    sockaddr_in in;
    memcpy(&in, &ss, sizeof in);
    return ntohs(in.sin_port);
}

inline uint32_t scope_of(const sockaddr_storage& ss)
{
    sockaddr_in6 in6;
    memcpy(&in6, &ss, sizeof in6);
    return in6.sin6_scope_id;
}

inline std::string str(sockaddr_storage ss)
{
    char buf[128];
    const char* shown = saddr_str(raw(ss), sizeof ss, buf, sizeof buf);
    return shown != nullptr ? shown : "(none)";
}

// The address that a socket is bound to.
inline sockaddr_storage bound_to(int fd)
{
    sockaddr_storage ss{};
    socklen_t length = sizeof ss;
    EXPECT_EQ(getsockname(fd, raw(ss), &length), 0);
    return ss;
}

inline int int_option(int fd, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << strerror(errno);
    return value;
}

inline bool is_nonblocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

inline std::string contents(const char* path)
{
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// Whether the interface has joined the group, as the kernel lists it.
inline bool is_member(const std::string& ifc, const sockaddr_storage& group)
{
    char line[256];
    char wanted[64];
    bool is_here = false;
    if (group.ss_family == AF_INET) {
        sockaddr_in in;
        memcpy(&in, &group, sizeof in);
        snprintf(wanted, sizeof wanted, "%08X", in.sin_addr.s_addr);
        FILE* file = fopen("/proc/self/net/igmp", "r");
        bool found = false;
        while (fgets(line, sizeof line, file) != nullptr) {
            char name[32];
            char group_text[32];
            if (line[0] != '\t' && sscanf(line, "%*d %31s", name) == 1) {
                is_here = ifc == name;
            } else if (is_here && sscanf(line, " %31s", group_text) == 1) {
                found = found || strcmp(group_text, wanted) == 0;
            }
        }
        fclose(file);
        return found;
    }
    sockaddr_in6 in6;
    memcpy(&in6, &group, sizeof in6);
    for (int i = 0; i < 16; ++i) {
        snprintf(wanted + 2 * i, 3, "%02x", in6.sin6_addr.s6_addr[i]);
    }
    FILE* file = fopen("/proc/self/net/igmp6", "r");
    while (fgets(line, sizeof line, file) != nullptr) {
        char name[32];
        char group_text[64];
        is_here = is_here || (sscanf(line, "%*d %31s %63s", name, group_text) == 2 && ifc == name &&
                              strcmp(group_text, wanted) == 0);
    }
    fclose(file);
    return is_here;
}

// Whether a socket of the interface takes the group from that one source (IPv4).
inline bool has_source_filter(const std::string& ifc, const std::string& group, const std::string& source)
{
    in_addr g;
    in_addr s;
    inet_pton(AF_INET, group.c_str(), &g);
    inet_pton(AF_INET, source.c_str(), &s);
    std::istringstream all(contents("/proc/self/net/mcfilter"));
    std::string line;
    bool found = false;
    while (std::getline(all, line)) {
        char name[32];
        unsigned int group_number = 0;
        unsigned int source_number = 0;
        unsigned int includes = 0;
        found =
            found ||
            (sscanf(line.c_str(), "%*d %31s %x %x %u", name, &group_number, &source_number, &includes) == 4 &&
             ifc == name && group_number == ntohl(g.s_addr) && source_number == ntohl(s.s_addr) &&
             includes > 0);
    }
    return found;
}

// A private namespace with loopback alone: what is not there is refused at once. The scope's end goes back.
class LoopbackNet {
  public:
    LoopbackNet() : own_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC))
    {
        if (unshare(CLONE_NEWNET) != 0) {
            perror("unshare");
            abort();
        }
        support::must_run("ip link set lo up");
    }

    LoopbackNet(const LoopbackNet&) = delete;
    LoopbackNet& operator=(const LoopbackNet&) = delete;

    ~LoopbackNet()
    {
        EXPECT_EQ(setns(own_, CLONE_NEWNET), 0);
        close(own_);
    }

  private:
    int own_;
};

} // namespace net_test

#define NEEDS_NAMESPACES()                                                                                   \
    if (const std::string missing = support::netns_missing(); !missing.empty())                              \
    GTEST_SKIP() << "skipped: " << missing

#endif
