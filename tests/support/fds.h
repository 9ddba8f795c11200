// Descriptors of tests. None may be left over: FdGuard compares the table of open descriptors at both ends of
// a scope.
#ifndef TESTS_SUPPORT_FDS_H
#define TESTS_SUPPORT_FDS_H

#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <unistd.h>

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
    explicit Fd(int fd) : fd_(fd) {}

    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    ~Fd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    operator int() const { return fd_; }

  private:
    int fd_;
};

} // namespace support

#endif
