// Values of socket addresses: their fields without casts between structures, their names as numbers.
#ifndef MORVANE_DETAIL_SOCKADDR_H
#define MORVANE_DETAIL_SOCKADDR_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace mv {

inline struct sockaddr* as_sockaddr(struct sockaddr_storage* ss)
{
    return reinterpret_cast<struct sockaddr*>(ss);
}

inline const struct sockaddr* as_sockaddr(const struct sockaddr_storage* ss)
{
    return reinterpret_cast<const struct sockaddr*>(ss);
}

// A field of the structure that stands behind a generic address. By memcpy: the storage is of another type,
// and a pointer that a caller gives need not be aligned for it.
template <class Field>
Field field_at(const struct sockaddr* sa, size_t offset)
{
    Field field;
    memcpy(&field, reinterpret_cast<const char*>(sa) + offset, sizeof field);
    return field;
}

template <class Field>
void put_field_at(struct sockaddr* sa, size_t offset, Field field)
{
    memcpy(reinterpret_cast<char*>(sa) + offset, &field, sizeof field);
}

inline struct in_addr ipv4_of(const struct sockaddr* sa)
{
    return field_at<struct in_addr>(sa, offsetof(struct sockaddr_in, sin_addr));
}

inline struct in6_addr ipv6_of(const struct sockaddr* sa)
{
    return field_at<struct in6_addr>(sa, offsetof(struct sockaddr_in6, sin6_addr));
}

inline uint32_t scope_id_of(const struct sockaddr* sa)
{
    return field_at<uint32_t>(sa, offsetof(struct sockaddr_in6, sin6_scope_id));
}

// The level of the socket options of a family; -1 for one that is not the Internet's.
inline int af_level(int af)
{
    switch (af) {
    case AF_INET: return IPPROTO_IP;
    case AF_INET6: return IPPROTO_IPV6;
    default: return -1;
    }
}

// A domain address whose path is terminated whatever the length says. The kernel's paths may fill sun_path
// without a terminator (unix(7)).
struct DomainAddr {
    struct sockaddr_un un = {};
    char end = 0;

    DomainAddr(const struct sockaddr* sa, socklen_t salen)
    {
        memcpy(&un, sa, std::min<size_t>(salen, sizeof un));
    }
};

// Host and service of an address as numbers. NI_NUMERIC...: no name server is asked, which could hold the
// loop up for seconds.
struct NumericName {
    char host[NI_MAXHOST] = {};
    char serv[NI_MAXSERV] = {};

    int resolve(const struct sockaddr* sa, socklen_t salen)
    {
        constexpr int flags = NI_NUMERICHOST | NI_NUMERICSERV;
        if (sa->sa_family != AF_UNIX) {
            return getnameinfo(sa, salen, host, sizeof host, serv, sizeof serv, flags);
        }
        const DomainAddr domain(sa, salen);
        return getnameinfo(reinterpret_cast<const struct sockaddr*>(&domain.un),
                           std::min<socklen_t>(salen, sizeof domain.un), host, sizeof host, serv, sizeof serv,
                           flags);
    }
};

} // namespace mv

#endif
