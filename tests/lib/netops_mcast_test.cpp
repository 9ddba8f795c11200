// Membership of groups, by both forms of the options, as the kernel lists it; hop limit, outgoing interface
// and scope ids.
#include "fixtures.h"
#include "netops_support.h"
#include "wrap.h"

#include <algorithm>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>

using namespace net_test;
using support::NetnsPair;

namespace {

int g_setsockopt_calls = 0; // in the levels of IP alone
int g_last_level = -1;
int g_last_option = -1;
std::vector<unsigned char> g_last_value;

} // namespace

WRAPPED(int, setsockopt, (int, int, int, const void*, socklen_t));

extern "C" {
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    ++g_setsockopt_calls;
    g_last_level = level;
    g_last_option = name;
    const auto* bytes = static_cast<const unsigned char*>(value);
    g_last_value.assign(bytes, bytes + length);
    return __real_setsockopt(fd, level, name, value, length);
}
}

namespace {

// What the last option carried.
template <class Record>
Record last_record()
{
    Record record{};
    EXPECT_EQ(g_last_value.size(), sizeof record);
    memcpy(&record, g_last_value.data(), std::min(sizeof record, g_last_value.size()));
    return record;
}

// The test's process stands in the first namespace of the pair ("va").
struct Segment {
    NetnsPair pair;

    Segment() { pair.enter_a(); }
};

struct InfoDeleter {
    void operator()(ifc_info* info) const { free(info); }
};

using Info = std::unique_ptr<ifc_info, InfoDeleter>;

Info info_of(int family, const char* tag)
{
    return Info(get_ifc_info(family, tag));
}

Fd udp(int family)
{
    return Fd(socket(family, SOCK_DGRAM, 0));
}

} // namespace

class NetopsMcast : public support::GuardedTest {};

class NetopsSsm : public support::GuardedTest {};

class NetopsTtl : public support::GuardedTest {};

TEST_F(NetopsMcast, ipv4_group_is_joined_and_left_by_index)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    const Info va = info_of(AF_INET, "va");
    sockaddr_storage group = addr("239.1.2.3");
    EXPECT_EQ(mcast_join(fd, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, MCAST_JOIN_GROUP);
    EXPECT_EQ(last_record<group_req>().gr_interface, va->idx);
    EXPECT_TRUE(is_member("va", group));
    EXPECT_EQ(mcast_leave(fd, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, MCAST_LEAVE_GROUP);
    EXPECT_FALSE(is_member("va", group));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMcast, ipv6_group_is_joined_and_left_by_index)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET6);
    const Info va = info_of(AF_INET6, "va");
    sockaddr_storage group = addr("ff15::4321");
    EXPECT_EQ(mcast_join(fd, &group, va.get()), 0);
    EXPECT_EQ(g_last_level, IPPROTO_IPV6);
    EXPECT_TRUE(is_member("va", group));
    EXPECT_EQ(mcast_leave(fd, &group, va.get()), 0);
    EXPECT_FALSE(is_member("va", group));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMcast, without_a_record_the_kernel_chooses)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    log.set_level(DEBUG_level);
    const Fd fd = udp(AF_INET);
    sockaddr_storage group = addr("239.1.2.4");
    EXPECT_EQ(mcast_join(fd, &group, nullptr), 0);
    EXPECT_EQ(last_record<group_req>().gr_interface, 0U);
    EXPECT_TRUE(is_member("va", group)); // by the default route
    EXPECT_EQ(log.lines(),
              (Lines{"(DBG)  mcast_join: ifc-name=<none>, idx=0 ifc=(nil)",
                     "(INF)  mcast_group_op: using GENERIC mulitcast API to MCAST_JOIN group 239.1.2.4:0"}));
}

TEST_F(NetopsMcast, lines_of_a_leave_and_of_the_older_form)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET6);
    const Info va = info_of(AF_INET6, "va");
    sockaddr_storage group = addr("ff15:1111:2222:3333:4444:5555:6666:7777", 65535);
    set_legacy_mcast_api(1);
    EXPECT_EQ(mcast_join(fd, &group, va.get()), 0);
    log.set_level(DEBUG_level);
    EXPECT_EQ(mcast_leave(fd, &group, va.get()), 0);
    EXPECT_EQ(
        log.lines(),
        (Lines{format("(DBG)  mcast_leave: ifc-name=va, idx=%u ifc=%p", va->idx, static_cast<void*>(&va->ss)),
               "(INF)  mcast_group_op: using protocol-specific mulitcast API to MCAST_LEAVE group "
               "[ff15:1111:2222:3333:4444:5555:6666:7777]:65535"}));
}

