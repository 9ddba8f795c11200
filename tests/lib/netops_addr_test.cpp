// Names, texts, classes and comparisons of addresses, look-up of interfaces, blocking modes.
#include "netops_support.h"

#include <ifaddrs.h>
#include <net/if.h>

#include "fixtures.h"
#include "oom.h"
#include "wrap.h"

using namespace net_test;
using support::FailAllocation;
using support::LogCapture;

namespace {

int g_getifaddrs_errno = 0;          // fails with it
ifaddrs* g_interfaces = nullptr;     // stands for the system's list
int g_getnameinfo_rc = 0;            // fails with it
bool g_getnameinfo_succeeds = false; // whatever the family
int g_if_indextoname_errno = 0;      // fails with it
int g_no_socket_family = -1;         // EAFNOSUPPORT for it
int g_fcntl_setfl_calls = 0;
int g_setsockopt_errno = 0; // fails with it

} // namespace

WRAPPED(int, getifaddrs, (ifaddrs * *list));
WRAPPED(void, freeifaddrs, (ifaddrs * list));
WRAPPED(int, getnameinfo, (const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int));
WRAPPED(char*, if_indextoname, (unsigned int, char*));
WRAPPED(int, socket, (int, int, int));
WRAPPED(int, fcntl, (int, int, ...));
WRAPPED(int, setsockopt, (int, int, int, const void*, socklen_t));

extern "C" {
int __wrap_getifaddrs(ifaddrs** list)
{
    if (g_getifaddrs_errno != 0) {
        errno = g_getifaddrs_errno;
        return -1;
    }
    if (g_interfaces != nullptr) {
        *list = g_interfaces;
        return 0;
    }
    return __real_getifaddrs(list);
}

void __wrap_freeifaddrs(ifaddrs* list)
{
    if (list != g_interfaces) {
        __real_freeifaddrs(list);
    }
}

int __wrap_getnameinfo(const sockaddr* sa, socklen_t salen, char* host, socklen_t hostlen, char* serv,
                       socklen_t servlen, int flags)
{
    if (g_getnameinfo_succeeds) {
        return 0;
    }
    return g_getnameinfo_rc != 0 ? g_getnameinfo_rc
                                 : __real_getnameinfo(sa, salen, host, hostlen, serv, servlen, flags);
}

char* __wrap_if_indextoname(unsigned int index, char* name)
{
    if (g_if_indextoname_errno != 0) {
        errno = g_if_indextoname_errno;
        return nullptr;
    }
    return __real_if_indextoname(index, name);
}

int __wrap_socket(int family, int type, int protocol)
{
    if (family == g_no_socket_family) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    return __real_socket(family, type, protocol);
}

int __wrap_fcntl(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    const long arg = va_arg(args, long);
    va_end(args);
    g_fcntl_setfl_calls += cmd == F_SETFL ? 1 : 0;
    return __real_fcntl(fd, cmd, arg);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    if (g_setsockopt_errno != 0) {
        errno = g_setsockopt_errno;
        return -1;
    }
    return __real_setsockopt(fd, level, name, value, length);
}
}

namespace {

// A list of interfaces of the test's own.
struct FakeInterfaces {
    explicit FakeInterfaces(std::vector<std::pair<std::string, sockaddr_storage>> given)
        : names(std::move(given)), entries(names.size())
    {
        for (size_t i = 0; i < names.size(); ++i) {
            entries[i].ifa_name = names[i].first.data();
            entries[i].ifa_addr = names[i].second.ss_family != 0 ? raw(names[i].second) : nullptr;
            entries[i].ifa_next = i + 1 < names.size() ? &entries[i + 1] : nullptr;
        }
        g_interfaces = entries.data();
    }

    ~FakeInterfaces() { g_interfaces = nullptr; }

