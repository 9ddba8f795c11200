// A packet's way from the frame to the table of joined groups.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
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

constexpr size_t kMessageHead = sizeof(struct igmp_header); // of a version 3 report too: the records follow
constexpr size_t kRecordHead = 8;

// What a message, or a record of one, says of its group.
enum class Word { nothing, report, leave };

Word word_of(uint8_t type)
{
    if (is_report(type)) {
        return Word::report;
    }
    return is_leave(type) ? Word::leave : Word::nothing;
}

// RFC 3376 section 4.2.12. Sources are not kept: whoever wants some of them wants the group, and only a
// change to "none of them" ends that.
Word word_of(const struct igmp3_record& record)
{
    switch (record.type) {
    case IGMP3_MODE_IS_EXCLUDE:
    case IGMP3_CHANGE_TO_EXCLUDE: return Word::report;
    case IGMP3_MODE_IS_INCLUDE:
    case IGMP3_ALLOW_NEW_SOURCES: return record.sources != 0 ? Word::report : Word::nothing;
    case IGMP3_CHANGE_TO_INCLUDE: return record.sources != 0 ? Word::report : Word::leave;
    default: return Word::nothing;
    }
}

// Kept: the IGMP header behind an IP header of any stated length, read whatever was captured. Bytes that were
// not captured read as zero.
struct igmp_header igmp_at(const u_char* bytes, size_t caplen, size_t offset)
{
    struct igmp_header igmp = {};
    if (offset + sizeof igmp <= caplen) [[likely]] { // a copy of known length is one load
        memcpy(&igmp, bytes + offset, sizeof igmp);
    } else if (offset < caplen) {
        memcpy(&igmp, bytes + offset, caplen - offset);
    }
    return igmp;
}

// What a message goes through besides the usual. A constant at each call, so that the usual road asks for
// features at one place alone.
struct Checks {
    bool multicast; // what is no group goes no further
    bool timed;     // the time of a report is kept
};

// This and the two below are inlined: the usual road stays one function. A call and its frame would cost a
// fifth of what a repeated report costs.
[[gnu::always_inline]] inline int add_group(int32_t group, Checks checks)
{
    const long key = group_key(group);
    if (checks.timed) {
        return join_timed(key);
    }
    void* value = reinterpret_cast<void*>(kJoinedMark);
    // Kept: group 0.0.0.0 is a key that the table refuses by assertion.
    return nkht_add(g_ctx.wgrp_ht, key, &value);
}

[[gnu::always_inline]] inline void on_report(int32_t group, Checks checks)
{
    log_dbg("%s: IGMP report msg caught on %s\n", kHandler, group_text(group));
    const int rc = add_group(group, checks);
    if (rc == 0) {
        // Kept: the group is joined whether its line arrives or not.
        relay_msg("JOIN UDP://%s\n", group_text(group));
    } else if (rc != EBUSY) {
        log_err("%s: error adding group %04x\n", kHandler, static_cast<unsigned>(group));
    }
}

// Kept: the first leave ends a group, whoever else is a member.
void on_leave(int32_t group)
{
    log_dbg("%s: IGMP LEAVE msg caught on %s\n", kHandler, group_text(group));
    end_group(kHandler, group);
}

// A message of one group, or a record of a version 3 report.
[[gnu::always_inline]] inline void on_group(struct igmp_header igmp, Word word, Checks checks)
{
    log_dbg("%s: addr=[%s]\n", kHandler, group_text(igmp.group));
    if (checks.multicast && !is_multicast_addr(static_cast<uint32_t>(igmp.group))) {
        log_dbg("%s: not a multicast address: %s\n", kHandler, group_text(igmp.group));
        return;
    }
    if (!in_scope(igmp.group)) { // Kept: asked before the type, for queries too
        log_dbg("%s: address out of scope: %s\n", kHandler, group_text(igmp.group));
        return;
    }
    if (g_cfg.log_level > INFO_level) {
        dump_igmp(log_mirror_fp(&g_log), &igmp);
        dump_igmp(log_fp(&g_log), &igmp);
    }
    if (word == Word::report) {
        on_report(igmp.group, checks);
    } else if (word == Word::leave) {
        on_leave(igmp.group);
    }
}