TEST_F(NetopsMcast, membership_ends_with_the_socket)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    sockaddr_storage group = addr("239.1.2.5");
    {
        const Fd fd = udp(AF_INET);
        EXPECT_EQ(mcast_join(fd, &group, nullptr), 0);
        EXPECT_TRUE(is_member("va", group));
    }
    EXPECT_FALSE(is_member("va", group));
}

TEST_F(NetopsMcast, failed_operations_leave_two_lines_and_errno)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    sockaddr_storage group = addr("239.1.2.6");
    EXPECT_EQ(mcast_leave(fd, &group, nullptr), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].find(format("(ERR)  mcast_group_op: setsockopt(%d, 0, 45, 0x", int{fd})), 0U)
        << lines[0];
    EXPECT_NE(lines[0].find(", 136) ERROR(99)"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1],
              format("(ERR)  mcast_leave: MCAST_LEAVE fd=%d: Cannot assign requested address", int{fd}));
    log.clear();
    sockaddr_storage unicast = addr("10.0.0.9");
    EXPECT_EQ(mcast_join(fd, &unicast, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[1], format("(ERR)  mcast_join: MCAST_JOIN fd=%d: Invalid argument", int{fd}));
}

TEST_F(NetopsMcast, unknown_family_fails_in_both_forms)
{
    const Fd fd = udp(AF_INET);
    sockaddr_storage group = of_family(AF_UNIX);
    EXPECT_EQ(mcast_join(fd, &group, nullptr), -1);
    EXPECT_EQ(g_last_level, -1);
    EXPECT_EQ(log.lines().size(), 2U);
    log.clear();
    set_legacy_mcast_api(1);
    g_setsockopt_calls = 0;
    errno = 0;
    EXPECT_EQ(mcast_join(fd, &group, nullptr), -1);
    EXPECT_EQ(g_setsockopt_calls, 0);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  mcast_group_op: unsupported family 1",
                                  format("(ERR)  mcast_join: MCAST_JOIN fd=%d: Success", int{fd})}));
}

TEST_F(NetopsMcast, kept_legacy_switch_is_never_turned_off)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET6);
    const Info va = info_of(AF_INET6, "va");
    sockaddr_storage group = addr("ff15::2");
    set_legacy_mcast_api(0);
    EXPECT_EQ(mcast_join(fd, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, MCAST_JOIN_GROUP);
    EXPECT_EQ(mcast_leave(fd, &group, va.get()), 0);
    set_legacy_mcast_api(1);
    set_legacy_mcast_api(0);
    EXPECT_EQ(mcast_join(fd, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, IPV6_JOIN_GROUP);
    EXPECT_EQ(last_record<ipv6_mreq>().ipv6mr_interface, va->idx);
    EXPECT_TRUE(is_member("va", group));
    EXPECT_EQ(mcast_leave(fd, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, IPV6_LEAVE_GROUP);
    EXPECT_FALSE(is_member("va", group));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMcast, older_ipv4_form_with_any_interface_uses_the_any_address)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    set_legacy_mcast_api(1);
    sockaddr_storage group = addr("239.1.2.7");
    ifc_info any{};
    strcpy(any.name, "any");
    any.idx = 1; // not looked at
    EXPECT_EQ(mcast_join(fd, &group, &any), 0);
    EXPECT_EQ(g_last_option, IP_ADD_MEMBERSHIP);
    EXPECT_EQ(last_record<ip_mreq>().imr_interface.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(str(any.ss), "0.0.0.0:0");
    EXPECT_TRUE(is_member("va", group));
    EXPECT_EQ(mcast_leave(fd, &group, &any), 0);
    EXPECT_EQ(g_last_option, IP_DROP_MEMBERSHIP);
    EXPECT_FALSE(is_member("va", group));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMcast, older_ipv4_form_looks_the_address_up_once)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    set_legacy_mcast_api(1);
    sockaddr_storage group = addr("239.1.2.8");
    ifc_info info{};
    strcpy(info.name, "va");
    EXPECT_EQ(mcast_join(fd, &group, &info), 0);
    EXPECT_EQ(str(info.ss), "10.0.0.1:0");
    EXPECT_TRUE(is_member("va", group));
    strcpy(info.name, "nosuchif"); // not looked at again
    EXPECT_EQ(mcast_leave(fd, &group, &info), 0);
    EXPECT_FALSE(is_member("va", group));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMcast, older_ipv4_form_without_an_address_makes_no_call)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    support::must_run("ip -4 addr flush dev va");
    const Fd fd = udp(AF_INET);
    set_legacy_mcast_api(1);
    sockaddr_storage group = addr("239.1.2.9");
    sockaddr_storage source = addr("10.0.0.2");
    ifc_info info{};
    strcpy(info.name, "va");
    g_setsockopt_calls = 0;
    EXPECT_EQ(mcast_join(fd, &group, &info), -1);
    EXPECT_EQ(ssm_join(fd, &source, &group, &info), -1);
    EXPECT_EQ(g_setsockopt_calls, 0);
    const std::string line = "(ERR)  ifc_addr_lookup: failed to look up address for ifc=va";
    EXPECT_EQ(log.lines(), (Lines{line, line}));
}

