// Socket addresses and interfaces, sockets of every kind from one description, multicast membership,
// listeners, local domain sockets and socket options.
#include "netops.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ifaddrs.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <strings.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "detail/app_flags.h"
#include "detail/kept_errno.h"
#include "detail/membership.h"
#include "detail/owned.h"
#include "detail/shown.h"
#include "detail/sockaddr.h"
#include "libmeta.h"
#include "log.h"
#include "syswrap.h"

DECLARE_MLL(MLL_COMMON);

MV_APP_FLAG(g_quit);

// ==== Addresses and interfaces ===========================================================================

namespace {

using mv::af_level;
using mv::as_sockaddr;
using mv::DomainAddr;
using mv::ipv4_of;
using mv::ipv6_of;
using mv::KeptErrno;
using mv::NumericName;
using mv::put_field_at;
using mv::scope_id_of;
using mv::shown;

static_assert(sizeof(struct sockaddr_in) == 16 && sizeof(struct sockaddr_in6) == 28 &&
              sizeof(struct sockaddr_un) == 110 && sizeof(struct sockaddr_storage) == 128);
static_assert(IF_NAMESIZE == 16 && NI_MAXHOST == 1025 && NI_MAXSERV == 32);

// The list is freed behind a failed step too, whose errno the caller is to see.
struct FreeAddrinfo {
    void operator()(struct addrinfo* list) const
    {
        const KeptErrno kept;
        freeaddrinfo(list);
    }
};

struct FreeIfaddrs {
    void operator()(struct ifaddrs* list) const { freeifaddrs(list); }
};

using AddrinfoList = std::unique_ptr<struct addrinfo, FreeAddrinfo>;
using IfaddrsList = std::unique_ptr<struct ifaddrs, FreeIfaddrs>;

// The words that a configuration may use for a family.
struct FamilyWord {
    const char* word;
    int family;
};

constexpr FamilyWord kFamilyWords[] = {
    {"inet4", AF_INET},     {"inet", AF_INET},   {"ipv4", AF_INET},  {"af_inet", AF_INET},
    {"pf_inet", AF_INET},   {"inet6", AF_INET6}, {"ipv6", AF_INET6}, {"af_inet6", AF_INET6},
    {"pf_inet6", AF_INET6}, {"", AF_UNSPEC},     {"any", AF_UNSPEC}, {"unspec", AF_UNSPEC},
    {"anyaddr", AF_UNSPEC},
};

// The result for another family is greater than every room, so that no test of a length lets it pass.
socklen_t family_size(const char* caller, int family)
{
    switch (family) {
    case AF_INET: return sizeof(struct sockaddr_in);
    case AF_INET6: return sizeof(struct sockaddr_in6);
    default:
        log_err("%s: unrecognized socket family: %d\n", caller, family);
        return static_cast<socklen_t>(-1);
    }
}

socklen_t saddr_len(const struct sockaddr* sa)
{
    return family_size(__func__, sa->sa_family);
}

void cpy_sockaddr(const struct sockaddr* src, struct sockaddr* dst, socklen_t len)
{
    const socklen_t size = saddr_len(src);
    ASSERT(size > 0 && size <= len);
    memcpy(dst, src, size);
}

void cpy_anyaddr(int family, struct sockaddr_storage* ss)
{
    struct sockaddr* sa = as_sockaddr(ss);
    switch (family) {
    case AF_INET: put_field_at(sa, offsetof(struct sockaddr_in, sin_addr), in_addr{INADDR_ANY}); break;
    case AF_INET6: put_field_at(sa, offsetof(struct sockaddr_in6, sin6_addr), in6addr_any); break;
    default: abort();
    }
    ss->ss_family = static_cast<sa_family_t>(family);
}

// Addresses alone: neither the port counts nor the scope.
bool saddr_equal(const struct sockaddr* a, const struct sockaddr* b)
{
    ASSERT(a->sa_family == b->sa_family);
    switch (a->sa_family) {
    case AF_INET: return ipv4_of(a).s_addr == ipv4_of(b).s_addr;
    case AF_INET6: {
        const struct in6_addr left = ipv6_of(a);
        const struct in6_addr right = ipv6_of(b);
        return memcmp(&left, &right, sizeof left) == 0;
    }
    default:
        log_err("%s: unrecognized family: %d\n", __func__, a->sa_family);
        ASSERT(false);
        return false;
    }
}

// What the two dumps share: the numbers of an address, or the reason on the stream why there are none.
bool resolve_for_dump(FILE* out, const char* caller, const struct sockaddr* sa, socklen_t salen,
                      NumericName& name)
{
    const int rc = name.resolve(sa, salen);
    if (rc != 0) {
        fprintf(out, "%s: getnameinfo error (%d): %s\n", caller, rc, gai_strerror(rc));
    }
    return rc == 0;
}

// The addresses of all interfaces; an empty list, logged, with the error where they cannot be had.
IfaddrsList list_interfaces(const char* caller, const char* ifc, int family, int* error)
{
    struct ifaddrs* list = nullptr;
    *error = 0;
    if (getifaddrs(&list) != 0) {
        const KeptErrno e;
        *error = e.number();
        log_err("%s: getifaddrs [%s] (family=%d): %s\n", caller, ifc, family, e.text());
        return nullptr;
    }
    return IfaddrsList(list);
}

// Reads a numeric address of a family that sockets can be made of here. 0, or an error. AI_NUMERICHOST: no
// name server is asked for a text that is no address. The look-up gives an address for stream, datagram and
// raw each; the first that works will do.
int numeric_addr(const char* caller, const char* text, struct sockaddr_storage* ss)
{
    struct addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    struct addrinfo* results = nullptr;
    if (const int rc = W_getaddrinfo(caller, text, nullptr, &hints, &results); rc != 0) {
        return rc;
    }
    const AddrinfoList list(results);
    int error = 0;
    errno = 0;
    for (const struct addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
        log_dbg("af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        const int probe = W_socket(caller, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (probe == -1) {
            error = errno;
            continue;
        }
        W_close(caller, probe);
        ASSERT(ai->ai_addrlen <= sizeof *ss);
        memcpy(ss, ai->ai_addr, ai->ai_addrlen);
        return 0;
    }
    return error;
}

// The interface that has the address, among all that are up or not.
const char* owner_of(const struct ifaddrs* list, const struct sockaddr* sa)
{
    for (const struct ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr != nullptr && ifa->ifa_addr->sa_family == sa->sa_family &&
            saddr_equal(ifa->ifa_addr, sa)) {
            return ifa->ifa_name;
        }
    }
    return nullptr;
}