    std::vector<std::pair<std::string, sockaddr_storage>> names;
    std::vector<ifaddrs> entries;
};

// The text in a heap block of exactly len bytes.
std::string text_in(sockaddr_storage ss, size_t len)
{
    std::vector<char> buf(len, '#');
    EXPECT_EQ(saddr_str(raw(ss), sizeof ss, buf.data(), len), buf.data());
    EXPECT_EQ(buf[len - 1], 0);
    return buf.data();
}

// A domain address of exactly the bytes given, without a terminator, on the heap.
std::vector<char> domain_bytes(const std::string& path)
{
    const sa_family_t family = AF_UNIX;
    std::vector<char> bytes(sizeof family + path.size());
    memcpy(bytes.data(), &family, sizeof family);
    memcpy(bytes.data() + sizeof family, path.data(), path.size());
    return bytes;
}

std::string domain_text(std::vector<char> bytes)
{
    char buf[1200];
    const char* shown = saddr_str(reinterpret_cast<sockaddr*>(bytes.data()),
                                  static_cast<socklen_t>(bytes.size()), buf, sizeof buf);
    return shown != nullptr ? shown : "(none)";
}

std::string dumped(const std::function<void(FILE*)>& dump)
{
    char* out = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&out, &length);
    dump(stream);
    fclose(stream);
    std::string result(out, length);
    free(out);
    return result;
}

} // namespace

class NetopsNames : public support::GuardedTest {};

TEST_F(NetopsNames, family_names_and_any_addresses)
{
    EXPECT_STREQ(af_name(AF_INET), "IPv4");
    EXPECT_STREQ(af_name(AF_INET6), "IPv6");
    EXPECT_STREQ(af_name(0), "UNSPEC");
    EXPECT_STREQ(af_name(1), "#??#");
    EXPECT_STREQ(af_name(-1), "#??#");
    EXPECT_STREQ(anyaddr_str(AF_INET), "0.0.0.0");
    EXPECT_STREQ(anyaddr_str(AF_INET6), "::");
    EXPECT_STREQ(anyaddr_str(1), "#error#");
    EXPECT_STREQ(anyaddr_str(0), "#error#");
}

TEST_F(NetopsNames, words_that_mean_any_address)
{
    EXPECT_EQ(is_anyaddr(nullptr), 1);
    for (const char* word : {"", "any", "ANY", "aNy", "all", "ALL", "All"}) {
        EXPECT_EQ(is_anyaddr(word), 1) << word;
    }
    for (const char* word : {"0.0.0.0", "::", "an", "anyx", " any", "*"}) {
        EXPECT_EQ(is_anyaddr(word), 0) << word;
    }
}

