// The least work over libpcap that can be called watching: the same capture as the agent's, one count a
// packet. agent_least IFACE; prints "ready" when it captures, and the count after SIGTERM.
#include <csignal>
#include <cstdio>
#include <pcap/pcap.h>

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

} // namespace

int main(int argc, char** argv)
{
    char errors[PCAP_ERRBUF_SIZE];
    bpf_program program;
    struct sigaction action = {};
    if (argc != 2 || (g_handle = pcap_open_live(argv[1], 8192, 0, 5000, errors)) == nullptr ||
        pcap_compile(g_handle, &program, "igmp", 0, PCAP_NETMASK_UNKNOWN) != 0 ||
        pcap_setfilter(g_handle, &program) != 0) {
        fprintf(stderr, "agent_least: no capture\n");
        return 1;
    }
    action.sa_handler = on_term;
    sigaction(SIGTERM, &action, nullptr);
    puts("ready");
    fflush(stdout);
    while (g_stop == 0 && pcap_dispatch(g_handle, -1, on_packet, nullptr) != -1) {
    }
    printf("%lu\n", g_count);
    pcap_close(g_handle);
    return 0;
}
