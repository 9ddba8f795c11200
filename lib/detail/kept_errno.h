// errno as a result: read right behind the call that failed, shown in a line, and put back for the caller,
// whom the calls in between (a line of the log may write, close, allocate) must not mislead.
#ifndef MORVANE_DETAIL_KEPT_ERRNO_H
#define MORVANE_DETAIL_KEPT_ERRNO_H

#include <cerrno>
#include <cstring>

namespace mv {

// Takes errno when it is made, puts it back at the end of its scope. What a return statement of that scope
// calls cannot disturb it either.
class KeptErrno {
  public:
    KeptErrno() : number_(errno) {}

    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

    ~KeptErrno() { errno = number_; }

    int number() const { return number_; }

    // The text of libc, valid until the next one is asked for.
    const char* text() const { return strerror(number_); }

  private:
    int number_;
};

// Whether a call would have had to wait.
inline bool is_eagain(int err)
{
#if EAGAIN == EWOULDBLOCK
    return err == EAGAIN;
#else
    return err == EAGAIN || err == EWOULDBLOCK;
#endif
}

} // namespace mv

#endif
