// The capture: set-up, the run loop, and each packet's way from the frame to the table of joined groups.
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <unistd.h>

#include "log.h"
#include "util.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr int kSnapLen = 8192;
constexpr const char* kFilter = "igmp";
constexpr uintptr_t kJoinedMark = 0xaaaa; // stored with a joined group; nobody reads it back
constexpr int kBroken = -2;               // pcap_dispatch() after pcap_breakloop()

// The pattern with the number in place of its "%d", by hand: nothing of stdio may run in a handler.
size_t signal_text(const char* pattern, int signo, char (&text)[32])
{
    size_t length = 0;
    for (const char* from = pattern; *from != 0; ++from) {
        if (*from != '%') {
            text[length++] = *from;
            continue;
        }
        ++from;
        if (signo >= 10) {
            text[length++] = static_cast<char>('0' + signo / 10);
        }
        text[length++] = static_cast<char>('0' + signo % 10);
    }
    return length;
}

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
    log_dbg("%s: IGMP report msg caught on %s\n", "on_pcap_pkt", group_text(igmp.group));
    void* value = reinterpret_cast<void*>(kJoinedMark);
    // Kept: group 0.0.0.0 is a key that the table refuses by assertion.
    const int rc = nkht_add(g_ctx.wgrp_ht, group_key(igmp), &value);
    if (rc == 0) {
        // Kept: the group is joined whether its line arrives or not.
        relay_msg("JOIN UDP://%s\n", group_text(igmp.group));
    } else if (rc != EBUSY) {
        log_err("%s: error adding group %04x\n", "on_pcap_pkt", static_cast<unsigned>(igmp.group));
    }
}

// Kept: the first leave ends a group, whoever else is a member.
void on_leave(const struct igmp_header& igmp)
{
    log_dbg("%s: IGMP LEAVE msg caught on %s\n", "on_pcap_pkt", group_text(igmp.group));
    void* value = nullptr;
    const int rc = nkht_rm(g_ctx.wgrp_ht, group_key(igmp), &value);
    if (rc == 0) {
        relay_msg("LEAVE UDP://%s\n", group_text(igmp.group));
    } else if (rc != ESRCH) {
        log_err("%s: error removing group %04x\n", "on_pcap_pkt", static_cast<unsigned>(igmp.group));
    }
}

void on_igmp(const struct igmp_header& igmp)
{
    log_dbg("%s: addr=[%s]\n", "on_pcap_pkt", group_text(igmp.group));
    if (!in_scope(igmp.group)) { // Kept: asked before the type, for queries too
        log_dbg("%s: address out of scope: %s\n", "on_pcap_pkt", group_text(igmp.group));
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
        log_err("%s: packet is too small: %u bytes\n", "on_pcap_pkt", static_cast<unsigned>(caplen));
        return;
    }
    memcpy(&eh, bytes, sizeof eh);
    if (ntohs(eh.ether_type) != ETHERTYPE_IP) {
        log_err("%s: got non-IP packet: type=%02x\n", "on_pcap_pkt", eh.ether_type);
        return;
    }
    if (g_cfg.log_level > INFO_level) {
        dump_ether(log_mirror_fp(&g_log), &eh);
        dump_ether(log_fp(&g_log), &eh);
    }
    const u_char* ip = bytes + sizeof eh;
    if (ip_version(ip) != IPVERSION) {
        log_err("%s: non-IPv4: %x\n", "on_pcap_pkt", ip_version(ip));
        return;
    }
    if (ip_protocol(ip) != IPPROTO_IGMP) {
        log_err("%s: proto=%d - non-IGMP packet\n", "on_pcap_pkt", ip_protocol(ip));
        return;
    }
    on_igmp(igmp_at(bytes, caplen, sizeof eh + ip_header_len(ip)));
}

} // namespace

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

void handle_qsig(int signo)
{
    const int saved = errno;
    char text[32];
    const size_t length = signal_text("\nSIG(%d)\n", signo, text);
    // Nothing can be done about a failure here.
    [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, text, length);
    g_quit = 1;
    if (g_ctx.handle != nullptr) {
        pcap_breakloop(g_ctx.handle);
    }
    errno = saved;
}

int pcap_setup(const char* ifc_name)
{
    bpf_u_int32 net = 0;
    bpf_u_int32 mask = 0;
    // Kept: the compiled program is not freed; it lives as long as the process does.
    static struct bpf_program prog;

    handle_quit_signals(handle_qsig);
    if (pcap_lookupnet(ifc_name, &net, &mask, g_ctx.errbuf) != 0) {
        log_err("%s: pcap_lookupnet(%s,...) FAILED: %s\n", __func__, ifc_name, g_ctx.errbuf);
        return -1;
    }
    g_ctx.handle = pcap_open_live(ifc_name, kSnapLen, 0, IDLE_MS, g_ctx.errbuf);
    if (g_ctx.handle == nullptr) {
        log_err("%s: pcap_open_live(%s, ...): FAILED: %s\n", __func__, ifc_name, g_ctx.errbuf);
        return -1;
    }
    if (pcap_compile(g_ctx.handle, &prog, kFilter, 0, mask) != 0) {
        log_err("%s: pcap_compile(..,%s,...) FAILED: %s\n", __func__, kFilter, g_ctx.errbuf);
        return -1;
    }
    if (pcap_setfilter(g_ctx.handle, &prog) != 0) {
        log_err("%s: pcap_setfilter(...) FAILED: %s\n", __func__, g_ctx.errbuf);
        return -1;
    }
    return 0;
}

int app_run()
{
    int rc = 0;
    log_info("%s is running as UID=%ld, pid=%d\n", g_appname, static_cast<long>(geteuid()), getpid());
    while (g_quit == 0 && rc == 0) {
        log_dbg("%s: waiting for packets\n", __func__);
        const int count = pcap_dispatch(g_ctx.handle, -1, on_pcap_pkt, nullptr);
        if (count == kBroken && g_quit != 0) {
            break;
        }
        if (count == -1) {
            log_err("%s: pcap_dispatch() ERROR: %s\n", __func__, pcap_geterr(g_ctx.handle));
            rc = -1;
            break;
        }
        log_dbg("%s: %d packets\n", __func__, count);
        rc = on_idle();
    }
    log_info("%s: ended with rc=%d\n", __func__, rc);
    return rc;
}

int on_idle()
{
    static time_t last_tm = 0;
    const time_t now = time(nullptr);
    if ((now - last_tm) * 1000 < IDLE_MS) {
        return 0;
    }
    last_tm = now;
    log_dbg("%s: doing nothing\n", __func__);
    return 0;
}

void on_pcap_pkt(u_char* user, const struct pcap_pkthdr* h, const u_char* bytes)
{
    (void)user;
    log_dbg("%s: BEGIN\n", __func__);
    on_frame(bytes, h->caplen);
    log_dbg("%s: END\n", __func__);
}