TEST_F(NetopsMcast, older_ipv4_form_without_a_record_ends_by_assertion)
{
    expect_abort([] {
        set_legacy_mcast_api(1);
        sockaddr_storage group = addr("239.1.2.9");
        mcast_join(-1, &group, nullptr);
    });
}

TEST_F(NetopsSsm, source_is_joined_by_the_protocol_independent_form)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    const Info va = info_of(AF_INET, "va");
    sockaddr_storage group = addr("232.1.1.1");
    sockaddr_storage source = addr("10.0.0.2");
    EXPECT_EQ(ssm_join(fd, &source, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, MCAST_JOIN_SOURCE_GROUP);
    EXPECT_EQ(last_record<group_source_req>().gsr_interface, va->idx);
    EXPECT_TRUE(has_source_filter("va", "232.1.1.1", "10.0.0.2"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsSsm, ipv6_source_is_joined_by_the_protocol_independent_form)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET6);
    const Info va = info_of(AF_INET6, "va");
    sockaddr_storage group = addr("ff35::1");
    sockaddr_storage source = addr("fd00::2");
    EXPECT_EQ(ssm_join(fd, &source, &group, va.get()), 0);
    EXPECT_EQ(g_last_level, IPPROTO_IPV6);
    EXPECT_TRUE(is_member("va", group));
    const std::string filters = contents("/proc/self/net/mcfilter6");
    EXPECT_NE(filters.find("ff350000000000000000000000000001 fd000000000000000000000000000002"),
              std::string::npos)
        << filters;
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsSsm, source_is_joined_by_the_older_form)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    set_legacy_mcast_api(1);
    ifc_info info{};
    strcpy(info.name, "va");
    sockaddr_storage group = addr("232.1.1.2");
    sockaddr_storage source = addr("10.0.0.2");
    EXPECT_EQ(ssm_join(fd, &source, &group, &info), 0);
    EXPECT_EQ(g_last_option, IP_ADD_SOURCE_MEMBERSHIP);
    EXPECT_EQ(str(info.ss), "10.0.0.1:0");
    EXPECT_TRUE(has_source_filter("va", "232.1.1.2", "10.0.0.2"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsSsm, failed_join_of_the_older_form_leaves_two_lines_and_errno)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    set_legacy_mcast_api(1);
    const Info va = info_of(AF_INET, "va");
    sockaddr_storage group = addr("10.0.0.9"); // none
    sockaddr_storage source = addr("10.0.0.2");
    EXPECT_EQ(ssm_join(fd, &source, &group, va.get()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(str(va->ss), "10.0.0.1:0");
    const auto record = last_record<ip_mreq_source>();
    EXPECT_EQ(record.imr_multiaddr.s_addr, inet_addr("10.0.0.9"));
    EXPECT_EQ(record.imr_interface.s_addr, inet_addr("10.0.0.1"));
    EXPECT_EQ(record.imr_sourceaddr.s_addr, inet_addr("10.0.0.2"));
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].find(format("(ERR)  ssm_proto_op: setsockopt(%d, 0, 39, 0x", int{fd})), 0U)
        << lines[0];
    EXPECT_NE(lines[0].find(", 12) ERROR(22)"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], format("(ERR)  ssm_join: (ssm_proto_op) SSM_JOIN ifc=va/%u fd%d: Invalid argument",
                               va->idx, int{fd}));
}

