// The least work over libpcap that can be called watching: the same capture as the agent's, one count a
// packet; with "lines" one line a packet too, which is the least that can be called telling. Says "ready" on
// stderr when it captures, and the count after SIGTERM.
// agent_least IFACE [lines]
#include <csignal>
#include <cstdio>
#include <cstring>
#include <pcap/pcap.h>
#include <unistd.h>

namespace {

pcap_t* g_handle = nullptr;
volatile sig_atomic_t g_stop = 0;
unsigned long g_count = 0;

void on_term(int)
{
    g_stop = 1;
    pcap_breakloop(g_handle);
}

void on_packet(u_char*, const pcap_pkthdr*, const u_char*)
{
    ++g_count;
}

// As long as a usual line.
void tell_packet(u_char*, const pcap_pkthdr*, const u_char*)
{
    static constexpr char kLine[] = "LEAVE UDP://239.1.2.34\n";
    g_count += write(STDOUT_FILENO, kLine, sizeof kLine - 1) > 0 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    char errors[PCAP_ERRBUF_SIZE];
    bpf_program program;
    struct sigaction action = {};
    const bool tells = argc == 3 && strcmp(argv[2], "lines") == 0;
    if (argc != (tells ? 3 : 2) || (g_handle = pcap_open_live(argv[1], 8192, 0, 5000, errors)) == nullptr ||
        pcap_compile(g_handle, &program, "igmp", 0, PCAP_NETMASK_UNKNOWN) != 0 ||
        pcap_setfilter(g_handle, &program) != 0) {
        fprintf(stderr, "agent_least: no capture\n");
        return 1;
    }
    action.sa_handler = on_term;
    sigaction(SIGTERM, &action, nullptr);
    fputs("ready\n", stderr);
    while (g_stop == 0 && pcap_dispatch(g_handle, -1, tells ? tell_packet : on_packet, nullptr) != -1) {
    }
    fprintf(stderr, "%lu\n", g_count);
    pcap_close(g_handle);
    return 0;
}
