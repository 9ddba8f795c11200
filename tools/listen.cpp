// libpcap without promiscuous mode, immediate, not blocking.
#include "listen.h"

#include "command.h"

namespace zentctl {

namespace {

constexpr int kSnapLen = 2048;
constexpr int kBuffer = 4 << 20;
// Tags are taken off by the kernel or by the network card, so that tagged frames pass the first word as a
// rule; the second one takes those whose tag is still in them.
constexpr const char* kFilter = "igmp or (vlan and igmp)";
constexpr const char* kPlainFilter = "igmp"; // for links that have no tags

using Take = std::function<void(const Message&)>;

void on_packet(u_char* user, const pcap_pkthdr* header, const u_char* bytes)
{
    const auto message = read_frame({bytes, header->caplen});
    if (message) {
        (*reinterpret_cast<const Take*>(user))(*message);
    }
}

[[noreturn]] void refuse(pcap_t* handle, const std::string& interface, int code)
{
    const std::string reason = std::string(pcap_statustostr(code)) + " " + pcap_geterr(handle);
    pcap_close(handle);
    if (code == PCAP_ERROR_PERM_DENIED) {
        throw CannotLook("no-right", interface + ": no right to capture",
                         "run it as root, or give the right: setcap cap_net_raw+ep FILE");
    }
    throw CannotLook("capture-failed", interface + ": " + reason);
}

bool set_filter(pcap_t* handle, const char* text)
{
    bpf_program program = {};
    if (pcap_compile(handle, &program, text, 1, PCAP_NETMASK_UNKNOWN) != 0) {
        return false;
    }
    const bool is_set = pcap_setfilter(handle, &program) == 0;
    pcap_freecode(&program);
    return is_set;
}

} // namespace

Listener::Listener(const std::string& interface)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = pcap_create(interface.c_str(), error);
    if (handle == nullptr) {
        throw CannotLook("capture-failed", interface + ": " + error);
    }
    pcap_set_snaplen(handle, kSnapLen);
    pcap_set_promisc(handle, 0);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, kBuffer);
    const int code = pcap_activate(handle);
    if (code < 0) {
        refuse(handle, interface, code);
    }
    if (!set_filter(handle, kFilter) && !set_filter(handle, kPlainFilter)) {
        refuse(handle, interface, PCAP_ERROR);
    }
    if (pcap_setnonblock(handle, 1, error) != 0) {
        refuse(handle, interface, PCAP_ERROR);
    }
    handle_ = handle;
}

Listener::~Listener()
{
    pcap_close(handle_);
}

void Listener::drain(const Take& take)
{
    // pcap's callback must not throw through C code: what take throws is carried around it.
    std::exception_ptr thrown;
    const Take guarded = [&](const Message& message) {
        try {
            take(message);
        } catch (...) {
            thrown = std::current_exception();
            pcap_breakloop(handle_);
        }
    };
    const int count =
        pcap_dispatch(handle_, -1, on_packet, reinterpret_cast<u_char*>(const_cast<Take*>(&guarded)));
    if (thrown) {
        std::rethrow_exception(thrown);
    }
    if (count == PCAP_ERROR) {
        throw CannotLook("capture-failed", pcap_geterr(handle_));
    }
}

} // namespace zentctl
