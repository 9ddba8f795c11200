// The agent: its configuration, its state, and what each of its sources offers the others.
// The road of a packet: features.cpp (environment), config.cpp (options), lifecycle.cpp (set-up), capture.cpp
// (buffer in), packet.cpp (which group?), scope.cpp (wanted?), packet.cpp (new?), reporter.cpp (line out).
#ifndef ZENT_ZENT_H
#define ZENT_ZENT_H

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <net/ethernet.h>
#include <pcap/pcap.h>
#include <span>

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

// What ZENT_FEATURES turns on. Nothing where it is not set: the agent is then what it always was.
struct app_features {
    bool any;        // any of those below: all that the usual road of a packet asks
    bool exact;      // tables keyed in host byte order, groups outside 224.0.0.0/4 dropped
    bool immediate;  // packets are handed over when they arrive
    bool igmpv3;     // version 3 reports are read
    unsigned expire; // seconds without a report that end a group; 0: never
};

// What command line and environment say.
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
    struct app_features features;
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
    nkht_t wgrp_ht;                // joined groups: a JOIN line went out and no LEAVE line since; with
                                   // expire the values are blocks of malloc
    nkht_t scope_ht;               // groups of the list; 0: no list
    struct reporter_ctx rep;
};

static_assert(PCAP_ERRBUF_SIZE == 256);

// lifecycle.cpp
extern struct app_cfg g_cfg;
extern struct app_ctx g_ctx;
extern const char* g_appname; // base name of argv[0]

// The key of a group (network byte order) in the tables of groups.
// Kept: the address as it stands in memory, sign-extended. Such keys can be more than 2^31 apart, where the
// order of a chain hides some. In host byte order all groups are less than 2^28 apart: none hides another.
inline long group_key(int32_t ipv4_addr)
{
    if (g_cfg.features.exact) [[unlikely]] {
        return static_cast<long>(ntohl(static_cast<uint32_t>(ipv4_addr)));
    }
    return static_cast<long>(ipv4_addr);
}

// The group of such a key.
inline int32_t group_of_key(long key)
{
    return static_cast<int32_t>(g_cfg.features.exact ? htonl(static_cast<uint32_t>(key))
                                                     : static_cast<uint32_t>(key));
}

// C names for all of them: a test may put a step of its own in a step's place.
extern "C" {
// features.cpp: reads a text in the form of ZENT_FEATURES; NULL, empty or blank: nothing is on. 0, or -1 with
// nothing on and the reason, which names the word and what is known, in complaint (room bytes, 256 hold it
// unless the word is long). Uses no state of the agent.
int parse_features(const char* text, struct app_features* features, char* complaint, size_t room);

// features.cpp: the same from the environment into g_cfg.features, with the complaint on stderr. 0 or -1.
int read_features();

// features.cpp: the words that are on, in one order, in a static buffer; empty where nothing is.
const char* features_text(const struct app_features* features);

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

// packet.cpp: takes a group (network byte order) out of the joined ones and tells so; one that is not joined
// passes in silence. A failure is told in the name of caller.
void end_group(const char* caller, int32_t group);

// packet.cpp: the first record of rest, which is cut by its length. False where none fits in.
bool take_igmp3_record(std::span<const u_char>& rest, struct igmp3_record* record);

// packet.cpp: one line about a frame or a message; nothing where fp is NULL.
void dump_ether(FILE* fp, const struct ether_header* eh);
void dump_igmp(FILE* fp, const struct igmp_header* igmp);

// packet.cpp: fields of an IPv4 header (RFC 791); lengths in bytes, the fragment's offset in units of 8.
u_char ip_version(const u_char* p);
size_t ip_header_len(const u_char* p);
size_t ip_total_len(const u_char* p);
unsigned ip_fragment_offset(const u_char* p);
u_char ip_protocol(const u_char* p);

// packet.cpp: dotted decimal of an address in network byte order, in a static buffer: one text at a time.
const char* group_text(int32_t ipv4_addr);

// packet.cpp: whether an address (network byte order) is a multicast one, 224.0.0.0/4.
bool is_multicast_addr(uint32_t addr);

// expire.cpp, all with the feature expire alone. expire_start: begins with expiry suspended and sets the
// timer that breaks the capture's wait every second; 0, or -1 with a line. expire_stop: stops it.
// note_general_query: somebody asks the hosts. join_timed: nkht_add of a joined group with the time; 0, EBUSY
// for one that is joined and heard again, or another code of nkht_add. expire_groups: ends the groups that
// are over, at most once a second; to be called after each wait.
int expire_start();
void expire_stop();
void note_general_query();
int join_timed(long key);
void expire_groups();

// scope.cpp: whether a group (network byte order) is to be reported.
bool in_scope(int32_t ipv4_addr);

// scope.cpp: reads the list of groups into g_ctx.scope_ht. 0, -1 or a code of nkht_create.
int load_group_list(const char* path);

// reporter.cpp: opens what g_cfg.report_url names, or stdout. 0 or -1.
int reporter_setup();

// reporter.cpp: formats one line and sends it to the sink.
void relay_msg(const char* fmt, ...) MV_PRINTF(1, 2);

// reporter.cpp: writes the lines that the feature immediate has gathered for stdout; to be called before
// anything is waited for.
void relay_flush();

} // extern "C"

#endif