// A version 3 report, as far as it was captured and its packet reaches. What does not fit in is not believed.
void on_report3(std::span<const u_char> message)
{
    if (message.size() < kMessageHead) {
        log_warn("%s: IGMPv3 report of %lu bytes is too small\n", kHandler, message.size());
        return;
    }
    const unsigned count = 256U * message[6] + message[7];
    std::span<const u_char> rest = message.subspan(kMessageHead);
    for (unsigned i = 1; i <= count; ++i) {
        struct igmp3_record record;
        if (!take_igmp3_record(rest, &record)) {
            log_warn("%s: IGMPv3 report ends within record %u of %u\n", kHandler, i, count);
            return;
        }
        log_dbg("%s: IGMPv3 record %u of %u: type=%u sources=%u\n", kHandler, i, count,
                static_cast<unsigned>(record.type), record.sources);
        on_group({IGMP3_RPT, 0, 0, record.group}, word_of(record), {true, g_cfg.features.expire != 0});
    }
}

// Where the ways part: what the features make of a message. Apart, so that the usual road makes no room for
// it.
[[gnu::noinline, gnu::cold]] void on_featured(std::span<const u_char> frame, size_t offset,
                                              struct igmp_header igmp)
{
    const struct app_features& on = g_cfg.features;
    const u_char* ip = frame.data() + sizeof(struct ether_header);
    const size_t end = std::min(frame.size(), sizeof(struct ether_header) + ip_total_len(ip));
    const std::span<const u_char> message =
        offset < end ? frame.subspan(offset, end - offset) : std::span<const u_char>();
    const bool is_first = ip_fragment_offset(ip) == 0;
    const bool is_general_query = igmp.type == IGMP_QRY && igmp.group == 0 && message.size() >= kMessageHead;
    if (on.expire != 0 && is_general_query && is_first) {
        note_general_query();
    }
    if (igmp.group == 0) {
        relay_flush(); // the report of this group may end the process: what came before it is told
    }
    if (!on.igmpv3 || igmp.type != IGMP3_RPT) {
        on_group(igmp, word_of(igmp.type), {on.exact, on.expire != 0});
    } else if (is_first) {
        on_report3(message);
    } else {
        log_dbg("%s: a later fragment of an IGMPv3 report is not read\n", kHandler);
    }
}

// One look at all features together: a packet without them pays for no other.
void on_igmp(std::span<const u_char> frame, size_t offset)
{
    const struct igmp_header igmp = igmp_at(frame.data(), frame.size(), offset);
    if (g_cfg.features.any) [[unlikely]] {
        on_featured(frame, offset, igmp);
    } else {
        on_group(igmp, word_of(igmp.type), {false, false});
    }
}

// Behind the first check both headers are there, the one of IP without options: what is read further behind
// asks for the captured length again.
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
    on_igmp({bytes, caplen}, sizeof eh + ip_header_len(ip));
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

void end_group(const char* caller, int32_t group)
{
    void* value = nullptr;
    const int rc = nkht_rm(g_ctx.wgrp_ht, group_key(group), &value);
    if (rc == 0) {
        if (g_cfg.features.expire != 0) { // otherwise it is the mark, no block
            free(value);
        }
        relay_msg("LEAVE UDP://%s\n", group_text(group));
    } else if (rc != ESRCH) {
        log_err("%s: error removing group %04x\n", caller, static_cast<unsigned>(group));
    }
}

bool take_igmp3_record(std::span<const u_char>& rest, struct igmp3_record* record)
{
    if (rest.size() < kRecordHead) {
        return false;
    }
    // Byte by byte: a record stands at any address. What it says of its own length is at most 263,168.
    record->type = rest[0];
    record->sources = 256U * rest[2] + rest[3];
    memcpy(&record->group, &rest[4], sizeof record->group);
    const size_t length = kRecordHead + size_t{4} * record->sources + size_t{4} * rest[1];
    if (rest.size() < length) {
        return false;
    }
    rest = rest.subspan(length);
    return true;
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

size_t ip_total_len(const u_char* p)
{
    return size_t{256} * p[2] + p[3];
}

unsigned ip_fragment_offset(const u_char* p)
{
    return 256U * (p[6] & 0x1fU) + p[7];
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