TEST_F(NetopsSsm, older_form_has_no_ipv6_source)
{
    const Fd fd = udp(AF_INET6);
    set_legacy_mcast_api(1);
    sockaddr_storage group = addr("ff35::1");
    sockaddr_storage source = addr("fd00::2");
    g_setsockopt_calls = 0;
    EXPECT_EQ(ssm_join(fd, &source, &group, nullptr), -22);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(g_setsockopt_calls, 0);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  ssm_join: (ssm_proto_op) IPv6-specific SSM not supported",
                     format("(ERR)  ssm_join: (ssm_proto_op) SSM_JOIN ifc=(null)/0 fd%d: Invalid argument",
                            int{fd})}));
}

TEST_F(NetopsSsm, older_form_ignores_other_families)
{
    log.set_level(DEBUG_level);
    set_legacy_mcast_api(1);
    sockaddr_storage group = of_family(AF_UNIX);
    sockaddr_storage source = of_family(AF_UNIX);
    g_setsockopt_calls = 0;
    EXPECT_EQ(ssm_join(-1, &source, &group, nullptr), 0);
    EXPECT_EQ(g_setsockopt_calls, 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsSsm, families_that_differ_end_by_assertion)
{
    expect_abort([] {
        sockaddr_storage group = addr("232.1.1.1");
        sockaddr_storage source = addr("fd00::2");
        ssm_join(-1, &source, &group, nullptr);
    });
}

TEST_F(NetopsSsm, kept_leave_issues_the_join)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    const Fd fd = udp(AF_INET);
    const Info va = info_of(AF_INET, "va");
    sockaddr_storage group = addr("232.1.1.3");
    sockaddr_storage source = addr("10.0.0.2");
    EXPECT_EQ(ssm_leave(fd, &source, &group, va.get()), 0);
    EXPECT_EQ(g_last_option, MCAST_JOIN_SOURCE_GROUP);
    EXPECT_TRUE(has_source_filter("va", "232.1.1.3", "10.0.0.2"));
    EXPECT_EQ(log.lines(), Lines{});
    // What the kernel says to the second join is the result of the "leave".
    EXPECT_EQ(ssm_leave(fd, &source, &group, va.get()), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].find(format("(ERR)  ssm_generic_op: setsockopt(%d, 0, 46, 0x", int{fd})), 0U)
        << lines[0];
    EXPECT_NE(lines[0].find(", 264) ERROR(99)"), std::string::npos) << lines[0];
    EXPECT_EQ(
        lines[1],
        format("(ERR)  ssm_leave: (ssm_generic_op) SSM_JOIN ifc=va/%u fd%d: Cannot assign requested address",
               va->idx, int{fd}));
    EXPECT_TRUE(has_source_filter("va", "232.1.1.3", "10.0.0.2"));
}

TEST_F(NetopsTtl, is_set_for_both_families)
{
    log.set_level(INFO_level);
    const Fd v4 = udp(AF_INET);
    const Fd v6 = udp(AF_INET6);
    EXPECT_EQ(set_mcast_ttl(AF_INET, v4, 17), 0);
    EXPECT_EQ(set_mcast_ttl(AF_INET6, v6, 255), 0);
    EXPECT_EQ(int_option(v4, IPPROTO_IP, IP_MULTICAST_TTL), 17);
    EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 255);
    EXPECT_EQ(log.lines(),
              (Lines{format("(INF)  set_mcast_ttl: IP mcast fd=%d, op=MULTICAST_TTL(17): OK", int{v4}),
                     format("(INF)  set_mcast_ttl: IPv6 mcast fd=%d, op=MULTICAST_HOPS(255): OK", int{v6})}));
}

TEST_F(NetopsTtl, value_beyond_the_limit_gives_the_error)
{
    const Fd v4 = udp(AF_INET);
    const Fd v6 = udp(AF_INET6);
    EXPECT_EQ(set_mcast_ttl(AF_INET, v4, 256), EINVAL);
    EXPECT_EQ(set_mcast_ttl(AF_INET6, v6, 256), EINVAL);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(
        lines[1],
        format("(ERR)  set_mcast_ttl: IP mcast fd=%d, op=MULTICAST_TTL(256): Invalid argument", int{v4}));
    EXPECT_EQ(
        lines[3],
        format("(ERR)  set_mcast_ttl: IPv6 mcast fd=%d, op=MULTICAST_HOPS(256): Invalid argument", int{v6}));
}

TEST_F(NetopsTtl, other_family_ends_by_assertion)
{
    expect_abort([] { set_mcast_ttl(AF_UNIX, -1, 1); });
}

