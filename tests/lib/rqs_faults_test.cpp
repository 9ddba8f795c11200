// What the kernel cannot be made to do on demand: failing calls of the loop and of the file watches, and
// records that no kernel writes.
#include <cerrno>
#include <cstdarg>
#include <sys/inotify.h>
#include <sys/ioctl.h>

#include "child.h"
#include "detail/inotify_records.h"
#include "rqs_fixture.h"
#include "wrap.h"

namespace {

using loop::make_pipe;
using loop::PipePair;
using loop::Record;
using loop::Words;
using support::expect_abort;

constexpr int kStopped = 100;

// What the next calls answer; empty: the system's own.
struct Faults {
    int epoll_create_error = 0;
    int inotify_init_error = 0;
    int inotify_rm_watch_error = 0;
    int ioctl_error = 0;
    bool set_waiting = false;
    int waiting = 0; // what FIONREAD tells
    std::string bytes;
    std::function<int(epoll_event*, int, int)> wait; // events, room, limit
};

Faults g_faults;

} // namespace

WRAPPED(int, epoll_create, (int size));
WRAPPED(int, epoll_wait, (int fd, epoll_event* events, int room, int limit));
WRAPPED(int, inotify_init, (void));
WRAPPED(int, inotify_rm_watch, (int fd, int wd));
WRAPPED(int, ioctl, (int fd, unsigned long request, ...));
WRAPPED(ssize_t, read, (int fd, void* buf, size_t count));

extern "C" {
int __wrap_epoll_create(int size)
{
    EXPECT_EQ(size, 128);
    errno = g_faults.epoll_create_error;
    return g_faults.epoll_create_error != 0 ? -1 : __real_epoll_create(size);
}

int __wrap_epoll_wait(int fd, epoll_event* events, int room, int limit)
{
    return g_faults.wait ? g_faults.wait(events, room, limit) : __real_epoll_wait(fd, events, room, limit);
}

int __wrap_inotify_init(void)
{
    errno = g_faults.inotify_init_error;
    return g_faults.inotify_init_error != 0 ? -1 : __real_inotify_init();
}

int __wrap_inotify_rm_watch(int fd, int wd)
{
    errno = g_faults.inotify_rm_watch_error;
    return g_faults.inotify_rm_watch_error != 0 ? -1 : __real_inotify_rm_watch(fd, wd);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void* argument = va_arg(ap, void*);
    va_end(ap);
    if (g_faults.ioctl_error != 0) {
        errno = g_faults.ioctl_error;
        return -1;
    }
    if (g_faults.set_waiting && request == FIONREAD) {
        *static_cast<int*>(argument) = g_faults.waiting;
        return 0;
    }
    return __real_ioctl(fd, request, argument);
}

ssize_t __wrap_read(int fd, void* buf, size_t count)
{
    if (g_faults.bytes.empty()) {
        return __real_read(fd, buf, count);
    }
    const size_t n = std::min(count, g_faults.bytes.size());
    memcpy(buf, g_faults.bytes.data(), n);
    return static_cast<ssize_t>(n);
}
}

namespace {

class RqsFaults : public loop::Loop {
  protected:
    RqsFaults() { g_faults = {}; }

    ~RqsFaults() override { g_faults = {}; }

