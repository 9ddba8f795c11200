// Owners of what crosses the border raw: a descriptor, a malloc block. release() hands the thing out.
#ifndef MORVANE_DETAIL_OWNED_H
#define MORVANE_DETAIL_OWNED_H

#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>

namespace mv {

// Owns a descriptor; closes it silently, with errno kept. -1 owns nothing.
class OwnedFd {
  public:
    OwnedFd() = default;

    explicit OwnedFd(int fd) : fd_(fd) {}

    OwnedFd(OwnedFd&& other) noexcept : fd_(other.release()) {}

    OwnedFd& operator=(OwnedFd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }

    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;

    ~OwnedFd() { reset(); }

    int get() const { return fd_; }

    explicit operator bool() const { return fd_ >= 0; }

    int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// Owns a block of malloc, calloc or realloc.
template <class T>
class OwnedBlock {
  public:
    OwnedBlock() = default;

    explicit OwnedBlock(void* block) : block_(static_cast<T*>(block)) {}

    OwnedBlock(OwnedBlock&& other) noexcept : block_(other.release()) {}

    OwnedBlock& operator=(OwnedBlock&& other) noexcept
    {
        reset(other.release());
        return *this;
    }

    OwnedBlock(const OwnedBlock&) = delete;
    OwnedBlock& operator=(const OwnedBlock&) = delete;

    ~OwnedBlock() { reset(); }

    T* get() const { return block_; }

    T* operator->() const { return block_; }

    T& operator*() const { return *block_; }

    explicit operator bool() const { return block_ != nullptr; }

    T* release() { return std::exchange(block_, nullptr); }

    void reset(void* block = nullptr)
    {
        std::free(block_);
        block_ = static_cast<T*>(block);
    }

  private:
    T* block_ = nullptr;
};

} // namespace mv

#endif
