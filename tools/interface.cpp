// One dump of all links. sysfs would be easier to read, and shows another namespace's interfaces where it was
// not mounted anew.
#include "interface.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "command.h"
#include "netops.h"

namespace zentctl {

namespace {

constexpr size_t kReplyMax = 65536;

class Netlink {
  public:
    Netlink() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}

    Netlink(const Netlink&) = delete;
    Netlink& operator=(const Netlink&) = delete;

    ~Netlink()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    bool ask_for_links() const
    {
        struct {
            nlmsghdr header;
            ifinfomsg body;
        } request = {};

        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = RTM_GETLINK;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        return fd_ >= 0 && send(fd_, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
    }

    ssize_t receive(char* block, size_t size) const { return recv(fd_, block, size, 0); }

  private:
    int fd_;
};

std::string text_of(const rtattr* attribute)
{
    const auto* text = static_cast<const char*>(RTA_DATA(attribute));
    return std::string(text, strnlen(text, RTA_PAYLOAD(attribute)));
}

int number_of(const rtattr* attribute)
{
    int number = 0;
    memcpy(&number, RTA_DATA(attribute), std::min<size_t>(sizeof number, RTA_PAYLOAD(attribute)));
    return number;
}

template <class Take>
void for_each(const rtattr* attribute, unsigned length, Take take)
{
    for (; RTA_OK(attribute, length); attribute = RTA_NEXT(attribute, length)) {
        take(attribute->rta_type & NLA_TYPE_MASK, attribute);
    }
}

Interface read_link(const nlmsghdr* message)
{
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    Interface result;
    bool is_elsewhere = false;
    result.index = info->ifi_index;
    result.type = info->ifi_type;
    result.is_up = (info->ifi_flags & IFF_UP) != 0;
    result.has_carrier = (info->ifi_flags & IFF_RUNNING) != 0;
    for_each(
        IFLA_RTA(info), static_cast<unsigned>(IFLA_PAYLOAD(message)), [&](int type, const rtattr* attribute) {
            switch (type) {
            case IFLA_IFNAME: result.name = text_of(attribute); break;
            case IFLA_MASTER: result.master = number_of(attribute); break;
            case IFLA_LINK: result.lower = number_of(attribute); break;
            case IFLA_LINK_NETNSID: is_elsewhere = true; break;
            case IFLA_LINKINFO:
                for_each(static_cast<const rtattr*>(RTA_DATA(attribute)),
                         static_cast<unsigned>(RTA_PAYLOAD(attribute)), [&](int inner, const rtattr* text) {
                             if (inner == IFLA_INFO_KIND) {
                                 result.kind = text_of(text);
                             } else if (inner == IFLA_INFO_SLAVE_KIND) {
                                 result.member_kind = text_of(text);
                             }
                         });
                break;
            default: break;
            }
        });
    result.lower = is_elsewhere ? 0 : result.lower;
    return result;
}

} // namespace

std::vector<Interface> all_interfaces()
{
    const Netlink kernel;
    std::vector<Interface> result;
    std::vector<char> block(kReplyMax);
    if (!kernel.ask_for_links()) {
        throw CannotLook("internal", std::string("the list of interfaces: ") + strerror(errno));
    }
    while (true) {
        const ssize_t n = kernel.receive(block.data(), block.size());
        if (n <= 0) {
            throw CannotLook("internal", std::string("the list of interfaces: ") + strerror(errno));
        }
        auto length = static_cast<unsigned>(n);
        for (auto* message = reinterpret_cast<const nlmsghdr*>(block.data()); NLMSG_OK(message, length);
             message = NLMSG_NEXT(message, length)) {
            if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
                return result;
            }
            if (message->nlmsg_type == RTM_NEWLINK) {
                result.push_back(read_link(message));
            }
        }
    }
}

std::optional<uint32_t> ipv4_of(const std::string& name)
{
    sockaddr_in address = {};
    if (ifc_addr_lookup(AF_INET, name.c_str(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return {};
    }
    return ntohl(address.sin_addr.s_addr);
}

} // namespace zentctl