TEST_F(NetopsNames, words_of_families)
{
    log.set_level(DEBUG_level);
    for (const char* word : {"inet4", "inet", "ipv4", "af_inet", "pf_inet", "INET", "IPv4"}) {
        EXPECT_EQ(name2af(word), AF_INET) << word;
    }
    for (const char* word : {"inet6", "ipv6", "af_inet6", "pf_inet6", "Ipv6", "PF_INET6"}) {
        EXPECT_EQ(name2af(word), AF_INET6) << word;
    }
    for (const char* word : {"", "any", "unspec", "anyaddr", "AnyAddr"}) {
        EXPECT_EQ(name2af(word), 0) << word;
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsNames, kept_all_is_the_only_family_word_refused)
{
    EXPECT_EQ(name2af("bogus"), 0);
    EXPECT_EQ(name2af("inet66"), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(name2af("ALL"), -1);
    EXPECT_EQ(log.text(), "(ERR)  name2af: unsupported address family [ALL] in configuration.");
}

class NetopsClass : public support::GuardedTest {};

TEST_F(NetopsClass, multicast_addresses)
{
    for (const char* host : {"224.0.0.0", "239.255.255.255", "232.1.2.3", "ff00::", "ff02::1"}) {
        sockaddr_storage ss = addr(host);
        EXPECT_EQ(is_multicast(raw(ss)), 1) << host;
    }
    for (const char* host : {"223.255.255.255", "240.0.0.0", "127.0.0.1", "::1", "fe80::1", "feff::"}) {
        sockaddr_storage ss = addr(host);
        EXPECT_EQ(is_multicast(raw(ss)), 0) << host;
    }
    sockaddr_storage other = of_family(AF_UNIX);
    EXPECT_EQ(is_multicast(raw(other)), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  is_multicast: unrecognized family: 1"}));
}

TEST_F(NetopsClass, unspecified_addresses)
{
    for (const char* host : {"0.0.0.0", "::"}) {
        sockaddr_storage ss = addr(host, 80);
        EXPECT_EQ(is_unspecified(raw(ss)), 1) << host;
    }
    for (const char* host : {"0.0.0.1", "1.0.0.0", "::1", "1::"}) {
        sockaddr_storage ss = addr(host);
        EXPECT_EQ(is_unspecified(raw(ss)), 0) << host;
    }
    sockaddr_storage other = of_family(0);
    EXPECT_EQ(is_unspecified(raw(other)), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  is_unspecified: unrecognized family: 0"}));
}

TEST_F(NetopsClass, local_scopes_of_ipv6_groups)
{
    for (const char* host : {"ff01::1", "ff02::1", "ff12::1", "fff1::"}) {
        sockaddr_storage ss = addr(host);
        EXPECT_EQ(is_ipv6_mc_local(raw(ss)), 1) << host;
    }
    for (const char* host :
         {"ff05::1", "ff00::1", "ff03::1", "ff0e::1", "fe80::1", "fe02::1", "224.0.0.1", "255.2.0.0"}) {
        sockaddr_storage ss = addr(host);
        EXPECT_EQ(is_ipv6_mc_local(raw(ss)), 0) << host;
    }
    sockaddr_storage other = of_family(AF_UNIX);
    EXPECT_EQ(is_ipv6_mc_local(raw(other)), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsClass, sizes_of_addresses)
{
    sockaddr_storage v4 = addr("127.0.0.1");
    sockaddr_storage v6 = addr("::1");
    sockaddr_storage other = of_family(AF_UNIX);
    EXPECT_EQ(saddr_size(raw(v4)), 16U);
    EXPECT_EQ(saddr_size(raw(v6)), 28U);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(saddr_size(raw(other)), static_cast<socklen_t>(-1));
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  saddr_size: unrecognized socket family: 1"}));
}

class NetopsText : public support::GuardedTest {};

TEST_F(NetopsText, addresses_with_their_ports)
{
    EXPECT_EQ(text_in(addr("192.0.2.1", 80), 64), "192.0.2.1:80");
    EXPECT_EQ(text_in(addr("::1", 80), 64), "[::1]:80");
    EXPECT_EQ(text_in(addr("fe80::1", 65535, 1), 64), "[fe80::1%lo]:65535");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsText, short_buffer_cuts_the_text)
{
    EXPECT_EQ(text_in(addr("192.0.2.1", 80), 8), "192.0.2");
    EXPECT_EQ(text_in(addr("::1", 80), 8), "[::1]:8");
    EXPECT_EQ(text_in(addr("192.0.2.1", 80), 12), "192.0.2.1:8");
    EXPECT_EQ(text_in(addr("192.0.2.1", 80), 13), "192.0.2.1:80");
    EXPECT_EQ(text_in(addr("192.0.2.1", 80), 1), "");
}

TEST_F(NetopsText, empty_buffer_is_not_written)
{
    char byte = '#';
    sockaddr_storage ss = addr("192.0.2.1", 80);
    EXPECT_EQ(saddr_str(raw(ss), sizeof ss, &byte, 0), &byte);
    EXPECT_EQ(byte, '#');
}

TEST_F(NetopsText, refused_family_is_logged)
{
    char buf[64];
    sockaddr_storage ss = of_family(AF_PACKET);
    EXPECT_EQ(saddr_str(raw(ss), sizeof ss, buf, sizeof buf), nullptr);
    sockaddr_storage cut = addr("192.0.2.1");
    EXPECT_EQ(saddr_str(raw(cut), 7, buf, sizeof buf), nullptr);
    const std::string line = format("(ERR)  saddr_str: getnameinfo error (-6): %s", gai_strerror(EAI_FAMILY));
    EXPECT_EQ(log.lines(), (Lines{line, line}));
}

TEST_F(NetopsText, family_without_a_form_gives_nothing_and_no_line)
{
    log.set_level(DEBUG_level);
    char buf[64];
    g_getnameinfo_succeeds = true;
    sockaddr_storage ss = of_family(AF_PACKET);
    EXPECT_EQ(saddr_str(raw(ss), sizeof ss, buf, sizeof buf), nullptr);
    EXPECT_EQ(log.lines(), Lines{});
    g_getnameinfo_succeeds = false;
}

TEST_F(NetopsText, domain_address_is_bounded_by_its_length)
{
    EXPECT_EQ(domain_text(domain_bytes("/tmp/abc")), "DOMAIN localhost:/tmp/abc");
    EXPECT_EQ(domain_text(domain_bytes("")), "DOMAIN localhost:");
    EXPECT_EQ(log.lines(), Lines{});
    // What the C library cannot hold is its error.
    EXPECT_EQ(domain_text(domain_bytes(std::string(108, 'x'))), "(none)");
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  saddr_str: getnameinfo error (-12): %s", gai_strerror(EAI_OVERFLOW))}));
}

TEST_F(NetopsText, domain_path_serves_where_no_name_is_had)
{
    for (const int rc : {EAI_FAMILY, EAFNOSUPPORT}) {
        g_getnameinfo_rc = rc;
        EXPECT_EQ(domain_text(domain_bytes("/tmp/abc")), "DOMAIN /tmp/abc:");
        EXPECT_EQ(domain_text(domain_bytes(std::string(108, 'x'))), "DOMAIN " + std::string(108, 'x') + ":");
        EXPECT_EQ(domain_text(domain_bytes("")), "DOMAIN :");
    }
    EXPECT_EQ(log.lines(), Lines{});
    g_getnameinfo_rc = EAI_MEMORY;
    EXPECT_EQ(domain_text(domain_bytes("/tmp/abc")), "(none)");
    EXPECT_EQ(log.lines().size(), 1U);
    g_getnameinfo_rc = 0;
}

TEST_F(NetopsText, domain_bytes_beyond_the_path_field_are_not_read)
{
    g_getnameinfo_rc = EAI_FAMILY;
    EXPECT_EQ(domain_text(domain_bytes(std::string(500, 'x'))), "DOMAIN " + std::string(108, 'x') + ":");
    g_getnameinfo_rc = 0;
}

TEST(NetopsDump, an_address_is_shown_behind_its_title_and_family)
{
    sockaddr_storage v4 = addr("192.0.2.1", 80);
    sockaddr_storage v6 = addr("::1", 443);
    EXPECT_EQ(dumped([&](FILE* out) { dump_sa_info(out, "hello", raw(v4), sizeof v4); }),
              "hello IPv4 192.0.2.1:80\n");
    EXPECT_EQ(dumped([&](FILE* out) { dump_sa_info(out, nullptr, raw(v6), sizeof v6); }), " IPv6 ::1:443\n");
}

TEST(NetopsDump, address_that_cannot_be_shown_is_told_on_the_stream)
{
    LogCapture log;
    sockaddr_storage ss = of_family(AF_PACKET);
    addrinfo ai{};
    ai.ai_addr = raw(ss);
    ai.ai_addrlen = sizeof ss;
    const std::string reason = format("getnameinfo error (-6): %s\n", gai_strerror(EAI_FAMILY));
    EXPECT_EQ(dumped([&](FILE* out) { dump_sa_info(out, "x", raw(ss), sizeof ss); }),
              "dump_sa_info: " + reason);
    EXPECT_EQ(dumped([&](FILE* out) { dump_ai(out, &ai); }), "dump_ai: " + reason);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(NetopsDump, a_look_up_result_is_shown_with_all_its_fields)
{
    sockaddr_storage ss = addr("192.0.2.1", 80);
    addrinfo ai{};
    ai.ai_flags = AI_PASSIVE;
    ai.ai_family = AF_INET;
    ai.ai_socktype = SOCK_DGRAM;
    ai.ai_protocol = IPPROTO_UDP;
    ai.ai_addrlen = 16;
    ai.ai_addr = raw(ss);
    const std::string head = "PF_INET = 2, PF_INET6 = 10, SOCK_STREAM = 1, SOCK_DGRAM = 2\n"
                             "ai_flags    =\t0x01\nai_family   =\t2\nai_socktype =\t2\nai_protocol =\t17\n"
                             "ai_addrlen  =\t16\nai_addr     =\t192.0.2.1:80\nai_canonname=\t";
    EXPECT_EQ(dumped([&](FILE* out) { dump_ai(out, &ai); }), head + "NULL\n");
    char name[] = "example";
    ai.ai_canonname = name;
    EXPECT_EQ(dumped([&](FILE* out) { dump_ai(out, &ai); }), head + "example\n");
}

class NetopsIndex : public support::GuardedTest {};

TEST_F(NetopsIndex, name_gives_the_index_and_leaves_the_address)
{
    log.set_level(DEBUG_level);
    sockaddr_storage ss;
    memset(&ss, 0x5a, sizeof ss);
    const sockaddr_storage before = ss;
    EXPECT_EQ(ifaddr_index("lo", &ss), if_nametoindex("lo"));
    EXPECT_EQ(memcmp(&ss, &before, sizeof ss), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsIndex, address_gives_the_index_and_the_address)
{
    log.set_level(DEBUG_level);
    sockaddr_storage ss{};
    const unsigned int lo = if_nametoindex("lo");
    EXPECT_EQ(ifaddr_index("127.0.0.1", &ss), lo);
    EXPECT_EQ(str(ss), "127.0.0.1:0");
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "(DBG)  af=IPv4 (2), proto = 6");
    EXPECT_EQ(lines[1].find("(DBG)  ifaddr_index opened socket fd="), 0U) << lines[1];
    EXPECT_EQ(lines[2].find("(DBG)  ifaddr_index: CLOSED(fd"), 0U) << lines[2];
    EXPECT_EQ(lines[3], format("(DBG)  ifaddr_index: 127.0.0.1 matched to interface [lo], idx=%u", lo));
    EXPECT_EQ(ifaddr_index("127.0.0.1", nullptr), lo);
}

TEST_F(NetopsIndex, ipv6_address_gives_the_index)
{
    NEEDS_NAMESPACES();
    LoopbackNet net;
    sockaddr_storage ss{};
    EXPECT_EQ(ifaddr_index("::1", &ss), if_nametoindex("lo"));
    EXPECT_EQ(str(ss), "[::1]:0");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsIndex, foreign_address_and_unknown_name_give_zero_without_a_line)
{
    sockaddr_storage ss{};
    EXPECT_EQ(ifaddr_index("192.0.2.77", &ss), 0U);
    EXPECT_EQ(str(ss), "192.0.2.77:0");
    EXPECT_EQ(ifaddr_index("nosuchif", nullptr), 0U);
    EXPECT_EQ(ifaddr_index("", nullptr), 0U);
    EXPECT_EQ(ifaddr_index("a-name-longer-than-any-interface", nullptr), 0U);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsIndex, family_without_sockets_gives_zero)
{
    g_no_socket_family = AF_INET;
    sockaddr_storage ss{};
    EXPECT_EQ(ifaddr_index("127.0.0.1", &ss), 0U);
    g_no_socket_family = -1;
    EXPECT_EQ(ss.ss_family, 0);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 3U); // one for each type that the address resolves to
    EXPECT_EQ(lines[0],
              "(ERR)  ifaddr_index: socket(2, 1, 6) ERROR(97): Address family not supported by protocol");
}

TEST_F(NetopsIndex, no_text_ends_by_assertion)
{
    expect_abort([] { ifaddr_index(nullptr, nullptr); });
}

TEST_F(NetopsIndex, kept_error_of_the_list_stands_as_an_index)
{
    g_getifaddrs_errno = EMFILE;
    sockaddr_storage ss{};
    EXPECT_EQ(ifaddr_index("127.0.0.1", &ss), static_cast<unsigned int>(EMFILE));
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  ifaddr_index: getifaddrs [127.0.0.1] (family=0): Too many open files"}));
    log.clear();
    EXPECT_EQ(get_ifc_info(AF_INET, "127.0.0.1"), nullptr);
    g_getifaddrs_errno = 0;
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  ifaddr_index: getifaddrs [127.0.0.1] (family=0): Too many open files",
                     "(ERR)  get_ifc_info: if_indextoname(24, buf): No such device or address"}));
}

TEST_F(NetopsIndex, entries_without_an_address_are_skipped)
{
    const FakeInterfaces fake({{"ghost", {}}, {"v6", addr("fd00::1")}, {"lo", addr("127.0.0.9")}});
    EXPECT_EQ(ifaddr_index("127.0.0.9", nullptr), if_nametoindex("lo"));
    EXPECT_EQ(ifaddr_index("fd00::2", nullptr), 0U);
    sockaddr_storage ss{};
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "ghost", raw(ss), sizeof ss), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  ifc_addr_lookup: failed to look up address for ifc=ghost"}));
}

class NetopsLookup : public support::GuardedTest {};

TEST_F(NetopsLookup, first_address_of_the_family)
{
    const FakeInterfaces fake({{"x", addr("10.0.0.9")},
                               {"e", addr("fd00::5")},
                               {"e", addr("10.0.0.1")},
                               {"e", addr("10.0.0.2")},
                               {"e", addr("fd00::6")}});
    sockaddr_storage ss{};
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "e", raw(ss), sizeof ss), 0);
    EXPECT_EQ(str(ss), "10.0.0.1:0");
    EXPECT_EQ(ifc_addr_lookup(AF_INET6, "e", raw(ss), sizeof ss), 0);
    EXPECT_EQ(str(ss), "[fd00::5]:0");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsLookup, names_are_compared_over_sixteen_bytes)
{
    const FakeInterfaces fake({{"abcdefghijklmnopXX", addr("10.0.0.1")}});
    sockaddr_storage ss{};
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "abcdefghijklmnopYY", raw(ss), sizeof ss), 0);
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "abcdefghijklmnoXYY", raw(ss), sizeof ss), -1);
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "abc", raw(ss), sizeof ss), -1);
}