// The first address of the interface; for IPv6 an interface- or link-local group only where there is nothing
// else, and then the last.
const struct sockaddr* pick_addr(const struct ifaddrs* list, int family, const char* ifc)
{
    const struct sockaddr* remembered = nullptr;
    for (const struct ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != family ||
            strncmp(ifa->ifa_name, ifc, IF_NAMESIZE) != 0) {
            continue;
        }
        if (family == AF_INET || (family == AF_INET6 && is_ipv6_mc_local(ifa->ifa_addr) == 0)) {
            return ifa->ifa_addr;
        }
        remembered = family == AF_INET6 ? ifa->ifa_addr : nullptr;
    }
    return remembered;
}

// The record of no particular interface: index 0, an empty name, the any-address of the family.
struct ifc_info* any_ifc_info(int af)
{
    auto* info = static_cast<struct ifc_info*>(Calloc(1, sizeof(struct ifc_info)));
    if (info != nullptr) {
        cpy_anyaddr(af, &info->ss);
    }
    return info;
}

// What the kernel says of the descriptor, not what we made of it: others may have changed it.
int get_socket_flags(int sockfd)
{
    const int flags = fcntl(sockfd, F_GETFL, 0);
    if (flags == -1) {
        const KeptErrno e;
        log_err("%s: fcntl(%d, F_GETFL, %d) ERROR(%d): %s\n", __func__, sockfd, 0, e.number(), e.text());
    }
    return flags;
}

} // namespace

const char* af_name(int af)
{
    switch (af) {
    case AF_INET: return "IPv4";
    case AF_INET6: return "IPv6";
    case AF_UNSPEC: return "UNSPEC";
    default: return "#??#";
    }
}

const char* anyaddr_str(int af)
{
    switch (af) {
    case AF_INET: return "0.0.0.0";
    case AF_INET6: return "::";
    default: return "#error#";
    }
}

int is_anyaddr(const char* addr_str)
{
    return addr_str == nullptr || *addr_str == 0 || strcasecmp(addr_str, "any") == 0 ||
                   strcasecmp(addr_str, "all") == 0
               ? 1
               : 0;
}

int name2af(const char* name)
{
    for (const FamilyWord& known : kFamilyWords) {
        if (strcasecmp(name, known.word) == 0) {
            return known.family;
        }
    }
    // Kept: "all" is the one word that is refused; what nobody knows means no particular family.
    if (strcasecmp(name, "all") == 0) {
        log_err("%s: unsupported address family [%s] in configuration.", __func__, name);
        return -1;
    }
    return AF_UNSPEC;
}

int is_multicast(struct sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET: return (ntohl(ipv4_of(sa).s_addr) & 0xF0000000) == 0xE0000000 ? 1 : 0;
    case AF_INET6: return ipv6_of(sa).s6_addr[0] == 0xFF ? 1 : 0;
    default: log_err("%s: unrecognized family: %d\n", __func__, sa->sa_family); return -1;
    }
}

int is_unspecified(struct sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET: return ipv4_of(sa).s_addr == INADDR_ANY ? 1 : 0;
    case AF_INET6: {
        const struct in6_addr addr = ipv6_of(sa);
        return IN6_IS_ADDR_UNSPECIFIED(&addr) ? 1 : 0;
    }
    default: log_err("%s: unrecognized family: %d\n", __func__, sa->sa_family); return -1;
    }
}

int is_ipv6_mc_local(struct sockaddr* sa)
{
    if (sa->sa_family != AF_INET6) {
        return 0;
    }
    const struct in6_addr addr = ipv6_of(sa);
    // The low half of the second byte: 1 is interface-local, 2 link-local (RFC 4291, 2.7).
    const int scope = addr.s6_addr[1] & 0x0F;
    return addr.s6_addr[0] == 0xFF && (scope == 1 || scope == 2) ? 1 : 0;
}

socklen_t saddr_size(const struct sockaddr* sa)
{
    return family_size(__func__, sa->sa_family);
}

char* saddr_str(struct sockaddr* sa, socklen_t salen, char* buf, size_t len)
{
    NumericName name;
    int rc = name.resolve(sa, salen);
    // glibc shows a domain address; where the C library refuses the family, the path stands for the host.
    if ((rc == EAFNOSUPPORT || rc == EAI_FAMILY) && sa->sa_family == AF_UNIX) {
        const DomainAddr domain(sa, salen);
        memcpy(name.host, domain.un.sun_path, strnlen(domain.un.sun_path, sizeof domain.un.sun_path));
        rc = 0;
    }
    if (rc != 0) {
        log_err("%s: getnameinfo error (%d): %s\n", __func__, rc, gai_strerror(rc));
        return nullptr;
    }
    switch (sa->sa_family) {
    case AF_INET: snprintf(buf, len, "%s:%s", name.host, name.serv); break;
    case AF_INET6: snprintf(buf, len, "[%s]:%s", name.host, name.serv); break;
    case AF_UNIX: snprintf(buf, len, "DOMAIN %s:%s", name.host, name.serv); break;
    default: return nullptr;
    }
    if (len > 0) {
        buf[len - 1] = 0;
    }
    return buf;
}

void dump_ai(FILE* out, const struct addrinfo* ai)
{
    NumericName name;
    if (!resolve_for_dump(out, __func__, ai->ai_addr, ai->ai_addrlen, name)) {
        return;
    }
    fprintf(out, "PF_INET = %d, PF_INET6 = %d, SOCK_STREAM = %d, SOCK_DGRAM = %d\n", PF_INET, PF_INET6,
            static_cast<int>(SOCK_STREAM), static_cast<int>(SOCK_DGRAM));
    fprintf(out,
            "ai_flags    =\t0x%02x\nai_family   =\t%d\nai_socktype =\t%d\nai_protocol =\t%d\n"
            "ai_addrlen  =\t%ld\nai_addr     =\t%s:%s\nai_canonname=\t%s\n",
            static_cast<unsigned int>(ai->ai_flags), ai->ai_family, ai->ai_socktype, ai->ai_protocol,
            static_cast<long>(ai->ai_addrlen), name.host, name.serv,
            ai->ai_canonname != nullptr ? ai->ai_canonname : "NULL");
}

void dump_sa_info(FILE* fp, const char* msg, const struct sockaddr* sa, socklen_t addrlen)
{
    NumericName name;
    if (resolve_for_dump(fp, __func__, sa, addrlen, name)) {
        fprintf(fp, "%s %s %s:%s\n", msg != nullptr ? msg : "", af_name(sa->sa_family), name.host, name.serv);
    }
}

