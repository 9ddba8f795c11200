// The wake-up of the loop: one eventfd, which a handler may write to.
#include "sigsafe.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

#include "detail/kept_errno.h"
#include "detail/owned.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"

DECLARE_MLL(MLL_COMMON);

namespace {

// What the loop reads before a call of read is the tag; handlers read the descriptor alone.
struct wakeup {
    union n32_tag tag;
    volatile sig_atomic_t fd;
};

struct wakeup g_wakeup = {{"wup"}, -1};

} // namespace

int sigsafe_open(void)
{
    if (g_wakeup.fd >= 0) {
        return 0;
    }
    mv::OwnedFd fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!fd) {
        const mv::KeptErrno e;
        log_err("%s: eventfd ERROR(%d): %s\n", __func__, e.number(), e.text());
        return -1;
    }
    if (rqs_add_reader(fd.get(), &g_wakeup) != 0) { // which has told why
        return -1;
    }
    // Last: a handler that runs before finds no descriptor, and the loop looks at its flags before it waits.
    g_wakeup.fd = fd.release();
    return 0;
}

void sigsafe_wake(void)
{
    const int fd = g_wakeup.fd;
    if (fd < 0) {
        return;
    }
    // The code that was interrupted may be about to read errno.
    const mv::KeptErrno kept;
    const uint64_t one = 1;
    // A counter that is full wakes the loop as well as one that is not.
    [[maybe_unused]] const ssize_t n = write(fd, &one, sizeof one);
}

bool sigsafe_is_wakeup(const void* udata)
{
    if (udata != &g_wakeup) {
        return false;
    }
    // One read takes all wakes so far; one that comes behind it makes the descriptor ready again.
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(g_wakeup.fd, &count, sizeof count);
    return true;
}

void sigsafe_close(void)
{
    const int fd = g_wakeup.fd;
    if (fd < 0) {
        return;
    }
    g_wakeup.fd = -1; // first: a handler must not write to a descriptor that is another's by then
    rqs_rm_fd(fd, true, false);
    Close(fd);
}