    static int fail_with(int error)
    {
        errno = error;
        return -1;
    }
};

TEST_F(RqsFaults, epoll_refuses)
{
    g_faults.epoll_create_error = EMFILE;
    rqs_config cfg = {};
    cfg.cb = loop::all_callbacks();
    EXPECT_EQ(rqs_init(&cfg), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(log.lines(), Words{"(ERR)  rqs_init: epoll_create1() ERROR(24): Too many open files"});
    EXPECT_EQ(rqs_rm_fd(0, true, false), 0) << "nothing to remove from";
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(RqsFaults, a_loop_on_descriptor_0_is_a_loop)
{
    const support::ChildResult result = support::run_in_child([this] {
        const PipePair p = make_pipe();
        close(STDIN_FILENO);
        init();
        Record record;
        rqs_add_reader(p.in, &record);
        const int removed = rqs_rm_fd(p.in, true, false);
        const int again = rqs_rm_fd(p.in, true, false);
        printf("%d;%d;%d", removed, again, errno);
        return 0;
    });
    EXPECT_EQ(result.out, "0;-1;2") << "what is removed is no longer there";
}

TEST_F(RqsFaults, inotify_refuses_and_the_epoll_descriptor_stays_for_the_end)
{
    g_faults.inotify_init_error = ENFILE;
    const auto before = support::open_fds();
    rqs_config cfg = {};
    cfg.cb = loop::all_callbacks();
    EXPECT_EQ(rqs_init(&cfg), -1);
    EXPECT_EQ(errno, ENFILE);
    EXPECT_EQ(log.lines(), Words{"(ERR)  rqs_init: inotify_init1 ERROR(23): Too many open files in system"});
    EXPECT_EQ(support::open_fds().size(), before.size() + 1);
    rqs_destroy();
    EXPECT_EQ(support::open_fds(), before);
}

// ---- the wait ---------------------------------------------------------------------------------------

TEST_F(RqsFaults, a_wait_that_fails_ends_the_loop_with_its_errno)
{
    init();
    add_idle_reader();
    g_faults.wait = [](epoll_event*, int, int) { return fail_with(EIO); };
    EXPECT_EQ(rqs_event_loop(), EIO);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "update_tmout"})) << "time_out is not called";
    EXPECT_EQ(lines_with("...) ERROR(5): Input/output error").size(), 1U);
    EXPECT_EQ(lines_with("Exiting event loop, 0 failed, rc=5, quit=0").size(), 1U);
}

TEST_F(RqsFaults, the_time_is_read_after_a_failed_wait_too)
{
    init();
    add_idle_reader();
    const timespec before = rqs_now();
    g_faults.wait = [](epoll_event*, int, int) { return fail_with(EIO); };
    EXPECT_EQ(rqs_event_loop(), EIO);
    EXPECT_TRUE(rqs_now().tv_sec != before.tv_sec || rqs_now().tv_nsec != before.tv_nsec);
}

TEST_F(RqsFaults, an_interruption_walks_the_nopoll_events_and_is_forgotten)
{
    init();
    add_idle_reader();
    ASSERT_EQ(rqs_add_nopoll_reader(5, nullptr, nullptr), 0);
    g_faults.wait = [](epoll_event*, int, int) { return fail_with(EINTR); };
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    const Words cycle = {"update_tmout", "time_out", "read", "post_process@2", "on_idle"};
    EXPECT_EQ(Words(hooks.trace.begin() + 1, hooks.trace.begin() + 6), cycle);
    EXPECT_EQ(hooks.trace[6], "post_process@3");
    EXPECT_EQ(lines_with("wait4events interrupted, quit=0").size(), 2U);
}

TEST_F(RqsFaults, an_interruption_without_nopoll_events_does_not_become_the_result)
{
    init();
    add_idle_reader();
    g_faults.wait = [](epoll_event*, int, int) { return fail_with(EINTR); };
    stop_after(3);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("on_idle"), 3U);
}

