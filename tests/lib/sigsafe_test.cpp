// The wake-up of the loop: from handlers, before and during the wait, and with everything that can fail.
#include "sigsafe.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/epoll.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "fixtures.h"
#include "log.h"
#include "rqs.h"
#include "text.h"
#include "util.h"
#include "wrap.h"

using support::Lines;

namespace {

int g_eventfd_errno = 0;
int g_epoll_ctl_errno = 0;
int g_reads = 0;
int g_idle = 0;
int g_wakes_before_wait = 0;

int on_read(int, int, void* udata, void*)
{
    EXPECT_TRUE(sigsafe_is_wakeup(udata));
    ++g_reads;
    return 0;
}

int no_event(int, int, void*, void*)
{
    ADD_FAILURE();
    return 1;
}

int stop_when_woken()
{
    ++g_idle;
    return g_reads > 0 ? 7 : 0;
}

// Runs between the loop's look at its flags and its wait: the moment in which a signal used to be lost.
void wake_before_the_wait(timespec* tmout)
{
    *tmout = {-1, 0};
    for (; g_wakes_before_wait > 0; --g_wakes_before_wait) {
        sigsafe_wake();
    }
}

WRAPPED(int, eventfd, (unsigned int count, int flags));
WRAPPED(int, epoll_ctl, (int loop, int operation, int fd, epoll_event* event));

extern "C" {
int __wrap_eventfd(unsigned int count, int flags)
{
    errno = g_eventfd_errno;
    return g_eventfd_errno != 0 ? -1 : __real_eventfd(count, flags);
}

int __wrap_epoll_ctl(int loop, int operation, int fd, epoll_event* event)
{
    errno = g_epoll_ctl_errno;
    return g_epoll_ctl_errno != 0 ? -1 : __real_epoll_ctl(loop, operation, fd, event);
}
}

class Wakeup : public support::GuardedTest {
  protected:
    Wakeup()
    {
        g_reads = g_idle = 0;
        rqs_config cfg = {};
        cfg.cb.read = on_read;
        cfg.cb.write = cfg.cb.error = no_event;
        cfg.cb.on_idle = stop_when_woken;
        cfg.cb.update_tmout = wake_before_the_wait;
        EXPECT_EQ(0, rqs_init(&cfg));
    }

    ~Wakeup() override
    {
        sigsafe_close();
        rqs_destroy();
    }
};

} // namespace

TEST_F(Wakeup, ends_a_wait_that_has_not_begun_when_the_signal_comes)
{
    ASSERT_EQ(0, sigsafe_open());
    g_wakes_before_wait = 1;
    EXPECT_EQ(7, rqs_event_loop());
    EXPECT_EQ(1, g_reads);
}

TEST_F(Wakeup, many_times_is_one_read)
{
    ASSERT_EQ(0, sigsafe_open());
    g_wakes_before_wait = 1000;
    EXPECT_EQ(7, rqs_event_loop());
    EXPECT_EQ(1, g_reads);
    EXPECT_EQ(1, g_idle);
}

TEST_F(Wakeup, from_a_handler_ends_a_wait_without_limit)
{
    ASSERT_EQ(0, sigsafe_open());
    struct sigaction act = {};
    act.sa_handler = [](int) { sigsafe_wake(); };
    act.sa_flags = SA_RESTART;
    struct sigaction before = {};
    ASSERT_EQ(0, sigaction(SIGALRM, &act, &before));
    const itimerval soon = {{0, 0}, {0, 20'000}};
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &soon, nullptr));
    EXPECT_EQ(7, rqs_event_loop());
    sigaction(SIGALRM, &before, nullptr);
}

TEST_F(Wakeup, counts_as_a_descriptor_of_the_loop_and_is_opened_once)
{
    EXPECT_EQ(0, sigsafe_open());
    EXPECT_EQ(0, sigsafe_open());
    EXPECT_EQ(1U, rqs_fd_count(GET_POLLFDS));
    sigsafe_close();
    EXPECT_EQ(0U, rqs_fd_count(GET_POLLFDS));
    sigsafe_close();
    EXPECT_EQ(0, sigsafe_open());
}

TEST_F(Wakeup, may_be_descriptor_0)
{
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    ASSERT_EQ(0, sigsafe_open());
    EXPECT_NE(-1, fcntl(STDIN_FILENO, F_GETFD));
    g_wakes_before_wait = 1;
    EXPECT_EQ(7, rqs_event_loop());
    sigsafe_close();
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "it has been closed";
    EXPECT_EQ(0U, rqs_fd_count(GET_POLLFDS));
    dup2(input, STDIN_FILENO);
    close(input);
}

TEST_F(Wakeup, keeps_errno_and_does_nothing_where_it_is_not_open)
{
    errno = 123;
    sigsafe_wake();
    EXPECT_EQ(123, errno);
    ASSERT_EQ(0, sigsafe_open());
    errno = 123;
    sigsafe_wake();
    EXPECT_EQ(123, errno);
}

TEST_F(Wakeup, is_told_from_other_records)
{
    ASSERT_EQ(0, sigsafe_open());
    int other = 0;
    EXPECT_FALSE(sigsafe_is_wakeup(&other));
    EXPECT_FALSE(sigsafe_is_wakeup(nullptr));
}

TEST_F(Wakeup, that_cannot_be_made_says_so_and_is_not_open)
{
    g_eventfd_errno = EMFILE;
    EXPECT_EQ(-1, sigsafe_open());
    EXPECT_EQ(EMFILE, errno);
    g_eventfd_errno = 0;
    EXPECT_EQ((Lines{"(ERR)  sigsafe_open: eventfd ERROR(24): Too many open files"}), log.lines());
    sigsafe_wake();
    EXPECT_EQ(0U, rqs_fd_count(GET_POLLFDS));
    EXPECT_EQ(0, sigsafe_open());
}

TEST_F(Wakeup, that_the_loop_refuses_leaves_no_descriptor)
{
    g_epoll_ctl_errno = ENOSPC;
    EXPECT_EQ(-1, sigsafe_open());
    EXPECT_EQ(ENOSPC, errno);
    g_epoll_ctl_errno = 0;
    ASSERT_EQ(1U, log.lines().size()); // the loop's own
    EXPECT_NE(std::string::npos, log.lines()[0].find("epoll_ctl("));
    EXPECT_EQ(0, sigsafe_open());
}
