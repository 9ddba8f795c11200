// A packet's way from the frame to the table of joined groups.
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/ip.h>

#include "log.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr const char* kHandler = "on_pcap_pkt"; // every stage speaks for the handler
constexpr uintptr_t kJoinedMark = 0xaaaa;       // stored with a joined group; nobody reads it back
constexpr uint32_t kClassMask = 0xf0000000;
constexpr uint32_t kMulticast = 0xe0000000;

// Kept: the IGMP header behind an IP header of any stated length, read whatever was captured. Bytes that were
// not captured read as zero.
struct igmp_header igmp_at(const u_char* bytes, size_t caplen, size_t offset)
{
    struct igmp_header igmp = {};
    if (offset < caplen) {
        memcpy(&igmp, bytes + offset, caplen - offset < sizeof igmp ? caplen - offset : sizeof igmp);
    }
    return igmp;
}

// The key in the table of joined groups: the address in network byte order, sign-extended.
long group_key(const struct igmp_header& igmp)
{
    return static_cast<long>(igmp.group);
}

void on_report(const struct igmp_header& igmp)
{
    log_dbg("%s: IGMP report msg caught on %s\n", kHandler, group_text(igmp.group));
    void* value = reinterpret_cast<void*>(kJoinedMark);
    // Kept: group 0.0.0.0 is a key that the table refuses by assertion.
    const int rc = nkht_add(g_ctx.wgrp_ht, group_key(igmp), &value);
    if (rc == 0) {
        // Kept: the group is joined whether its line arrives or not.
        relay_msg("JOIN UDP://%s\n", group_text(igmp.group));
    } else if (rc != EBUSY) {
        log_err("%s: error adding group %04x\n", kHandler, static_cast<unsigned>(igmp.group));
    }
}

// Kept: the first leave ends a group, whoever else is a member.
void on_leave(const struct igmp_header& igmp)
{
    log_dbg("%s: IGMP LEAVE msg caught on %s\n", kHandler, group_text(igmp.group));
    void* value = nullptr;
    const int rc = nkht_rm(g_ctx.wgrp_ht, group_key(igmp), &value);
    if (rc == 0) {
        relay_msg("LEAVE UDP://%s\n", group_text(igmp.group));
    } else if (rc != ESRCH) {
        log_err("%s: error removing group %04x\n", kHandler, static_cast<unsigned>(igmp.group));
    }
}

void on_igmp(const struct igmp_header& igmp)
{
    log_dbg("%s: addr=[%s]\n", kHandler, group_text(igmp.group));
    if (!in_scope(igmp.group)) { // Kept: asked before the type, for queries too
        log_dbg("%s: address out of scope: %s\n", kHandler, group_text(igmp.group));
        return;
    }
    if (g_cfg.log_level > INFO_level) {
        dump_igmp(log_mirror_fp(&g_log), &igmp);
        dump_igmp(log_fp(&g_log), &igmp);
    }
    if (is_report(igmp.type)) {
        on_report(igmp);
    } else if (is_leave(igmp.type)) {
        on_leave(igmp);
    }
}

void on_frame(const u_char* bytes, size_t caplen)
{
    struct ether_header eh;
    if (caplen <= sizeof eh + IPHDR_SIZE - 1) {
        log_err("%s: packet is too small: %u bytes\n", kHandler, static_cast<unsigned>(caplen));
        return;
    }
    memcpy(&eh, bytes, sizeof eh);
    if (ntohs(eh.ether_type) != ETHERTYPE_IP) {
        log_err("%s: got non-IP packet: type=%02x\n", kHandler, eh.ether_type);
        return;
    }
    if (g_cfg.log_level > INFO_level) {
        dump_ether(log_mirror_fp(&g_log), &eh);
        dump_ether(log_fp(&g_log), &eh);
    }
    const u_char* ip = bytes + sizeof eh;
    if (ip_version(ip) != IPVERSION) {
        log_err("%s: non-IPv4: %x\n", kHandler, ip_version(ip));
        return;
    }
    if (ip_protocol(ip) != IPPROTO_IGMP) {
        log_err("%s: proto=%d - non-IGMP packet\n", kHandler, ip_protocol(ip));
        return;
    }
    on_igmp(igmp_at(bytes, caplen, sizeof eh + ip_header_len(ip)));
}

} // namespace

const char* igmp_type_str(uint16_t type)
{
    switch (type) {
    case IGMP_QRY: return "query";
    case IGMP1_RPT: return "v1-report";
    case IGMP2_RPT: return "v2-report";
    case IGMP2_LEAVE: return "leave";
    default: return "??";
    }
}

void on_pcap_pkt(u_char* user, const struct pcap_pkthdr* h, const u_char* bytes)
{
    (void)user;
    log_dbg("%s: BEGIN\n", __func__);
    on_frame(bytes, h->caplen);
    log_dbg("%s: END\n", __func__);
}

void dump_ether(FILE* fp, const struct ether_header* eh)
{
    if (fp == nullptr) {
        return;
    }
    const uint8_t* s = eh->ether_shost;
    const uint8_t* d = eh->ether_dhost;
    fprintf(fp, "%02x:%02x:%02x:%02x:%02x:%02x -> %02x:%02x:%02x:%02x:%02x:%02x [%04x]\n", s[0], s[1], s[2],
            s[3], s[4], s[5], d[0], d[1], d[2], d[3], d[4], d[5], ntohs(eh->ether_type));
}

void dump_igmp(FILE* fp, const struct igmp_header* igmp)
{
    if (fp == nullptr) {
        return;
    }
    fprintf(fp, "%s/%02x %s\n", igmp_type_str(igmp->type), igmp->type, group_text(igmp->group));
}

u_char ip_version(const u_char* p)
{
    return p[0] >> 4;
}

size_t ip_header_len(const u_char* p)
{
    return size_t{4} * (p[0] & 0x0fU);
}

u_char ip_protocol(const u_char* p)
{
    return p[9];
}

// What inet_ntoa gives, without its way through printf.
const char* group_text(int32_t ipv4_addr)
{
    static char text[16];
    const auto octets = std::bit_cast<std::array<uint8_t, 4>>(ipv4_addr);
    char* at = text;
    for (const unsigned octet : octets) {
        if (octet >= 100) {
            *at++ = static_cast<char>('0' + octet / 100);
        }
        if (octet >= 10) {
            *at++ = static_cast<char>('0' + octet / 10 % 10);
        }
        *at++ = static_cast<char>('0' + octet % 10);
        *at++ = '.';
    }
    at[-1] = 0;
    return text;
}

bool is_multicast_addr(uint32_t addr)
{
    return (ntohl(addr) & kClassMask) == kMulticast;
}