unsigned int ifaddr_index(const char* ifc, struct sockaddr_storage* ss)
{
    ASSERT(ifc != nullptr);
    if (const unsigned int index = if_nametoindex(ifc); index != 0) {
        return index;
    }
    struct sockaddr_storage local = {};
    if (ss == nullptr) {
        ss = &local;
    }
    if (numeric_addr(__func__, ifc, ss) != 0) {
        return 0;
    }
    int error = 0;
    const IfaddrsList list = list_interfaces(__func__, ifc, AF_UNSPEC, &error);
    if (error != 0) {
        return static_cast<unsigned int>(error); // Kept: the error stands where the index is looked for.
    }
    const char* name = owner_of(list.get(), as_sockaddr(ss));
    if (name == nullptr) {
        return 0;
    }
    const unsigned int index = if_nametoindex(name);
    log_dbg("%s: %s matched to interface [%s], idx=%u\n", __func__, ifc, name, index);
    return index;
}

int ifc_addr_lookup(int family, const char* ifc, struct sockaddr* sa, socklen_t len)
{
    ASSERT(ifc != nullptr && sa != nullptr);
    int error = 0;
    const IfaddrsList list = list_interfaces(__func__, ifc, family, &error);
    if (error != 0) {
        return error;
    }
    const struct sockaddr* found = pick_addr(list.get(), family, ifc);
    if (found == nullptr) {
        log_err("%s: failed to look up address for ifc=%s\n", __func__, ifc);
        return -1;
    }
    cpy_sockaddr(found, sa, len);
    return 0;
}

struct ifc_info* get_ifc_info(int af, const char* tag)
{
    mv::OwnedBlock<struct ifc_info> info(Calloc(1, sizeof(struct ifc_info)));
    if (!info) {
        return nullptr;
    }
    info->idx = ifaddr_index(tag, &info->ss);
    if (info->idx == 0) {
        log_err("[%s] is not a valid %s interface address.\n", tag, af_name(af));
        return nullptr;
    }
    int error = 0;
    if (if_indextoname(info->idx, info->name) == nullptr) {
        const KeptErrno e;
        error = e.number();
        log_err("%s: if_indextoname(%d, buf): %s\n", __func__, static_cast<int>(info->idx), e.text());
    }
    // Found by its name: by an address, that would stand here already.
    if (info->ss.ss_family == AF_UNSPEC) {
        error = ifc_addr_lookup(af, info->name, as_sockaddr(&info->ss), sizeof info->ss);
    }
    return error == 0 ? info.release() : nullptr;
}

int is_non_blocking(int sockfd)
{
    const int flags = get_socket_flags(sockfd);
    return flags == -1 ? -1 : flags & O_NONBLOCK;
}

int set_nblock(int sockfd, int nblock)
{
    // Kept: flags that could not be read count as -1, a word with every bit set.
    const int flags = get_socket_flags(sockfd);
    const bool is_set = (flags & O_NONBLOCK) != 0;
    if ((is_set && nblock == 1) || (!is_set && nblock == 0)) {
        return 0;
    }
    // Kept: any number but 1 clears the bit, though the line below calls it non-blocking.
    const int wanted = nblock == 1 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (fcntl(sockfd, F_SETFL, wanted) == -1) {
        const KeptErrno e;
        log_err("%s: fcntl(%d, F_SETFL, %d) ERROR(%d): %s\n", __func__, sockfd, wanted, e.number(), e.text());
        return -1;
    }
    log_dbg("%s: fd%d set as %sblocking\n", __func__, sockfd, nblock != 0 ? "non-" : "");
    return 0;
}

void set_ipv6only(int fd, int on)
{
    int before = -1;
    socklen_t length = sizeof before;
    if (getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &before, &length) != 0) {
        perror("getsockopt IPV6_V6ONLY");
    } else if (before == on) {
        log_info("%s: IPV6_V6ONLY for fd=%d is already %s\n", __func__, fd, on != 0 ? "ON" : "OFF");
    } else if (Setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) {
        const KeptErrno e;
        log_err("%s: setsockopt IPV6_V6ONLY: %s\n", __func__, e.text());
    }
    // Kept: it is the value from before the change that decides, so a change that worked warns too.
    if (on == 0 && before != 0) {
        log_warn("%s: server will not accept IPv4 requests\n", __func__);
    }
}

// ==== Any socket from one description ====================================================================

namespace {

constexpr char kOpenSocket[] = "open_socket"; // the name under which the stages of open_socket report

constexpr size_t kSourceMax = 80;
constexpr size_t kHostPortMax = 128;
constexpr size_t kShortestHost = 7; // "1.2.3.4"

// atoi() without its undefined results: what does not fit an int wraps.
int to_int(const char* text)
{
    return static_cast<int>(strtol(text, nullptr, 10));
}

bool is_decimal(const char* str)
{
    char* end = nullptr;
    (void)strtol(str, &end, 10);
    return *str != 0 && *end == 0;
}

// A datagram socket is never connected: a writer sends to addr_ss, and a reader takes what comes. What
// is neither that nor a stream is connected on both sides, the server's after its bind.
bool should_connect(int is_server, const struct socket_spec* spec)
{
    switch (spec->socktype) {
    case SOCK_DGRAM: return false;
    case SOCK_STREAM: return is_server == 0;
    default: return true;
    }
}

// How a socket that came to nothing is closed: by the checked call, for the caller.
struct CheckedClose {
    const char* caller = nullptr;

