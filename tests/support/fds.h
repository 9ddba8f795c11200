// Descriptors of tests. None may be left over: FdGuard compares the table of open descriptors at both ends of
// a scope.
#ifndef TESTS_SUPPORT_FDS_H
#define TESTS_SUPPORT_FDS_H

#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace support {

inline std::set<int> open_fds()
{
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            fds.insert(std::stoi(entry->d_name));
        }
    }
    fds.erase(dirfd(dir));
    closedir(dir);
    return fds;
}

class FdGuard {
  public:
    FdGuard() : before_(open_fds()) {}

    FdGuard(const FdGuard&) = delete;
    FdGuard& operator=(const FdGuard&) = delete;

    ~FdGuard() { EXPECT_EQ(open_fds(), before_) << "descriptors at the end of the test, and at its start"; }

  private:
    std::set<int> before_;
};

// A descriptor that is closed at the end of its scope.
class Fd {
  public:
    Fd() = default;

    explicit Fd(int fd) : fd_(fd) {}

    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

    Fd& operator=(Fd&& other) noexcept
    {
        reset();
        fd_ = std::exchange(other.fd_, -1);
        return *this;
    }

    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    ~Fd() { reset(); }

    operator int() const { return fd_; }

    int get() const { return fd_; } // where a conversion is not seen: behind "..."

    // Closes it now.
    void reset()
    {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

  private:
    int fd_ = -1;
};

// A pipe. (Pipe itself is a name of syswrap.h.)
struct PipePair {
    explicit PipePair(int flags = 0)
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(pipe2(fds, flags), 0);
        in = Fd(fds[0]);
        out = Fd(fds[1]);
    }

    Fd in;  // to read from
    Fd out; // to write to
};

// Two connected sockets: the one that is tested, and its peer.
struct SocketPair {
    explicit SocketPair(int type = SOCK_STREAM)
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, type, 0, fds), 0);
        ours = Fd(fds[0]);
        peer = Fd(fds[1]);
    }

    Fd ours;
    Fd peer;
};

} // namespace support

#endif