TEST_F(NetopsLookup, local_groups_are_remembered_and_the_last_one_serves)
{
    sockaddr_storage ss{};
    {
        const FakeInterfaces fake({{"e", addr("ff02::1")}, {"e", addr("fe80::7")}, {"e", addr("ff01::3")}});
        EXPECT_EQ(ifc_addr_lookup(AF_INET6, "e", raw(ss), sizeof ss), 0);
        EXPECT_EQ(str(ss), "[fe80::7]:0");
    }
    const FakeInterfaces fake({{"e", addr("ff02::1")}, {"e", addr("ff01::3")}, {"x", addr("fe80::7")}});
    EXPECT_EQ(ifc_addr_lookup(AF_INET6, "e", raw(ss), sizeof ss), 0);
    EXPECT_EQ(str(ss), "[ff01::3]:0");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsLookup, interface_without_an_address_of_the_family_fails_with_one_line)
{
    NEEDS_NAMESPACES();
    LoopbackNet net;
    sockaddr_storage ss{};
    support::must_run("ip addr flush dev lo");
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "lo", raw(ss), sizeof ss), -1);
    EXPECT_EQ(ifc_addr_lookup(AF_PACKET, "lo", raw(ss), sizeof ss), -1);
    EXPECT_EQ(ifc_addr_lookup(AF_UNSPEC, "lo", raw(ss), sizeof ss), -1);
    const std::string line = "(ERR)  ifc_addr_lookup: failed to look up address for ifc=lo";
    EXPECT_EQ(log.lines(), (Lines{line, line, line}));
    EXPECT_EQ(ss.ss_family, 0);
}

