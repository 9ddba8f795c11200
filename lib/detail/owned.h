// Owners of what crosses the border raw: a descriptor, a malloc block. release() hands the thing out.
#ifndef MORVANE_DETAIL_OWNED_H
#define MORVANE_DETAIL_OWNED_H

#include <cstdlib>
#include <unistd.h>
#include <utility>

#include "kept_errno.h"

namespace mv {

// How an owner closes: in silence.
struct SilentClose {
    void operator()(int fd) const { ::close(fd); }
};

// Owns a descriptor; closes it by its closer, with errno kept. -1 owns nothing.
template <class Closer>
class DescriptorOwner {
  public:
    DescriptorOwner() = default;

    explicit DescriptorOwner(int fd, Closer closer = {}) : fd_(fd), closer_(closer) {}

    DescriptorOwner(DescriptorOwner&& other) noexcept : fd_(other.release()), closer_(other.closer_) {}

    DescriptorOwner& operator=(DescriptorOwner&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
            closer_ = other.closer_;
        }
        return *this;
    }

    DescriptorOwner(const DescriptorOwner&) = delete;
    DescriptorOwner& operator=(const DescriptorOwner&) = delete;

    ~DescriptorOwner() { reset(); }

    int get() const { return fd_; }

    explicit operator bool() const { return fd_ >= 0; }

    // Hands the descriptor out: from here on it is somebody else's to close.
    int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const KeptErrno kept;
            closer_(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
    // A closer without state takes no room: an OwnedFd is as large as the descriptor.
    [[no_unique_address]] Closer closer_ = {};
};

using OwnedFd = DescriptorOwner<SilentClose>;

// Owns a block of malloc, calloc or realloc.
template <class T>
class OwnedBlock {
  public:
    OwnedBlock() = default;

    explicit OwnedBlock(void* block) : block_(static_cast<T*>(block)) {}

    OwnedBlock(OwnedBlock&& other) noexcept : block_(other.release()) {}

    OwnedBlock& operator=(OwnedBlock&& other) noexcept
    {
        // A move to itself is harmless: release() has emptied the owner before reset() frees what is there.
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
