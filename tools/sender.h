// Queries out of one interface.
#ifndef ZENTCTL_SENDER_H
#define ZENTCTL_SENDER_H

#include <array>
#include <cstdint>
#include <string>

#include "querier.h"

namespace zentctl {

// The eight bytes of a query (RFC 2236, section 2), checksum included.
std::array<uint8_t, 8> query_bytes(const Query& query);

// Sends with Router Alert (RFC 2113), TTL 1 and the interface's own address; a general query goes to
// 224.0.0.1, a group-specific one to the group.
class Sender {
  public:
    // Throws CannotLook.
    Sender(const std::string& interface, int index, uint32_t own);
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    ~Sender();

    // Whether it went out; errno says why not.
    bool send(const Query& query) const;

  private:
    int fd_;
};

// Held while one zentctl queries on an interface: a name in the network namespace, gone with the process.
class QuerierLock {
  public:
    // Throws CannotLook: "lock-held".
    explicit QuerierLock(int index);
    QuerierLock(const QuerierLock&) = delete;
    QuerierLock& operator=(const QuerierLock&) = delete;
    ~QuerierLock();

  private:
    int fd_;
};

} // namespace zentctl

#endif
