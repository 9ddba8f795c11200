#include "netns.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "wait.h"

namespace support {

namespace {

void write_file(const char* path, const std::string& text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        perror(path);
    }
    if (fd >= 0) {
        close(fd);
    }
}

// Without root: a user namespace of our own, in which we are.
bool become_namespace_root()
{
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (geteuid() == 0) {
        return true;
    }
    if (unshare(CLONE_NEWUSER) != 0) {
        return false;
    }
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    return true;
}

int own_netns()
{
    return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
}

// A fresh namespace with loopback up and no wait for duplicate addresses.
int new_netns()
{
    if (unshare(CLONE_NEWNET) != 0) {
        perror("unshare");
        abort();
    }
    write_file("/proc/sys/net/ipv6/conf/default/accept_dad", "0");
    write_file("/proc/sys/net/ipv6/conf/all/accept_dad", "0");
    must_run("ip link set lo up");
    return own_netns();
}

void bring_up(const char* name, int host)
{
    const std::string dev = name;
    const std::string id = std::to_string(host);
    must_run("ip addr add 10.0.0." + id + "/24 dev " + dev);
    must_run("ip -6 addr add fd00::" + id + "/64 dev " + dev + " nodad");
    must_run("ip link set " + dev + " up");
    must_run("ip route add default dev " + dev);
    must_run("ip -6 route add default dev " + dev);
}

// Whether the kernel is through with the news that both ends are up. It may put them off for a second; asked
// for the state of the link it attends to them first.
bool is_running(const std::string& name)
{
    ifreq request = {};
    strncpy(request.ifr_name, name.c_str(), sizeof request.ifr_name - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ethtool_value link = {};
    link.cmd = ETHTOOL_GLINK;
    request.ifr_data = reinterpret_cast<char*>(&link);
    (void)ioctl(fd, SIOCETHTOOL, &request);
    const bool known = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    close(fd);
    return known && (request.ifr_flags & IFF_RUNNING) != 0;
}

void enter(int fd)
{
    if (setns(fd, CLONE_NEWNET) != 0) {
        perror("setns");
        abort();
    }
}

} // namespace

void must_run(const std::string& command)
{
    const int status = system(command.c_str());
    if (status != 0) {
        fprintf(stderr, "failed: %s (status %d)\n", command.c_str(), status);
        abort();
    }
}

std::string netns_missing()
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(become_namespace_root() && unshare(CLONE_NEWNET) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status == 0 ? "" : "network namespaces are not allowed here";
}

void await_link(const std::string& name)
{
    if (!wait_until([&] { return is_running(name); })) {
        fprintf(stderr, "the link of %s does not come up\n", name.c_str());
        abort();
    }
}

NetnsPair::NetnsPair()
{
    become_namespace_root();
    own_ = own_netns();
    b_ = new_netns();
    a_ = new_netns();
    // The file descriptor must survive the exec of ip.
    const int passed = dup(b_);
    must_run("ip link add va type veth peer name vb netns /proc/" + std::to_string(getpid()) + "/fd/" +
             std::to_string(passed));
    close(passed);
    bring_up("va", 1);
    enter_b();
    bring_up("vb", 2);
    await_link("vb");
    enter_a();
    await_link("va");
    leave();
}

NetnsPair::~NetnsPair()
{
    leave();
    close(a_);
    close(b_);
    close(own_);
}

void NetnsPair::enter_a() const
{
    enter(a_);
}

void NetnsPair::enter_b() const
{
    enter(b_);
}

void NetnsPair::leave() const
{
    enter(own_);
}

} // namespace support