    void operator()(int fd) const { W_close(caller, fd); }
};

using OwnedSocket = mv::DescriptorOwner<CheckedClose>;

// Whether a particular interface was asked for and found.
bool is_named(const struct ifc_info* mifc)
{
    return mifc != nullptr && is_anyaddr(mifc->name) == 0;
}

// The one line of both kinds of group sockets.
void report_mcast_setup(const char* caller, int sockfd, const struct ifc_info* mifc)
{
    log_dbg("%s: fd=%d, ifc=[%s]:%p\n", caller, sockfd, mifc != nullptr ? mifc->name : "<any>",
            static_cast<const void*>(mifc));
}

int setup_client(int sockfd, const struct addrinfo* airp, struct socket_spec* spec)
{
    if (airp->ai_socktype == SOCK_DGRAM && spec->writer == 0) {
        if (const int rc = reuse_and_bind(sockfd, airp->ai_addr, airp->ai_addrlen); rc != 0) {
            return rc;
        }
    }
    if (!should_connect(0, spec)) {
        return 0;
    }
    if (spec->non_blocking != 0) {
        log_dbg("%s: non-blocking CONNECT on fd%d\n", __func__, sockfd);
    }
    if (Connect(sockfd, airp->ai_addr, airp->ai_addrlen) != 0) {
        if (errno != EINPROGRESS) {
            return -1;
        }
        // No failure of the set-up: how it ends is told by socket_error() once the socket is writable.
        spec->async_connect = 1;
    }
    log_info("%s: %s CONNECT [fd%d]\n", __func__, spec->async_connect != 0 ? "ASYNC" : "IMMEDIATE", sockfd);
    return 0;
}

int setup_listener(int sockfd, const struct addrinfo* airp, const struct socket_spec* spec)
{
    // So that [::] serves IPv4 too, whatever net.ipv6.bindv6only says; the kernel takes the option before the
    // bind alone.
    if (airp->ai_family == AF_INET6 && is_unspecified(airp->ai_addr) == 1) {
        set_ipv6only(sockfd, 0);
    }
    if (reuse_and_bind(sockfd, airp->ai_addr, airp->ai_addrlen) != 0) {
        return -1;
    }
    if (airp->ai_socktype == SOCK_STREAM && spec->defer_listen == 0) {
        return Listen(sockfd, LISTEN_BKLOG);
    }
    if (should_connect(1, spec)) {
        if (Connect(sockfd, airp->ai_addr, airp->ai_addrlen) != 0) {
            return errno;
        }
        log_dbg("%s: CONNECT [%d]\n", __func__, sockfd);
    }
    return 0;
}

int setup_mcast_writer(int sockfd, const struct addrinfo* airp, const struct ifc_info* mifc)
{
    report_mcast_setup(__func__, sockfd, mifc);
    if (!is_named(mifc)) {
        return 0;
    }
    if (airp->ai_family == AF_INET6) {
        return set_ipv6_sock_ifc(sockfd, mifc->idx);
    }
    if (airp->ai_family == AF_INET) {
        // In network byte order, as the option wants it. The any-address would give the choice back to the
        // kernel.
        const struct in_addr addr = ipv4_of(as_sockaddr(&mifc->ss));
        ASSERT(addr.s_addr != INADDR_ANY);
        return Setsockopt(sockfd, IPPROTO_IP, IP_MULTICAST_IF, &addr, sizeof addr);
    }
    return 0;
}

int setup_mcast_reader(int sockfd, const struct addrinfo* airp, struct ifc_info* mifc,
                       struct sockaddr_storage* msrc)
{
    report_mcast_setup(__func__, sockfd, mifc);
    // The kernel binds to such a group only with the interface in the address, as its scope id.
    if (is_ipv6_mc_local(airp->ai_addr) != 0) {
        if (is_named(mifc)) {
            sync_ipv6addr_scope_id(airp->ai_addr, mifc->name, &mifc->ss);
        } else {
            log_err("%s: network interface must be specified to use link/local-scope multicast\n", __func__);
        }
    }
    // To the group: a socket on the any-address gets the datagrams of every group that anybody on this
    // machine has joined, if they come to its port.
    if (const int rc = reuse_and_bind(sockfd, airp->ai_addr, airp->ai_addrlen); rc != 0) {
        return rc;
    }
    struct sockaddr_storage group = {};
    cpy_sockaddr(airp->ai_addr, as_sockaddr(&group), sizeof group);
    ASSERT(group.ss_family == airp->ai_family);
    return msrc != nullptr ? ssm_join(sockfd, msrc, &group, mifc) : mcast_join(sockfd, &group, mifc);
}

using IfcOwner = mv::OwnedBlock<struct ifc_info>;

// What the walk over the resolved entries has come to.
struct Attempt {
    int status = 0; // of the last entry tried
    OwnedSocket socket;
    IfcOwner mifc;
};

// "0" asks the kernel for a port; any other text that counts as 0 is a mistake. What follows digits is left
// to the look-up.
bool accept_port(const char* port)
{
    ASSERT(port != nullptr);
    if (*port == 0 || (to_int(port) == 0 && strcmp(port, "0") != 0)) {
        log_err("%s: empty or invalid port [%s]\n", kOpenSocket, port);
        return false;
    }
    return true;
}

bool accept_source(const char* auth, struct socket_spec* spec)
{
    char source[kSourceMax] = {};
    spec->src_len = sizeof spec->src_ss;
    log_dbg("%s: SSM source: %s\n", kOpenSocket, auth);
    // The port plays no part: a source has none, but mk_sockaddr wants one.
    snprintf(source, sizeof source, ends_with_port(auth) ? "%s" : "%s:111", auth);
    if (mk_sockaddr(source, SOCK_DGRAM, 0, &spec->src_ss, &spec->src_len) != 0) {
        log_err("%s: invalid SSM source: %s\n", kOpenSocket, source);
        return false;
    }
    if (spec->family != AF_UNSPEC && spec->family != spec->src_ss.ss_family) {
        log_err("%s: SMM src/addr family mismatch: %u/%u\n", kOpenSocket,
                static_cast<unsigned int>(spec->src_ss.ss_family), static_cast<unsigned int>(spec->family));
        return false;
    }
    return true;
}

AddrinfoList resolve(const char* addr, const char* port, const struct socket_spec* spec)
{
    struct addrinfo hints = {};
    hints.ai_family = spec->family;
    hints.ai_socktype = spec->socktype;
    // AI_PASSIVE acts on a missing host alone, and one is always given below.
    hints.ai_flags = spec->passive != 0 ? AI_PASSIVE : 0;
    const char* text = addr;
    if (text == nullptr) {
        text = anyaddr_str(spec->family != AF_UNSPEC ? spec->family : AF_INET);
    }
    struct addrinfo* results = nullptr;
    return AddrinfoList(W_getaddrinfo(kOpenSocket, text, port, &hints, &results) == 0 ? results : nullptr);
}

// Does what this kind of socket needs; the status of the entry.
int set_up(int fd, const struct addrinfo* ai, struct socket_spec* spec, const char* ifc_tag, IfcOwner& mifc)
{
    ASSERT(spec->multicast == 0 || spec->passive == 0);
    if (spec->multicast == 0) {
        return spec->passive != 0 ? setup_listener(fd, ai, spec) : setup_client(fd, ai, spec);
    }
    // Kept: an interface that does not exist is logged and leaves the socket on the default one.
    mifc.reset(is_anyaddr(ifc_tag) != 0 ? any_ifc_info(ai->ai_family) : get_ifc_info(ai->ai_family, ifc_tag));
    return spec->writer != 0 ? setup_mcast_writer(fd, ai, mifc.get())
                             : setup_mcast_reader(fd, ai, mifc.get(), spec->is_ssm ? &spec->src_ss : nullptr);
}

// Whether the walk is over: with a socket that stands, or with one that cannot be made non-blocking.
bool try_entry(const struct addrinfo* ai, struct socket_spec* spec, const char* ifc_tag, Attempt& attempt)
{
    log_dbg("af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
    // A family that this machine cannot do is no end of the walk: the next entry may be of another one.
    const int fd = W_socket(kOpenSocket, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
    if (fd == -1) {
        attempt.status = errno;
        return false;
    }
    attempt.socket = OwnedSocket(fd, {kOpenSocket});
    spec->family = ai->ai_family;
    // Set and never cleared: the record's next use must begin with zeros.
    spec->multicast |= static_cast<unsigned int>(is_multicast(ai->ai_addr)) & 1U;
    if (spec->non_blocking != 0 && set_nblock(fd, 1) != 0) {
        const KeptErrno e;
        attempt.status = e.number();
        log_err("%s: failed to make fd=%d non-blocking ERROR(%d): %s\n", kOpenSocket, fd, e.number(),
                e.text());
        return true;
    }
    // The set-up reads the record's multicast mark, which was written above; the address counts once the
    // socket stands.
    attempt.status = set_up(fd, ai, spec, ifc_tag, attempt.mifc);
    if (attempt.status != 0) {
        attempt.socket.reset();
        attempt.mifc.reset();
        return false;
    }
    memcpy(&spec->addr_ss, ai->ai_addr, ai->ai_addrlen);
    spec->addr_len = ai->ai_addrlen;
    return true;
}

// The descriptor of a socket that stands, else -1.
int finish(Attempt& attempt, const struct socket_spec* spec, struct ifc_info** ifi)
{
    if (attempt.status != 0 && attempt.status != EINPROGRESS) {
        return -1;
    }
    // Kept: a listener's connect in progress has closed its socket, so that this is a failure with errno 115.
    if (attempt.status == EINPROGRESS) {
        log_dbg("%s: connection in progress for fd%d\n", kOpenSocket, attempt.socket.get());
    } else if (ifi != nullptr) {
        *ifi = attempt.mifc.release();
    }
    attempt.mifc.reset();
    log_dbg("%s: %s %s socket fd=[%d]\n", kOpenSocket, spec->passive != 0 ? "SERVER" : "CLIENT",
            spec->multicast != 0 ? "multicast" : "unicast", attempt.socket.get());
    if (attempt.status == EINPROGRESS) {
        errno = EINPROGRESS;
    }
    return attempt.socket.release();
}

// The host and port of a text, divided at its last colon.
struct HostPort {
    char text[kHostPortMax] = {};
    const char* port = nullptr;
};

// 0, or 22 with the reason logged.
int divide_host_port(const char* addr_port, HostPort& parts)
{
    constexpr char kCaller[] = "mk_sockaddr";
    snprintf(parts.text, sizeof parts.text, "%s", addr_port);
    char* colon = strrchr(parts.text, ':');
    if (colon == nullptr) {
        log_err("%s: invalid address/port: %s\n", kCaller, addr_port);
        return EINVAL;
    }
    *colon = 0;
    parts.port = colon + 1;
    // Kept: any host below the length of the shortest IPv4 address, short names and "::1" included.
    if (is_decimal(parts.text) || strlen(parts.text) < kShortestHost) {
        log_err("%s: cannot accept plain number [%s] as IP address\n", kCaller, parts.text);
        return EINVAL;
    }
    if (!is_decimal(parts.port)) {
        log_err("%s: port must be plain decimal number [%s]\n", kCaller, parts.port);
        return EINVAL;
    }
    return 0;
}

} // namespace

int open_socket(const char* addr, const char* port, const char* auth, struct socket_spec* spec,
                const char* ifc_tag, struct ifc_info** ifi)
{
    const bool has_port = spec->socktype == SOCK_DGRAM || spec->socktype == SOCK_STREAM;
    log_dbg("%s: %s %s [%s (%d)] socket for [%s:%s], ifc=%s\n", __func__,
            spec->socktype == SOCK_DGRAM ? "UDP" : "TCP", spec->passive != 0 ? "LISTENER" : "CLIENT",
            af_name(spec->family), spec->family, addr != nullptr ? addr : "all", shown(port),
            ifc_tag != nullptr ? ifc_tag : "none");
    if (has_port && !accept_port(port)) {
        return -1;
    }
    if (addr != nullptr && is_decimal(addr)) {
        log_err("%s: cannot accept plain number [%s] as IP address\n", __func__, addr);
        return -1;
    }
    // Refused in this order, each before anything is made: port, plain number, source. Then the look-up.
    spec->is_ssm = auth != nullptr && spec->socktype == SOCK_DGRAM;
    if (spec->is_ssm && !accept_source(auth, spec)) {
        return -1;
    }
    AddrinfoList entries = resolve(addr, port, spec);
    if (entries == nullptr) {
        return -1;
    }
    errno = 0; // a look-up that worked may leave anything there, and a failed entry is judged by it
    Attempt attempt;
    for (struct addrinfo* ai = entries.get(); ai != nullptr; ai = ai->ai_next) {
        if (try_entry(ai, spec, ifc_tag, attempt)) {
            if (attempt.status == 0 && loglevel_is(DEBUG_level) && log_fp(&g_log) != nullptr) {
                dump_ai(log_fp(&g_log), ai);
            }
            break;
        }
    }
    entries.reset(); // before finish() gives errno its last word
    return finish(attempt, spec, ifi);
}

int mk_sockaddr(const char* addr_port, int stype, int proto, struct sockaddr_storage* ss, socklen_t* slen)
{
    ASSERT(stype == SOCK_DGRAM || stype == SOCK_STREAM);
    log_dbg("%s: %s(%d) address for [%s]\n", __func__, stype == SOCK_DGRAM ? "DGRAM" : "STREAM", stype,
            addr_port);
    HostPort parts;
    if (const int rc = divide_host_port(addr_port, parts); rc != 0) {
        return rc;
    }
    struct addrinfo hints = {};
    hints.ai_socktype = stype;
    hints.ai_protocol = proto;
    struct addrinfo* results = nullptr;
    if (Getaddrinfo(parts.text, parts.port, &hints, &results) != 0) {
        return -1;
    }
    const AddrinfoList list(results);
    // An address counts only if a socket of its kind can be made here: a machine without IPv6 still resolves
    // it.
    errno = 0;
    int status = 0;
    int probe = -1;
    for (const struct addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
        probe = Socket(ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (probe == -1) {
            status = errno;
        }
        log_dbg("%s: %s af=%s (%d), proto = %d\n", __func__, status != 0 ? "BAD" : "OK",
                af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        if (status == 0) {
            memcpy(ss, ai->ai_addr, ai->ai_addrlen);
            *slen = ai->ai_addrlen;
            break;
        }
        // Kept: after one failed entry no later one is accepted, and sockets made for those stay open.
    }
    if (probe == -1) {
        log_err("%s: failed for [%s]\n", __func__, addr_port);
        return -1;
    }
    Close(probe);
    return 0;
}

bool ends_with_port(const char* addr)
{
    const char* colon = strrchr(addr, ':');
    if (colon == nullptr) {
        return false;
    }
    const size_t digits = strspn(colon + 1, "0123456789");
    return digits > 0 && colon[1 + digits] == 0;
}

int reuse_and_bind(int sock, struct sockaddr* addr, socklen_t addrlen)
{
    // Several readers of one group on one machine, and a daemon that starts again at once, both want it.
    const int on = 1;
    if (Setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return errno;
    }
    // Where the kernel lacks the option nothing is lost. All sockets of one port must have it, and belong to
    // one user; the kernel spreads unicast datagrams over them.
    (void)setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    if (Bind(sock, addr, addrlen) != 0) {
        return errno;
    }
    if (loglevel_is(DEBUG_level)) {
        char text[32] = "";
        log_dbg("%s: fd=%d %s OK\n", __func__, sock, shown(saddr_str(addr, addrlen, text, sizeof text)));
        if (log_fp(&g_log) != nullptr) {
            dump_sa_info(log_fp(&g_log), __func__, addr, addrlen);
        }
    }
    return 0;
}

// ==== Multicast membership ===============================================================================

namespace {

struct net_options {
    unsigned int use_legacy_mcast_api : 1;
};

struct net_options g_opt = {};

// The older IPv4 options name an interface by its address: one that the record lacks is put into it. 0, or
// the failure of the look-up. The look-up logs its failure, so that callers pass it up without a line.
int complete_ipv4_addr(const char* ifc_name, struct sockaddr_storage* ifc)
{
    ASSERT(ifc != nullptr);
    if (ifc->ss_family != AF_UNSPEC) {
        return 0;
    }
    if (is_anyaddr(ifc_name) == 0) {
        return ifc_addr_lookup(AF_INET, ifc_name, as_sockaddr(ifc), sizeof *ifc);
    }
    cpy_anyaddr(AF_INET, ifc);
    return 0;
}

int apply(const char* caller, int sock, const mv::MembershipOption& option)
{
    return W_setsockopt(caller, sock, option.level, option.name, option.record, option.length);
}

// One join or leave, by the API that the option chose. The generic one names the interface by its index; for
// IPv4 the older one takes an address of it, which is looked up when the record has none.
int mcast_group_op(const char* caller, const char* ifc_name, uint32_t ifc_idx, struct sockaddr_storage* grp,
                   struct sockaddr_storage* ifc, int join, int sock)
{
    const char* option = join != 0 ? "MCAST_JOIN" : "MCAST_LEAVE";
    const bool is_generic = g_opt.use_legacy_mcast_api == 0;
    log_dbg("%s: ifc-name=%s, idx=%u ifc=%p\n", caller, ifc_name != nullptr ? ifc_name : "<none>", ifc_idx,
            static_cast<const void*>(ifc));
    if (loglevel_is(INFO_level)) {
        char group[80] = "";
        log_info("%s: using %s mulitcast API to %s group %s\n", __func__,
                 is_generic ? "GENERIC" : "protocol-specific", option,
                 shown(saddr_str(as_sockaddr(grp), sizeof *grp, group, sizeof group)));
    }
    int rc = -1;
    if (is_generic) {
        rc = apply(__func__, sock, mv::generic_group(ifc_idx, grp, join));
    } else if (grp->ss_family == AF_INET) {
        if (const int failed = complete_ipv4_addr(ifc_name, ifc); failed != 0) {
            return failed;
        }
        rc = apply(__func__, sock, mv::ipv4_group(grp, ifc, join));
    } else if (grp->ss_family == AF_INET6) {
        rc = apply(__func__, sock, mv::ipv6_group(ifc_idx, grp, join));
    } else {
        log_err("%s: unsupported family %d\n", __func__, grp->ss_family);
    }
    if (rc != 0) {
        const KeptErrno e;
        log_err("%s: %s fd=%d: %s\n", caller, option, sock, e.text());
    }
    return rc;
}

// The line of a source-specific operation that failed. The result, with errno kept.
int report_ssm_failure(const char* caller, const char* op, const char* ifc_name, uint32_t ifc_idx,
                       int is_join, int sockfd, int rc)
{
    const KeptErrno e;
    log_err("%s: (%s) %s ifc=%s/%u fd%d: %s\n", caller, op, is_join != 0 ? "SSM_JOIN" : "SSM_LEAVE",
            shown(ifc_name), ifc_idx, sockfd, e.text());
    return rc;
}

int ssm_generic_op(const char* caller, const char* ifc_name, uint32_t ifc_idx,
                   const struct sockaddr_storage* grp, const struct sockaddr_storage* src, int is_join,
                   int sockfd)
{
    const int rc = apply(__func__, sockfd, mv::generic_source(ifc_idx, grp, src, is_join));
    return rc == 0 ? 0 : report_ssm_failure(caller, __func__, ifc_name, ifc_idx, is_join, sockfd, rc);
}

int ssm_proto_op(const char* caller, const char* ifc_name, uint32_t ifc_idx,
                 const struct sockaddr_storage* grp, const struct sockaddr_storage* src,
                 struct sockaddr_storage* ifc, int is_join, int sockfd)
{
    int rc = 0;
    if (grp->ss_family == AF_INET) {
        if (const int failed = complete_ipv4_addr(ifc_name, ifc); failed != 0) {
            return failed;
        }
        rc = apply(__func__, sockfd, mv::ipv4_source(grp, src, ifc, is_join));
    } else if (grp->ss_family == AF_INET6) {
        log_err("%s: (%s) IPv6-specific SSM not supported\n", caller, __func__);
        // RFC 3678 has no older option for IPv6: its sources exist in the generic form alone.
        rc = -EINVAL;
        errno = EINVAL;
    }
    return rc == 0 ? 0 : report_ssm_failure(caller, __func__, ifc_name, ifc_idx, is_join, sockfd, rc);
}

int ssm_group_op(const char* caller, const char* ifc_name, uint32_t ifc_idx,
                 const struct sockaddr_storage* grp, const struct sockaddr_storage* src,
                 struct sockaddr_storage* ifc, int is_join, int sockfd)
{
    ASSERT(src->ss_family == grp->ss_family);
    return g_opt.use_legacy_mcast_api == 0
               ? ssm_generic_op(caller, ifc_name, ifc_idx, grp, src, is_join, sockfd)
               : ssm_proto_op(caller, ifc_name, ifc_idx, grp, src, ifc, is_join, sockfd);
}

} // namespace

void set_legacy_mcast_api(int ON)
{
    // Kept: 0 does not turn it off. Groups joined in one form cannot be left in the other.
    if (ON != 0) {
        g_opt.use_legacy_mcast_api = 1;
    }
}

int mcast_join(int sockfd, struct sockaddr_storage* grs, struct ifc_info* mifc)
{
    const mv::IfcArgs ifc(mifc);
    return mcast_group_op(__func__, ifc.name, ifc.idx, grs, ifc.addr, 1, sockfd);
}

int mcast_leave(int sockfd, struct sockaddr_storage* grs, struct ifc_info* mifc)
{
    const mv::IfcArgs ifc(mifc);
    return mcast_group_op(__func__, ifc.name, ifc.idx, grs, ifc.addr, 0, sockfd);
}

int ssm_join(int sockfd, struct sockaddr_storage* src, struct sockaddr_storage* grs, struct ifc_info* mifc)
{
    const mv::IfcArgs ifc(mifc);
    return ssm_group_op(__func__, ifc.name, ifc.idx, grs, src, ifc.addr, 1, sockfd);
}

int ssm_leave(int sockfd, struct sockaddr_storage* src, struct sockaddr_storage* grs, struct ifc_info* mifc)
{
    const mv::IfcArgs ifc(mifc);
    // Kept: a join here too; a source is left by closing the socket.
    return ssm_group_op(__func__, ifc.name, ifc.idx, grs, src, ifc.addr, 1, sockfd);
}

int set_mcast_ttl(int family, int fd, int ttl)
{
    ASSERT(family == AF_INET || family == AF_INET6);
    const bool is_ipv4 = family == AF_INET;
    const char* protocol = is_ipv4 ? "IP" : "IPv6";
    const char* option = is_ipv4 ? "MULTICAST_TTL" : "MULTICAST_HOPS";
    if (Setsockopt(fd, af_level(family), is_ipv4 ? IP_MULTICAST_TTL : IPV6_MULTICAST_HOPS, &ttl,
                   sizeof ttl) != 0) {
        const KeptErrno e;
        log_err("%s: %s mcast fd=%d, op=%s(%d): %s\n", __func__, protocol, fd, option, ttl, e.text());
        return e.number();
    }
    log_info("%s: %s mcast fd=%d, op=%s(%d): OK\n", __func__, protocol, fd, option, ttl);
    return 0;
}

int set_ipv6_sock_ifc(int sock, uint32_t index)
{
    if (index == 0) {
        log_err("%s: network interface must be specified\n", __func__);
        return -1;
    }
    if (Setsockopt(sock, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index) != 0) {
        const KeptErrno e;
        log_err("%s: setsockopt IPV6_MULTICAST_IF failed (%d): %s\n", __func__, e.number(), e.text());
        return e.number();
    }
    return 0;
}

void sync_ipv6addr_scope_id(struct sockaddr* sa, const char* ifc_name, const struct sockaddr_storage* ifc_ss)
{
    if (sa->sa_family != AF_INET6) {
        return;
    }
    uint32_t scope_id = 0;
    if (scope_id_of(sa) == 0) {
        int failed = 0;
        if (ifc_ss->ss_family == AF_UNSPEC) {
            if (ifc_name == nullptr) {
                log_err("%s: cannot set scope id, interface or link-specific address must be selected\n",
                        __func__);
                return;
            }
            // Kept: the caller's record is completed, though it is declared const.
            failed =
                ifc_addr_lookup(AF_INET6, ifc_name, as_sockaddr(const_cast<struct sockaddr_storage*>(ifc_ss)),
                                sizeof *ifc_ss);
        }
        scope_id = failed == 0 ? scope_id_of(as_sockaddr(ifc_ss)) : 0;
    }
    // Kept: both lines stand at ERR_level, so that an ordinary log shows them.
    if (scope_id != 0) {
        put_field_at(sa, offsetof(struct sockaddr_in6, sin6_scope_id), scope_id);
        log_err("updated IPv6 address scope ID to %ld\n", static_cast<long>(scope_id));
    } else {
        log_err("IPv6 address scope ID %ld left unchanged\n", static_cast<long>(scope_id_of(sa)));
    }
}

// ==== Listeners, domain sockets, options =================================================================

namespace {

constexpr int kPortMax = 65535;
constexpr long kMsecPerSec = 1000;

// Puts the port of a text into the caller's address. Kept: what is wrong with either is only logged, and a
// port that is none counts as its number, cut to 16 bits.
void store_port(const char* caller, const struct sockaddr_storage* ss, const char* text)
{
    ASSERT(text != nullptr);
    const int port = to_int(text);
    if (port < 1 || port > kPortMax) {
        log_err("%s: invalid port number: %s\n", caller, text);
    }
    if (ss->ss_family != AF_INET && ss->ss_family != AF_INET6) {
        log_err("%s: invalid network family: %d\n", caller, ss->ss_family);
        return;
    }
    // One place for both families.
    static_assert(offsetof(struct sockaddr_in, sin_port) == offsetof(struct sockaddr_in6, sin6_port));
    // Kept: the caller's record takes the port, though it is declared const.
    put_field_at(as_sockaddr(const_cast<struct sockaddr_storage*>(ss)),
                 offsetof(struct sockaddr_in, sin_port), htons(static_cast<uint16_t>(port)));
}

// A non-blocking socket that is bound to the address, or -1.
int bound_socket(const char* caller, const struct sockaddr_storage* ss, int socktype, int protocol)
{
    OwnedSocket fd(W_socket(caller, ss->ss_family, socktype, protocol), {caller});
    if (!fd) {
        return -1;
    }
    struct sockaddr_storage addr = *ss;
    const struct sockaddr* sa = as_sockaddr(ss);
    const bool is_bound =
        reuse_and_bind(fd.get(), as_sockaddr(&addr), saddr_len(sa)) == 0 && set_nblock(fd.get(), 1) == 0;
    return is_bound ? fd.release() : -1;
}

// Cut to the room that there is, with its terminator: a longer path binds under another name.
struct sockaddr_un domain_addr(const char* path)
{
    struct sockaddr_un un = {};
    un.sun_family = AF_UNIX;
    memcpy(un.sun_path, path, strnlen(path, sizeof un.sun_path - 1));
    return un;
}

// A path that an earlier run left behind would refuse the bind; what stands there is not looked at.
bool remove_old_socket(const char* caller, const char* path)
{
    if (unlink(path) != 0 && errno != ENOENT) {
        const KeptErrno e;
        log_err("%s: unlink ERROR(%d): %s\n", caller, e.number(), e.text());
        return false;
    }
    return true;
}

// Milliseconds as seconds and the units of Time's second field, of which a millisecond has units_per_msec.
template <class Time>
Time split_msec(long msec, long units_per_msec)
{
    return {msec / kMsecPerSec, msec % kMsecPerSec * units_per_msec};
}

// Tries to connect until it works, the attempts are spent, g_quit is set or a signal ends a pause. 0 or -1;
// *attempt counts the attempts that failed and were waited for. The same socket is tried again: on Linux a
// domain socket whose connect failed is as it was.
int connect_patiently(const char* caller, int fd, const char* path, size_t max_attempts, long pause_msec,
                      size_t* attempt)
{
    const struct sockaddr_un un = domain_addr(path);
    for (*attempt = 0; g_quit == 0 && *attempt < max_attempts; ++*attempt) {
        log_dbg("%s: attempt %ld out of %ld to connect to [%s]\n", caller, static_cast<long>(*attempt + 1),
                static_cast<long>(max_attempts), path);
        if (W_connect(caller, fd, reinterpret_cast<const struct sockaddr*>(&un), sizeof un) == 0) {
            return 0;
        }
        if (pause_msec > 0) {
            const auto pause = split_msec<struct timespec>(pause_msec, 1000000);
            if (nanosleep(&pause, nullptr) != 0) {
                break;
            }
        }
    }
    return -1;
}

int set_socket_buflen(int sockfd, int option, size_t length)
{
    // Kept: the full width of a size_t, of which the kernel reads the first four bytes. It doubles the number
    // for its own records and cuts it at net.core.wmem_max or rmem_max (socket(7)).
    return Setsockopt(sockfd, SOL_SOCKET, option, &length, sizeof length);
}

int set_socket_timeout(int sockfd, int optname, int ms)
{
    // To the kernel 0 is no limit, not a limit of nothing.
    const auto limit = split_msec<struct timeval>(ms, 1000);
    return Setsockopt(sockfd, SOL_SOCKET, optname, &limit, sizeof limit);
}

const char* on_or_off(int is_on)
{
    return is_on != 0 ? "ON" : "OFF";
}

} // namespace

int open_listener(const struct sockaddr_storage* ss, const char* port, int defer_listen)
{
    store_port(__func__, ss, port);
    OwnedSocket fd(bound_socket(__func__, ss, SOCK_STREAM, IPPROTO_TCP), {__func__});
    const bool is_ready = fd && (defer_listen != 0 || Listen(fd.get(), LISTEN_BKLOG) == 0);
    return is_ready ? fd.release() : -1;
}

int open_udp_listener(const struct sockaddr_storage* ss, const char* port)
{
    if (port != nullptr) {
        store_port(__func__, ss, port);
    }
    return bound_socket(__func__, ss, SOCK_DGRAM, IPPROTO_UDP);
}

int open_anyaddr_listener(int af, const char* port, int defer_listen)
{
    struct socket_spec spec = {};
    spec.passive = 1;
    spec.non_blocking = 1;
    spec.defer_listen = defer_listen != 0 ? 1 : 0;
    spec.family = af;
    spec.socktype = SOCK_STREAM;
    return open_socket(nullptr, port, nullptr, &spec, nullptr, nullptr);
}

int open_domain_listener(const char* path)
{
    OwnedSocket fd(Socket(AF_UNIX, SOCK_STREAM, 0), {__func__});
    if (!fd) {
        return -1;
    }
    const struct sockaddr_un un = domain_addr(path);
    if (set_nblock(fd.get(), 1) == 0 && remove_old_socket(__func__, path) &&
        Bind(fd.get(), reinterpret_cast<const struct sockaddr*>(&un), sizeof un) == 0 &&
        Listen(fd.get(), LISTEN_BKLOG) == 0) {
        log_dbg("%s: fd=%d is listening on [%s]\n", __func__, fd.get(), path);
        return fd.release();
    }
    fd.reset();
    const KeptErrno kept;
    log_err("%s: failed for path=[%s]\n", __func__, path);
    return -1;
}

int open_domain_client(const char* path, size_t max_attempts, long int pause_msec)
{
    ASSERT(strlen(path) < sizeof(sockaddr_un::sun_path));
    OwnedSocket fd(Socket(AF_UNIX, SOCK_STREAM, 0), {__func__});
    if (!fd) {
        return -1;
    }
    size_t attempt = 0;
    const int rc = connect_patiently(__func__, fd.get(), path, max_attempts, pause_msec, &attempt);
    const KeptErrno kept;
    if (rc == -1 && g_quit == 0) {
        // Kept: one more than the attempts made where they were all spent.
        log_err("%s: failed to connect to [%s] after %ld attempt(s)\n", __func__, path,
                static_cast<long>(attempt + 1));
    } else {
        // Kept: also where it was g_quit that ended the attempts.
        log_info("%s: fd=%d connected to [%s]\n", __func__, fd.get(), path);
    }
    return rc == 0 ? fd.release() : -1;
}

int set_tcp_nodelay(int sockfd, int is_on)
{
    const int rc = Setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &is_on, sizeof is_on);
    if (rc == 0) {
        log_info("TCP_NODELAY turned %s for [fd=%d]\n", on_or_off(is_on), sockfd);
    }
    return rc;
}

int set_tcp_cork(int sockfd, int is_on)
{
    // The kernel holds a part of a segment back for 200 ms at most, whether or not the cork is drawn
    // (tcp(7)).
    const int rc = Setsockopt(sockfd, IPPROTO_TCP, TCP_CORK, &is_on, sizeof is_on);
    if (rc == 0) {
        log_info("TCP_CORK turned %s for [fd=%d]\n", on_or_off(is_on), sockfd);
    }
    return rc;
}

int set_keepalive(int sockfd, int optval)
{
    // The bare call: the line below is the only one of its failure.
    const int rc = setsockopt(sockfd, SOL_SOCKET, SO_KEEPALIVE, &optval, sizeof optval);
    if (rc != 0) {
        const KeptErrno e;
        log_err("%s: setsockopt(fd%d, SOL_SOCKET, SO_KEEPALIVE, %d,..) ERROR(%d): %s\n", __func__, sockfd,
                optval, e.number(), e.text());
        return rc;
    }
    log_dbg("%s: [%s] for fd%d\n", __func__, on_or_off(optval), sockfd);
    return 0;
}

int set_socket_sendbuf(int sockfd, size_t length)
{
    return set_socket_buflen(sockfd, SO_SNDBUF, length);
}

int set_socket_rcvbuf(int sockfd, size_t length)
{
    return set_socket_buflen(sockfd, SO_RCVBUF, length);
}

int set_rcv_timeout(int sockfd, int ms)
{
    return set_socket_timeout(sockfd, SO_RCVTIMEO, ms);
}

int set_send_timeout(int sockfd, int ms)
{
    return set_socket_timeout(sockfd, SO_SNDTIMEO, ms);
}

int socket_error(int sockfd)
{
    // Reading clears it in the kernel: who asks twice hears of it once.
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(sockfd, SOL_SOCKET, SO_ERROR, &value, &length) != 0) {
        value = errno;
    }
    if (value != 0) {
        log_err("%s(fd%d) ERROR(%d): %s\n", __func__, sockfd, value, strerror(value));
        errno = value;
    }
    return value;
}

const char* get_peer_ipaddr(int sockfd, char* buf, size_t buflen)
{
    struct sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    if (getpeername(sockfd, as_sockaddr(&peer), &length) != 0) {
        const KeptErrno e;
        log_err("%s: getpeername(fd%d,...) ERROR(%d): %s\n", __func__, sockfd, e.number(), e.text());
        return nullptr;
    }
    return saddr_str(as_sockaddr(&peer), length, buf, buflen);
}