class NetopsOutgoing : public support::GuardedTest {};

TEST_F(NetopsOutgoing, index_zero_is_refused_without_a_call)
{
    const Fd fd = udp(AF_INET6);
    g_setsockopt_calls = 0;
    EXPECT_EQ(set_ipv6_sock_ifc(fd, 0), -1);
    EXPECT_EQ(g_setsockopt_calls, 0);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  set_ipv6_sock_ifc: network interface must be specified"}));
}

TEST_F(NetopsOutgoing, index_is_set_and_an_unknown_one_gives_the_error)
{
    const Fd fd = udp(AF_INET6);
    const unsigned int lo = if_nametoindex("lo");
    EXPECT_EQ(set_ipv6_sock_ifc(fd, lo), 0);
    EXPECT_EQ(int_option(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF), static_cast<int>(lo));
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(set_ipv6_sock_ifc(fd, 54321), ENODEV);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1], "(ERR)  set_ipv6_sock_ifc: setsockopt IPV6_MULTICAST_IF failed (19): No such device");
}

class NetopsScope : public support::GuardedTest {};

TEST_F(NetopsScope, other_families_are_left_without_a_word)
{
    log.set_level(DEBUG_level);
    sockaddr_storage ss = addr("239.1.1.1");
    const sockaddr_storage before = ss;
    sockaddr_storage ifc{};
    sync_ipv6addr_scope_id(raw(ss), nullptr, &ifc);
    EXPECT_EQ(memcmp(&ss, &before, sizeof ss), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsScope, scope_that_is_there_stays)
{
    sockaddr_storage ss = addr("ff02::1", 0, 7);
    sockaddr_storage ifc = addr("fe80::1", 0, 3);
    sync_ipv6addr_scope_id(raw(ss), "lo", &ifc);
    EXPECT_EQ(scope_of(ss), 7U);
    sockaddr_storage unknown{};
    sync_ipv6addr_scope_id(raw(ss), nullptr, &unknown);
    EXPECT_EQ(unknown.ss_family, 0);
    const std::string line = "(ERR)  IPv6 address scope ID 7 left unchanged";
    EXPECT_EQ(log.lines(), (Lines{line, line}));
}

TEST_F(NetopsScope, kept_both_outcomes_are_logged_as_errors)
{
    sockaddr_storage ss = addr("ff02::1");
    sockaddr_storage linked = addr("fe80::1", 0, 3);
    sockaddr_storage global = addr("fd00::1");
    sync_ipv6addr_scope_id(raw(ss), "x", &global);
    EXPECT_EQ(scope_of(ss), 0U);
    sync_ipv6addr_scope_id(raw(ss), "x", &linked);
    EXPECT_EQ(scope_of(ss), 3U);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  IPv6 address scope ID 0 left unchanged",
                                  "(ERR)  updated IPv6 address scope ID to 3"}));
}

TEST_F(NetopsScope, no_name_and_no_address_is_refused)
{
    sockaddr_storage ss = addr("ff02::1");
    sockaddr_storage ifc{};
    sync_ipv6addr_scope_id(raw(ss), nullptr, &ifc);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  sync_ipv6addr_scope_id: cannot set scope id, interface or "
                                  "link-specific address must be selected"}));
}

TEST_F(NetopsScope, kept_record_declared_const_is_completed)
{
    NEEDS_NAMESPACES();
    const Segment segment;
    support::must_run("ip -6 addr flush dev va scope global");
    sockaddr_storage ss = addr("ff02::99");
    sockaddr_storage ifc{};
    sync_ipv6addr_scope_id(raw(ss), "va", &ifc);
    const unsigned int va = if_nametoindex("va");
    EXPECT_EQ(ifc.ss_family, AF_INET6);
    EXPECT_EQ(scope_of(ifc), va);
    EXPECT_EQ(scope_of(ss), va);
    EXPECT_EQ(log.lines(), (Lines{format("(ERR)  updated IPv6 address scope ID to %u", va)}));
}

TEST_F(NetopsScope, failed_look_up_leaves_the_address)
{
    sockaddr_storage ss = addr("ff02::1");
    sockaddr_storage ifc{};
    sync_ipv6addr_scope_id(raw(ss), "nosuchif", &ifc);
    EXPECT_EQ(scope_of(ss), 0U);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  ifc_addr_lookup: failed to look up address for ifc=nosuchif",
                                  "(ERR)  IPv6 address scope ID 0 left unchanged"}));
}
