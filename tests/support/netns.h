// Private network namespaces: nothing of a test leaves this process, and nothing is left when it ends.
#ifndef TESTS_SUPPORT_NETNS_H
#define TESTS_SUPPORT_NETNS_H

#include <string>

namespace support {

// Why namespaces cannot be had here, empty if they can: a test that needs them skips with this text.
std::string netns_missing();

// Two namespaces joined by a veth pair: "va" with 10.0.0.1/24 and fd00::1/64 in the first, "vb"
// with 10.0.0.2/24 and fd00::2/64 in the second; loopback is up in both. Multicast and the default route go
// through the pair. The constructor returns when both ends are running, so that the first datagram arrives,
// and leaves the calling process where it was; enter_a and enter_b move it, leave moves it back.
class NetnsPair {
  public:
    NetnsPair();
    NetnsPair(const NetnsPair&) = delete;
    NetnsPair& operator=(const NetnsPair&) = delete;
    ~NetnsPair();

    void enter_a() const;
    void enter_b() const;
    void leave() const;

  private:
    int own_ = -1;
    int a_ = -1;
    int b_ = -1;
};

// Runs a function inside one of the namespaces and comes back.
template <class Body>
auto inside(const NetnsPair& pair, void (NetnsPair::*enter)() const, Body body)
{
    struct Back {
        const NetnsPair& pair;

        ~Back() { pair.leave(); }
    } back{pair};

    (pair.*enter)();
    return body();
}

// Waits until an interface of the current namespace is running: what is sent through it before is dropped.
// Aborts the test if it does not come up.
void await_link(const std::string& name);

// Runs a command of iproute2 or any other program in the current namespace; aborts the test if it fails.
void must_run(const std::string& command);

} // namespace support

#endif