TEST_F(RqsFaults, kept_the_limit_of_the_wait_in_milliseconds_keeps_its_low_bits)
{
    init();
    add_idle_reader();

    struct Case {
        timespec tmout;
        int limit;
    };

    const Case cases[] = {
        {{0, 0}, 0},
        {{0, 999'999}, 0},
        {{0, 1'000'000}, 1},
        {{1, 500'000'000}, 1500},
        {{-1, 0}, -1},
        {{0, -1}, -1},
        {{-1, -1}, -1},
        {{2'147'483, 647'000'000}, 2'147'483'647},
        {{2'147'483, 648'000'000}, -2'147'483'647 - 1}, // the low 32 bits
        {{4'294'967, 296'000'000}, 0},
        {{4'294'968, 0}, 704},
        {{INT64_MAX, 0}, -1000},
    };
    for (const Case& c : cases) {
        int limit = -77;
        hooks.update_tmout = [&c](timespec* tmout) { *tmout = c.tmout; };
        g_faults.wait = [&limit](epoll_event*, int, int at) {
            limit = at;
            return 0;
        };
        stop_after(1);
        EXPECT_EQ(rqs_event_loop(), kStopped);
        EXPECT_EQ(limit, c.limit) << c.tmout.tv_sec << " " << c.tmout.tv_nsec;
    }
}

TEST_F(RqsFaults, without_update_tmout_there_is_no_limit_and_nopoll_events_make_it_0)
{
    init(loop::fewest_callbacks());
    add_idle_reader();
    std::vector<int> limits;
    g_faults.wait = [&](epoll_event*, int, int limit) {
        limits.push_back(limit);
        return limits.size() < 3 ? 0 : fail_with(EIO);
    };
    hooks.read = [&](int, int, void*) { return 0; };
    EXPECT_EQ(rqs_event_loop(), EIO);
    EXPECT_EQ(limits, (std::vector<int>{-1, -1, -1}));
    ASSERT_EQ(rqs_add_nopoll_reader(0, nullptr, nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), EIO);
    EXPECT_EQ(limits.back(), 0);
}

TEST_F(RqsFaults, the_room_for_events_is_that_of_the_descriptors_in_blocks_of_ten)
{
    init();
    std::vector<loop::PipePair> pipes;
    Record record;
    int room = -1;
    g_faults.wait = [&room](epoll_event*, int at, int) {
        room = at;
        return 0;
    };
    for (const size_t total : {1U, 10U, 11U, 25U}) {
        while (pipes.size() < total) {
            pipes.push_back(loop::make_pipe());
            ASSERT_EQ(rqs_add_reader(pipes.back().in, &record), 0);
        }
        stop_after(1);
        EXPECT_EQ(rqs_event_loop(), kStopped);
        EXPECT_EQ(static_cast<size_t>(room), (total + 9) / 10 * 10);
    }
}

// ---- masks ----------------------------------------------------------------------------------------------

class RqsMasks : public RqsFaults {
  protected:
    // One cycle with one event of the mask. What the loop returns.
    int dispatch(uint32_t mask)
    {
        g_faults.wait = [this, mask](epoll_event* events, int, int) {
            events[0].events = mask;
            events[0].data.ptr = &record;
            return 1;
        };
        hooks.trace.clear();
        stop_after(1);
        const auto keep = [this](int, int err, void* udata) {
            EXPECT_EQ(udata, &record);
            fd_err = err;
            return 0;
        };
        hooks.read = hooks.write = hooks.error = keep;
        const int rc = rqs_event_loop();
        return rc;
    }

    Record record;
    int fd_err = -1;
};

TEST_F(RqsMasks, each_mask_goes_to_one_callback)
{
    init();
    add_idle_reader();
    const uint32_t failures[] = {0, EPOLLERR, EPOLLHUP, EPOLLRDHUP, EPOLLERR | EPOLLHUP | EPOLLRDHUP};
    for (const uint32_t failure : failures) {
        const int want = ((failure & EPOLLERR) != 0 ? RQS_SOCKERR : 0) |
                         ((failure & (EPOLLHUP | EPOLLRDHUP)) != 0 ? RQS_SOCKHUP : 0);

        const struct {
            uint32_t mask;
            const char* callback;
        } cases[] = {{EPOLLIN, "read"}, {EPOLLOUT, "write"}, {EPOLLIN | EPOLLOUT, "read"}, {0, "error"}};

        for (const auto& c : cases) {
            if ((c.mask | failure) == 0) {
                continue;
            }
            EXPECT_EQ(dispatch(c.mask | failure), kStopped);
            EXPECT_EQ(count("read") + count("write") + count("error"), 1U);
            EXPECT_EQ(count(c.callback), 1U) << c.callback << " " << failure;
            EXPECT_EQ(fd_err, want);
        }
    }
}

TEST_F(RqsMasks, a_mask_of_neither_is_a_failed_event)
{
    init();
    add_idle_reader();
    EXPECT_EQ(dispatch(EPOLLPRI), 1);
    EXPECT_EQ(lines_with("(ERR)  on_event: unsupported event mask: 0x2").size(), 1U);
    EXPECT_EQ(dispatch(0), 1);
    EXPECT_EQ(lines_with("(ERR)  on_event: unsupported event mask: 0x0").size(), 1U);
    EXPECT_EQ(count("read") + count("write") + count("error"), 0U);
}

TEST_F(RqsMasks, an_event_without_room_is_an_assertion)
{
    init();
    hooks.is_dormant = [] { return false; };
    g_faults.wait = [](epoll_event*, int room, int) {
        EXPECT_EQ(room, 0);
        return 1;
    };
    stop_after(1);
    expect_abort([] { rqs_event_loop(); });
}

// ---- records that no kernel writes ------------------------------------------------------------------------

std::string record(int wd, uint32_t mask, uint32_t cookie = 0, const std::string& name = {})
{
    inotify_event head = {};
    head.wd = wd;
    head.mask = mask;
    head.cookie = cookie;
    head.len = static_cast<uint32_t>(name.size());
    return std::string(reinterpret_cast<const char*>(&head), sizeof head) + name;
}

class RqsRecords : public RqsFaults {
  protected:
    RqsRecords()
    {
        init();
        wd = rqs_add_file_watch(&mark, "/tmp");
        EXPECT_GT(wd, 0);
        hooks.on_file_modified = [this](int at, int flags, void* udata) {
            EXPECT_EQ(udata, &mark);
            EXPECT_EQ(at, wd);
            seen.push_back(flags);
            return 0;
        };
    }

    // One cycle in which the inotify descriptor is readable. What the loop returns.
    int deliver(const std::string& bytes)
    {
        g_faults.bytes = bytes;
        g_faults.set_waiting = true;
        g_faults.waiting = static_cast<int>(bytes.size());
        return wake();
    }

    int wake(uint32_t mask = EPOLLIN)
    {
        g_faults.wait = [mask](epoll_event* events, int, int) {
            events[0].events = mask;
            events[0].data.ptr = g_own;
            return 1;
        };
        stop_after(1);
        return rqs_event_loop();
    }

    // The word with which the loop has registered its inotify descriptor: epoll tells it.
    void learn_own()
    {
        char name[] = "/tmp/rqs_faults_XXXXXX";
        const mv::OwnedFd temporary(mkstemp(name));
        loop::put(temporary.get(), "x");
        unlink(name);
        for (const int fd : support::open_fds()) {
            epoll_event event = {};
            if (__real_epoll_wait(fd, &event, 1, 0) == 1) {
                g_own = event.data.ptr;
            }
        }
        ASSERT_NE(g_own, nullptr);
    }

    void SetUp() override { learn_own(); }

    static void* g_own;
    int wd = -1;
    int mark = 0;
    std::vector<int> seen;
};

void* RqsRecords::g_own = nullptr;

TEST_F(RqsRecords, the_flags_of_each_mask)
{
    const struct {
        uint32_t mask;
        int flags;
    } cases[] = {
        {IN_MODIFY, 0},
        {IN_CLOSE_WRITE, 0},
        {IN_ATTRIB, RQS_ATTR},
        {IN_MOVE_SELF, RQS_RMV | RQS_FMOVED},
        {IN_DELETE_SELF, RQS_RMV | RQS_FDELETED},
        {IN_ATTRIB | IN_MODIFY, RQS_ATTR},
        {IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB, RQS_RMV | RQS_FMOVED | RQS_FDELETED | RQS_ATTR},
        {IN_MODIFY | IN_IGNORED, 0},
    };

    for (const auto& c : cases) {
        seen.clear();
        EXPECT_EQ(deliver(record(wd, c.mask)), kStopped);
        EXPECT_EQ(seen, std::vector<int>{c.flags}) << c.mask;
    }
}

TEST_F(RqsRecords, ignored_and_unknown_masks_reach_no_callback)
{
    EXPECT_EQ(deliver(record(wd, IN_IGNORED) + record(-1, IN_Q_OVERFLOW) + record(wd, IN_OPEN)), kStopped);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(lines_with("(DBG)  process_inotify_records: IN_IGNORED (0x8000)").size(), 1U);
    EXPECT_EQ(lines_with("(WRN)  process_inotify_records: unhandled inotify mask: 0x4000").size(), 1U);
    EXPECT_EQ(lines_with("(WRN)  process_inotify_records: unhandled inotify mask: 0x20").size(), 1U);
    EXPECT_EQ(lines_with(": 3 inotify_event records processed").size(), 1U);
}

TEST_F(RqsRecords, watches_that_are_none_are_told_and_the_walk_goes_on)
{
    EXPECT_EQ(deliver(record(0, IN_MODIFY) + record(-1, IN_MODIFY) + record(999, IN_ATTRIB) +
                      record(wd, IN_MODIFY)),
              kStopped);
    EXPECT_EQ(seen, std::vector<int>{0});
    for (const char* number : {"0", "-1", "999"}) {
        EXPECT_EQ(lines_with(std::string("(ERR)  wfd_map_get: wfd=") + number + " is not found.").size(), 1U);
    }
}

TEST_F(RqsRecords, the_letters_of_the_dump_stand_in_their_order)
{
    const uint32_t all = IN_ACCESS | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MODIFY |
                         IN_MOVE_SELF | IN_MOVED_FROM | IN_MOVED_TO | IN_OPEN | IN_CLOSE_WRITE |
                         IN_CLOSE_NOWRITE;
    EXPECT_EQ(deliver(record(wd, all, 4242)), kStopped);
    const std::string want = "): wd" + std::to_string(wd) + ", mask=0x0fff [ATcdDyMftOWw] cookie=4242 []";
    EXPECT_EQ(lines_with(want).size(), 1U) << log.text();
    EXPECT_EQ(deliver(record(wd, IN_ATTRIB | IN_OPEN)), kStopped);
    EXPECT_EQ(lines_with("mask=0x0024 [TO] cookie=0 []").size(), 1U);
}

TEST_F(RqsRecords, names_are_bounded_by_their_length)
{
    EXPECT_EQ(deliver(record(wd, IN_MODIFY, 0, std::string("name\0\0\0\0", 8)) +
                      record(wd, IN_MODIFY, 0, "unterminated") +
                      record(wd, IN_MODIFY, 0, std::string(1000, 'n'))),
              kStopped);
    EXPECT_EQ(lines_with(" [name]").size(), 1U);
    EXPECT_EQ(lines_with(" [unterminated]").size(), 1U);
    EXPECT_EQ(lines_with(" [" + std::string(255, 'n') + "]").size(), 1U);
    EXPECT_EQ(seen.size(), 3U);
}

TEST_F(RqsRecords, a_broken_record_ends_the_walk_and_is_no_failure)
{
    const std::string whole = record(wd, IN_MODIFY);

    const struct {
        std::string tail;
        const char* why;
    } cases[] = {
        {whole.substr(0, 15), "a header cut short"},
        {whole.substr(0, 1), "one byte"},
        {record(wd, IN_MODIFY, 0, std::string(16, 'x')).substr(0, 31), "a name cut short"},
        {record(wd, IN_MODIFY, 0, "xy"), "a name that leaves the next record unaligned"},
        {std::string(reinterpret_cast<const char*>("\1\0\0\0\2\0\0\0\0\0\0\0\xff\xff\xff\xff"), 16),
         "a name of 4 GiB"},
    };

    for (const auto& c : cases) {
        seen.clear();
        log.clear();
        EXPECT_EQ(deliver(whole + c.tail), kStopped) << c.why;
        EXPECT_EQ(seen.size(), 1U) << c.why;
        EXPECT_EQ(lines_with("(WRN)  process_inotify_records: a broken inotify record at byte 16 of ").size(),
                  1U)
            << c.why;
        EXPECT_EQ(lines_with(": 1 inotify_event records processed").size(), 1U) << c.why;
    }
}

TEST_F(RqsRecords, a_full_buffer_is_walked_to_its_last_byte)
{
    std::string bytes;
    while (bytes.size() < 4096 - 16) {
        bytes += record(wd, IN_MODIFY);
    }
    bytes += record(wd, IN_ATTRIB);
    ASSERT_EQ(bytes.size(), 4096U);
    EXPECT_EQ(deliver(bytes), kStopped);
    EXPECT_EQ(seen.size(), 256U);
    EXPECT_EQ(seen.back(), RQS_ATTR);
}

TEST_F(RqsRecords, a_count_of_bytes_that_does_not_fit_is_a_failed_event)
{
    const struct {
        int waiting;
        const char* text;
    } cases[] = {{-5, "(avail=-5 bytes, max=4096)"}, {4097, "(avail=4097 bytes, max=4096)"}};

    for (const auto& c : cases) {
        g_faults.set_waiting = true;
        g_faults.waiting = c.waiting;
        EXPECT_EQ(wake(), 1);
        EXPECT_EQ(lines_with(std::string("incompatible buffer size ") + c.text).size(), 1U);
    }
    EXPECT_TRUE(seen.empty());
}

TEST_F(RqsRecords, a_read_event_with_nothing_waiting_is_a_failed_event)
{
    g_faults.set_waiting = true;
    g_faults.waiting = 0;
    EXPECT_EQ(wake(), 1);
    EXPECT_TRUE(seen.empty());
    EXPECT_TRUE(lines_with("(ERR)").empty()) << log.text();
}

TEST_F(RqsRecords, a_failed_ioctl_is_a_failed_event)
{
    g_faults.ioctl_error = ENOTTY;
    EXPECT_EQ(wake(), 1);
    EXPECT_EQ(
        lines_with("(ERR)  process_inotify_records: ioctl FIONREAD ERROR(25): Inappropriate ioctl").size(),
        1U);
}

TEST_F(RqsRecords, an_error_of_the_descriptor_ends_the_process)
{
    expect_abort("process_inotify_records: error condition on inotify fd=",
                 [this] { wake(EPOLLIN | EPOLLERR); });
    expect_abort("process_inotify_records: error condition on inotify fd=",
                 [this] { wake(EPOLLIN | EPOLLHUP); });
}

TEST_F(RqsRecords, a_watch_that_cannot_be_dropped_is_told)
{
    g_faults.inotify_rm_watch_error = EBADF;
    log.clear();
    EXPECT_EQ(rqs_add_file_watch(&mark, "/tmp"), -1);
    EXPECT_EQ(lines_with("(ERR)  wfd_map_add: key wfd=").size(), 1U);
    const auto lines = lines_with("(ERR)  rqs_add_file_watch: inotify_rm_watch(");
    ASSERT_EQ(lines.size(), 1U) << log.text();
    EXPECT_NE(lines[0].find(", " + std::to_string(wd) + ") ERROR(9): Bad file descriptor"),
              std::string::npos);
}

TEST_F(RqsRecords, removing_a_watch_that_the_table_does_not_know_is_told)
{
    ASSERT_EQ(rqs_rm_file_watch(wd), 0);
    {
        // No memory for the table, and the kernel's watch stays: it is in force without a key.
        const support::FailAllocation fail(1);
        g_faults.inotify_rm_watch_error = EBADF;
        EXPECT_EQ(rqs_add_file_watch(&mark, "/"), -1);
        g_faults.inotify_rm_watch_error = 0;
    }
    ASSERT_EQ(rqs_add_file_watch(&mark, "/tmp"), wd + 2);
    log.clear();
    EXPECT_EQ(rqs_rm_file_watch(wd + 1), -1);
    EXPECT_EQ(lines_with("(ERR)  wfd_map_rm: wfd=" + std::to_string(wd + 1) + " is not found.").size(), 1U);
    EXPECT_EQ(lines_with("(ERR)").size(), 1U) << log.text();
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U) << "the count went to 0 all the same";
}

TEST_F(RqsRecords, more_removals_than_adds_are_an_assertion)
{
    expect_abort([this] {
        // A second watch that fails and cannot be dropped again is the kernel's, and not counted.
        g_faults.inotify_rm_watch_error = EBADF;
        EXPECT_EQ(rqs_add_file_watch(&mark, "/"), -1);
        g_faults.inotify_rm_watch_error = 0;
        EXPECT_EQ(rqs_rm_file_watch(wd), 0);
        rqs_rm_file_watch(wd + 1);
    });
}

TEST(InotifyRecords, sizes_of_records_at_their_limits)
{
    alignas(inotify_event) char bytes[64] = {};
    const auto size = [&bytes](size_t total, uint32_t len) {
        inotify_event head = {};
        head.len = len;
        memcpy(bytes, &head, sizeof head);
        return mv::inotify_record_size({bytes, total});
    };
    EXPECT_EQ(size(0, 0), 0U);
    EXPECT_EQ(size(15, 0), 0U);
    EXPECT_EQ(size(16, 0), 16U);
    EXPECT_EQ(size(17, 0), 16U);
    EXPECT_EQ(size(31, 16), 0U);
    EXPECT_EQ(size(32, 16), 32U);
    EXPECT_EQ(size(64, 3), 0U);
    EXPECT_EQ(size(64, 4), 20U);
    EXPECT_EQ(size(64, UINT32_MAX), 0U);
    EXPECT_EQ(size(64, UINT32_MAX - 15), 0U);
}

} // namespace
