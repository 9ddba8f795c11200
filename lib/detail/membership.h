// Membership of multicast groups as socket options: each of the kernel's five records with its level and
// name.
#ifndef MORVANE_DETAIL_MEMBERSHIP_H
#define MORVANE_DETAIL_MEMBERSHIP_H

#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "netops.h"
#include "sockaddr.h"

namespace mv {

static_assert(sizeof(struct group_req) == 136 && sizeof(struct group_source_req) == 264 &&
              sizeof(struct ip_mreq) == 8 && sizeof(struct ipv6_mreq) == 20 &&
              sizeof(struct ip_mreq_source) == 12);

// What an interface record says to a membership call; without one the kernel chooses.
struct IfcArgs {
    const char* name = nullptr;
    uint32_t idx = 0;
    struct sockaddr_storage* addr = nullptr;

    explicit IfcArgs(struct ifc_info* mifc)
    {
        if (mifc != nullptr) {
            name = mifc->name;
            idx = mifc->idx;
            addr = &mifc->ss;
        }
    }
};

// One socket option with the record that it takes. Stored as bytes, with room for the greatest: setsockopt()
// reads it by its length, and the options differ in nothing else for who applies them.
struct MembershipOption {
    int level;
    int name;
    socklen_t length;
    unsigned char record[sizeof(struct group_source_req)];

    template <class Record>
    MembershipOption(int level_, int name_, const Record& record_)
        : level(level_), name(name_), length(sizeof record_)
    {
        static_assert(sizeof record_ <= sizeof record);
        memcpy(record, &record_, sizeof record_);
    }
};

// Join or leave, by the option that knows both families.
inline MembershipOption generic_group(uint32_t ifc_idx, const struct sockaddr_storage* grp, int join)
{
    struct group_req request = {};
    request.gr_interface = ifc_idx;
    request.gr_group = *grp;
    return {af_level(grp->ss_family), join != 0 ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, request};
}

// By the older ones, of which each knows one family: IPv4 names an interface by an address of it.
inline MembershipOption ipv4_group(const struct sockaddr_storage* grp, const struct sockaddr_storage* ifc,
                                   int join)
{
    struct ip_mreq request = {};
    request.imr_multiaddr = ipv4_of(as_sockaddr(grp));
    request.imr_interface = ipv4_of(as_sockaddr(ifc));
    return {IPPROTO_IP, join != 0 ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, request};
}

inline MembershipOption ipv6_group(uint32_t ifc_idx, const struct sockaddr_storage* grp, int join)
{
    struct ipv6_mreq request = {};
    request.ipv6mr_multiaddr = ipv6_of(as_sockaddr(grp));
    request.ipv6mr_interface = ifc_idx;
    return {IPPROTO_IPV6, join != 0 ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, request};
}

// The same of one source of a group.
inline MembershipOption generic_source(uint32_t ifc_idx, const struct sockaddr_storage* grp,
                                       const struct sockaddr_storage* src, int join)
{
    struct group_source_req request = {};
    request.gsr_interface = ifc_idx;
    request.gsr_group = *grp;
    request.gsr_source = *src;
    return {af_level(grp->ss_family), join != 0 ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP,
            request};
}

inline MembershipOption ipv4_source(const struct sockaddr_storage* grp, const struct sockaddr_storage* src,
                                    const struct sockaddr_storage* ifc, int join)
{
    struct ip_mreq_source request = {};
    request.imr_multiaddr = ipv4_of(as_sockaddr(grp));
    request.imr_interface = ipv4_of(as_sockaddr(ifc));
    request.imr_sourceaddr = ipv4_of(as_sockaddr(src));
    return {IPPROTO_IP, join != 0 ? IP_ADD_SOURCE_MEMBERSHIP : IP_DROP_SOURCE_MEMBERSHIP, request};
}

} // namespace mv

#endif
