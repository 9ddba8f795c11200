// The capture: libpcap on one interface, as the agent opens it in immediate mode, without disturbing
// anything.
#ifndef ZENTCTL_LISTEN_H
#define ZENTCTL_LISTEN_H

#include <functional>
#include <span>
#include <string>

#include <pcap/pcap.h>

#include "segment.h"

namespace zentctl {

class Listener {
  public:
    // Throws CannotLook: "no-right" for want of CAP_NET_RAW, "capture-failed" for any other reason.
    explicit Listener(const std::string& interface);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    // To be waited for.
    int fd() const { return pcap_get_selectable_fd(handle_); }

    // The kind of frames, DLT_EN10MB for Ethernet.
    int link_type() const { return pcap_datalink(handle_); }

    // Hands over all messages that are there. Throws CannotLook when the interface is gone.
    void drain(const std::function<void(const Message&)>& take);

  private:
    pcap_t* handle_ = nullptr;
};

} // namespace zentctl

#endif