TEST_F(NetopsLookup, list_that_cannot_be_had_gives_the_error)
{
    g_getifaddrs_errno = ENOBUFS;
    sockaddr_storage ss{};
    EXPECT_EQ(ifc_addr_lookup(AF_INET6, "lo", raw(ss), sizeof ss), ENOBUFS);
    g_getifaddrs_errno = 0;
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  ifc_addr_lookup: getifaddrs [lo] (family=10): %s", strerror(ENOBUFS))}));
}

TEST_F(NetopsLookup, missing_arguments_and_short_space_end_by_assertion)
{
    sockaddr_storage ss{};
    expect_abort([&] { ifc_addr_lookup(AF_INET, nullptr, raw(ss), sizeof ss); });
    expect_abort([] { ifc_addr_lookup(AF_INET, "lo", nullptr, 128); });
    expect_abort([&] { ifc_addr_lookup(AF_INET, "lo", raw(ss), 15); });
    EXPECT_EQ(ifc_addr_lookup(AF_INET, "lo", raw(ss), 16), 0);
}

class NetopsRecord : public support::GuardedTest {};

TEST_F(NetopsRecord, of_a_local_address_and_of_a_name)
{
    for (const char* tag : {"127.0.0.1", "lo"}) {
        ifc_info* info = get_ifc_info(AF_INET, tag);
        ASSERT_NE(info, nullptr) << tag;
        EXPECT_EQ(info->idx, if_nametoindex("lo"));
        EXPECT_STREQ(info->name, "lo");
        EXPECT_EQ(str(info->ss), "127.0.0.1:0");
        free(info);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsRecord, unknown_tag_is_refused_with_a_line)
{
    EXPECT_EQ(get_ifc_info(AF_INET, "nosuchif"), nullptr);
    EXPECT_EQ(get_ifc_info(AF_INET6, "192.0.2.77"), nullptr);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  [nosuchif] is not a valid IPv4 interface address.",
                                  "(ERR)  [192.0.2.77] is not a valid IPv6 interface address."}));
}

