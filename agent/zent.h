// The agent: its configuration, its state, and what each of its sources offers the others.
// The road of a packet: config.cpp (options), lifecycle.cpp (set-up), capture.cpp (buffer in), packet.cpp
// (which group?), scope.cpp (wanted?), packet.cpp (new?), reporter.cpp (line out).
#ifndef ZENT_ZENT_H
#define ZENT_ZENT_H

#include <cstdint>
#include <cstdio>
#include <net/ethernet.h>
#include <pcap/pcap.h>

#include "gkh.h"
#include "igmp.h"
#include "mvtypes.h"
#include "wopen.h"

enum {
    MAX_ZENT_CHANNELS = 512, // capacity of the two group tables
    IDLE_MS = 5000,          // read time-out of the capture, and pace of on_idle
    MAX_RURL_LEN = 128,      // report URL with its terminator
    IPHDR_SIZE = 20          // fixed part of the IPv4 header (RFC 791)
};

// What the command line says.
struct app_cfg {
    char mifc[16];                 // interface to listen on
    char report_url[MAX_RURL_LEN]; // "udp://address:port"; empty: lines go to a stream
    uint32_t min_group;            // range of groups in host byte order, 0 for no bound
    uint32_t max_group;
    const char* grp_list_file; // list of groups, or NULL
    const char* logfile;       // log, or "/dev/null"
    int log_level;
    bool non_daemon;   // stay in the foreground
    char rt_user[32];  // user to run as; empty: stay who we are
    char pidfile[128]; // empty: none
};

// Where the lines go: fp if it is set, else sockfd.
struct reporter_ctx {
    FILE* fp;
    int sockfd; // -1 for none; 0 counts as none too
    struct usock_ctx usock;
};

// What the agent holds while it runs.
struct app_ctx {
    char errbuf[PCAP_ERRBUF_SIZE]; // libpcap's error text
    pcap_t* handle;                // NULL when closed
    nkht_t wgrp_ht;                // joined groups: a JOIN line went out and no LEAVE line since
    nkht_t scope_ht;               // groups of the list; 0: no list
    struct reporter_ctx rep;
};

static_assert(PCAP_ERRBUF_SIZE == 256);

// lifecycle.cpp
extern struct app_cfg g_cfg;
extern struct app_ctx g_ctx;
extern const char* g_appname; // base name of argv[0]

// config.cpp: reads the options into g_cfg. 0 or -1; ends the process with 1 after the usage text.
int app_getcfg(int argc, const char** argv);

// usage.cpp: banner, options and build block on stderr; exits with 1.
[[noreturn]] void usage();

// lifecycle.cpp: brings the agent up; 0 or the failed step's result, with everything taken down again.
int app_setup();

// lifecycle.cpp: takes the agent down; may be called twice.
void app_shutdown();

// capture.cpp: installs the quit signals and opens the capture in g_ctx.handle. 0 or -1.
int pcap_setup(const char* ifc_name);

// capture.cpp: takes packets until g_quit. 0, or -1 when the capture fails.
int app_run();

// capture.cpp: its turn comes after each buffer of packets, or after IDLE_MS without any. Always 0.
int on_idle();

// capture.cpp: handler of SIGTERM, SIGQUIT and SIGINT.
void handle_qsig(int signo);

// packet.cpp: the packet's way from the frame to the line.
void on_pcap_pkt(u_char* user, const struct pcap_pkthdr* h, const u_char* bytes);

// packet.cpp: one line about a frame or a message; nothing where fp is NULL.
void dump_ether(FILE* fp, const struct ether_header* eh);
void dump_igmp(FILE* fp, const struct igmp_header* igmp);

// packet.cpp: fields of an IPv4 header (RFC 791).
u_char ip_version(const u_char* p);
size_t ip_header_len(const u_char* p);
u_char ip_protocol(const u_char* p);

// packet.cpp: dotted decimal of an address in network byte order, in a static buffer: one text at a time.
const char* group_text(int32_t ipv4_addr);

// packet.cpp: whether an address (network byte order) is a multicast one, 224.0.0.0/4.
bool is_multicast_addr(uint32_t addr);

// scope.cpp: whether a group (network byte order) is to be reported.
bool in_scope(int32_t ipv4_addr);

// scope.cpp: reads the list of groups into g_ctx.scope_ht. 0, -1 or a code of nkht_create.
int load_group_list(const char* path);

// reporter.cpp: opens what g_cfg.report_url names, or stdout. 0 or -1.
int reporter_setup();

// reporter.cpp: formats one line and sends it to the sink.
void relay_msg(const char* fmt, ...) MV_PRINTF(1, 2);

#endif
