// What zentmon says to the service manager, and what it gets from it: readiness, watchdog, status, sockets
// (sd_notify(3), sd_listen_fds(3)). Without a service manager nothing happens.
#ifndef ZENTMON_SERVICE_H
#define ZENTMON_SERVICE_H

#include <functional>
#include <string>
#include <vector>

#include "loop.h"

namespace zentmon {

// A socket that was passed with LISTEN_FDS.
struct PassedSocket {
    int fd;
    std::string name; // from FileDescriptorName: several may have one
    bool is_stream;   // a listening stream socket, else a datagram socket
};

// The sockets, once: the variables are removed from the environment. Descriptors of another kind are closed
// with a line in the log.
std::vector<PassedSocket> passed_sockets();

class Service {
  public:
    // status: the text of STATUS, asked for every 5 seconds.
    explicit Service(std::function<std::string()> status);

    void ready();
    void reloading();
    void reloaded();
    void stopping();

  private:
    void send(const std::string& message) const;
    void tell_status();
    void feed_watchdog();

    std::function<std::string()> status_;
    std::string socket_;
    int64_t watchdog_ms_ = 0; // pause between two signs of life, 0: none are wanted
    Timer status_timer_;
    Timer watchdog_timer_;
};

} // namespace zentmon

#endif