TEST_F(NetopsRecord, name_without_an_address_is_refused)
{
    EXPECT_EQ(get_ifc_info(AF_UNSPEC, "lo"), nullptr);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  ifc_addr_lookup: failed to look up address for ifc=lo"}));
}

TEST_F(NetopsRecord, failed_name_of_an_address_is_refused)
{
    g_if_indextoname_errno = ENXIO;
    EXPECT_EQ(get_ifc_info(AF_INET, "127.0.0.1"), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  get_ifc_info: if_indextoname(%d, buf): No such device or address",
                            static_cast<int>(if_nametoindex("lo")))}));
    // Where the tag is a name, the look-up of its empty name decides.
    log.clear();
    EXPECT_EQ(get_ifc_info(AF_INET, "lo"), nullptr);
    g_if_indextoname_errno = 0;
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(NetopsRecord, no_memory_gives_no_record)
{
    const FailAllocation fail(1);
    EXPECT_EQ(get_ifc_info(AF_INET, "lo"), nullptr);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  get_ifc_info: calloc(1, 152) ERROR(12): Cannot allocate memory"}));
}

class NetopsMode : public support::GuardedTest {};

TEST_F(NetopsMode, descriptor_modes_are_read_and_changed)
{
    log.set_level(DEBUG_level);
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(is_non_blocking(fd), 0);
    EXPECT_EQ(set_non_blocking(fd), 0);
    EXPECT_EQ(is_non_blocking(fd), O_NONBLOCK);
    EXPECT_EQ(set_blocking(fd), 0);
    EXPECT_EQ(is_non_blocking(fd), 0);
    EXPECT_EQ(log.lines(), (Lines{format("(DBG)  set_nblock: fd%d set as non-blocking", int{fd}),
                                  format("(DBG)  set_nblock: fd%d set as blocking", int{fd})}));
}

TEST_F(NetopsMode, mode_that_stands_is_not_written_again)
{
    log.set_level(DEBUG_level);
    const Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    g_fcntl_setfl_calls = 0;
    EXPECT_EQ(set_nblock(fd, 1), 0);
    EXPECT_EQ(g_fcntl_setfl_calls, 0);
    EXPECT_EQ(set_nblock(fd, 0), 0);
    EXPECT_EQ(g_fcntl_setfl_calls, 1);
    EXPECT_EQ(set_nblock(fd, 0), 0);
    EXPECT_EQ(g_fcntl_setfl_calls, 1);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(NetopsMode, kept_any_other_number_clears_the_bit_and_is_called_non_blocking)
{
    log.set_level(DEBUG_level);
    const Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    g_fcntl_setfl_calls = 0;
    EXPECT_EQ(set_nblock(fd, 2), 0);
    EXPECT_FALSE(is_nonblocking(fd));
    EXPECT_EQ(set_nblock(fd, -1), 0);
    EXPECT_EQ(g_fcntl_setfl_calls, 2);
    const std::string line = format("(DBG)  set_nblock: fd%d set as non-blocking", int{fd});
    EXPECT_EQ(log.lines(), (Lines{line, line}));
}

TEST_F(NetopsMode, kept_bad_descriptor_counts_as_non_blocking)
{
    const std::string read_line =
        "(ERR)  get_socket_flags: fcntl(999, F_GETFL, 0) ERROR(9): Bad file descriptor";
    EXPECT_EQ(is_non_blocking(999), -1);
    EXPECT_EQ(set_nblock(999, 1), 0);
    EXPECT_EQ(log.lines(), (Lines{read_line, read_line}));
    log.clear();
    errno = 0;
    EXPECT_EQ(set_nblock(999, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(
        log.lines(),
        (Lines{read_line, format("(ERR)  set_nblock: fcntl(999, F_SETFL, %d) ERROR(9): Bad file descriptor",
                                 -1 & ~O_NONBLOCK)}));
}

class NetopsV6Only : public support::GuardedTest {};

TEST_F(NetopsV6Only, kept_change_to_off_warns_although_it_works)
{
    const Fd fd(socket(AF_INET6, SOCK_STREAM, 0));
    set_ipv6only(fd, 1);
    EXPECT_EQ(int_option(fd, IPPROTO_IPV6, IPV6_V6ONLY), 1);
    EXPECT_EQ(log.lines(), Lines{});
    set_ipv6only(fd, 0);
    EXPECT_EQ(int_option(fd, IPPROTO_IPV6, IPV6_V6ONLY), 0);
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  set_ipv6only: server will not accept IPv4 requests"}));
}

TEST_F(NetopsV6Only, option_that_stands_is_told_at_info)
{
    log.set_level(INFO_level);
    const Fd fd(socket(AF_INET6, SOCK_STREAM, 0));
    set_ipv6only(fd, 0);
    set_ipv6only(fd, 1);
    set_ipv6only(fd, 1);
    EXPECT_EQ(log.lines(),
              (Lines{format("(INF)  set_ipv6only: IPV6_V6ONLY for fd=%d is already OFF", int{fd}),
                     format("(INF)  set_ipv6only: IPV6_V6ONLY for fd=%d is already ON", int{fd})}));
}

TEST_F(NetopsV6Only, option_that_cannot_be_read_is_told_on_stderr_and_warns)
{
    const auto child = support::run_in_child([this] {
        log.clear();
        const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
        set_ipv6only(fd, 1);
        const bool silent = log.lines().empty();
        set_ipv6only(fd, 0);
        return silent && log.lines() == Lines{"(WRN)  set_ipv6only: server will not accept IPv4 requests"}
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exit_code, 0);
    const std::string line = format("getsockopt IPV6_V6ONLY: %s\n", strerror(EOPNOTSUPP));
    EXPECT_EQ(child.err, line + line);
}

TEST_F(NetopsV6Only, option_that_cannot_be_written_is_logged)
{
    const Fd fd(socket(AF_INET6, SOCK_STREAM, 0));
    g_setsockopt_errno = EPERM;
    set_ipv6only(fd, 1);
    g_setsockopt_errno = 0;
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].find(format("(ERR)  set_ipv6only: setsockopt(%d, 41, 26, ", int{fd})), 0U) << lines[0];
    EXPECT_EQ(lines[1], "(ERR)  set_ipv6only: setsockopt IPV6_V6ONLY: Operation not permitted");
}
