// Scripts for the event loop on a kernel of its own: what is registered stands in a table here, and the input
// says which events a wait brings. Each event must come to the one callback that is its, with its word and
// its errors, the counts must be those of the table, and the result that of the callback which ended the
// loop. Input: a byte for the callbacks that there are, then operations of a byte and an argument, first
// those before the loop, up to a zero byte, then those that each callback takes for itself.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <set>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "rqs.h"
#include "stream_input.h"
#include "util.h"
#include "wrap.h"

WRAPPED(int, epoll_ctl, (int loop, int operation, int fd, epoll_event* event));
WRAPPED(int, epoll_wait, (int loop, epoll_event* events, int room, int limit));
WRAPPED(int, inotify_init, (void));
WRAPPED(int, ioctl, (int fd, unsigned long request, int* avail));
WRAPPED(int, inotify_add_watch, (int fd, const char* path, uint32_t mask));
WRAPPED(int, inotify_rm_watch, (int fd, int wd));

namespace {

using fuzz::demand;

constexpr int kFirstFd = 1000; // none of the process
constexpr size_t kFds = 32;
constexpr size_t kNopolls = 24;
constexpr uint32_t kMasks[] = {EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP, EPOLLRDHUP, EPOLLPRI};

struct Record {
    n32_tag tag;
    int fd;
};

struct Nopoll {
    ssize_t index;
    bool there, queued, numbered, writes;
};

enum Kind { kRead, kWrite, kError };

struct Expected {
    Kind kind;
    uint64_t word;
    int fd_err;
};

// All that a run knows; the loop itself is one a process too.
struct Run {
    fuzz::Input input;
    bool in_loop = false;
    std::map<int, uint64_t> registered = {}; // descriptor to its word
    std::deque<Expected> expected = {};      // of the last wait
    std::set<int> watches = {};
    timespec limit = {-1, 0}; // what the loop keeps
    int pipe[2] = {-1, -1};
    int failed = 0; // events of the last wait
    int result = 0; // of the loop, if it ended now
};

Run* g_run;
Record g_records[kFds];
Nopoll g_nopolls[kNopolls];

size_t nopolls()
{
    size_t count = 0;
    for (Nopoll& one : g_nopolls) {
        if (one.there && one.queued && one.index == -1) {
            one.there = false; // purged since the last look
        }
        count += one.there ? 1 : 0;
    }
    return count;
}

void check_counts()
{
    demand(rqs_fd_count(GET_POLLFDS) == g_run->registered.size());
    const size_t count = nopolls();
    demand(rqs_fd_count(GET_NOPOLLFDS) == count);
    demand(rqs_fd_count(GET_TOTALFDS) == count + g_run->registered.size());
}

// ---- operations ---------------------------------------------------------------------------------

void change(uint8_t operation, uint8_t argument)
{
    Record& record = g_records[argument % kFds];
    void* udata = argument < 128 ? &record : nullptr;
    const bool known = g_run->registered.count(record.fd) != 0;
    int rc = 0;
    switch (operation) {
    case 0: rc = rqs_add_reader(record.fd, udata); break;
    case 1: rc = rqs_add_writer(record.fd, udata); break;
    case 2: rc = rqs_mod_reader(record.fd, udata); break;
    case 3: rc = rqs_mod(record.fd, udata, argument / 32); break;
    default: rc = rqs_rm_fd(record.fd, false, false); break;
    }
    demand(rc == (known == (operation > 1) ? 0 : -1));
}

void add_nopoll(uint8_t argument)
{
    Nopoll& one = g_nopolls[argument % kNopolls];
    nopolls();
    if (one.there) {
        return;
    }
    one = {-2, true, false, argument < 192, argument % 2 != 0};
    ssize_t* index = one.numbered ? &one.index : nullptr;
    const int fd = static_cast<int>(argument % kNopolls);
    demand((one.writes ? rqs_add_nopoll_writer(fd, index, &one) : rqs_add_nopoll_reader(fd, index, &one)) ==
           0);
    demand(one.numbered == (one.index >= 0));
}

// What is queued where no purge follows is lost: only the callbacks in front of one queue.
void remove_nopoll(uint8_t argument, bool purged_soon)
{
    Nopoll& one = g_nopolls[argument % kNopolls];
    nopolls();
    if (!one.there || one.queued || !one.numbered) {
        return;
    }
    if (purged_soon) {
        one.queued = true;
        rqs_pprm_nopoll(one.index);
    } else if (!g_run->in_loop) {
        one.there = false;
        rqs_rm_nopoll(one.index);
    }
}

void change_watch(bool add, uint8_t argument)
{
    if (add) {
        char path[] = "a"; // which is not there; of others the number that the kernel gives
        path[0] = static_cast<char>('a' + argument % 4);
        const int wd = rqs_add_file_watch(g_run, path);
        demand(wd == -1 || g_run->watches.count(wd) != 0);
        return;
    }
    const int wd = argument % 4;
    const bool known = g_run->watches.count(wd) != 0;
    demand(known || rqs_rm_file_watch(wd) == -1);
    demand(!known || rqs_rm_file_watch(wd) == 0);
}

// For the longest block more than one buffer of the loop holds.
void write_records(size_t count)
{
    const int times = count == 255 ? 17 : 1;
    const auto block = g_run->input.block(count);
    for (int i = 0; i < times && count > 0; ++i) {
        demand(write(g_run->pipe[1], block.get(), count) == static_cast<ssize_t>(count));
    }
}

void act(uint8_t operation, bool purged_soon)
{
    const auto argument = g_run->input.take<uint8_t>();
    switch (operation % 16) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4: change(operation % 16, argument); break;
    case 5:
    case 6: add_nopoll(argument); break;
    case 7:
    case 8: remove_nopoll(argument, purged_soon); break;
    case 9:
    case 10: change_watch(operation % 2 != 0, argument); break;
    case 11: g_quit = argument == 1 ? 1 : 0; break;
    case 12: write_records(argument); break;
    default: demand((rqs_ctx(argument, nullptr) == nullptr) || argument == GET_LOOP_STAGE); break;
    }
    check_counts();
}

// The loop ends with the result of a callback if it is not 0, else with the failed events, if any.
int end_with(int rc)
{
    g_run->result = rc != 0 ? rc : g_run->failed;
    return rc;
}

// What a callback does: operations, and its result. Without input the loop ends.
int take_turn(bool purged_soon)
{
    check_counts();
    demand(rqs_now_ref()->tv_nsec == rqs_now().tv_nsec);
    for (uint8_t operation = g_run->input.take<uint8_t>(); operation != 0;) {
        if (operation >= 240) {
            return operation - 239;
        }
        act(operation - 1, purged_soon);
        operation = g_run->input.take<uint8_t>();
    }
    g_quit = g_run->input.left() == 0 ? 1 : g_quit;
    return 0;
}

// ---- callbacks ----------------------------------------------------------------------------------

bool is_nopoll(const void* udata)
{
    return udata >= g_nopolls && udata < g_nopolls + kNopolls;
}

int on_nopoll(Kind kind, int fd, int fd_err, const void* udata)
{
    const auto* one = static_cast<const Nopoll*>(udata);
    demand(one->there && one->writes == (kind == kWrite) && fd_err == 0 && fd == one - g_nopolls);
    return end_with(take_turn(true));
}

int on_fd(Kind kind, int fd, int fd_err, void* udata)
{
    if (is_nopoll(udata)) {
        return on_nopoll(kind, fd, fd_err, udata);
    }
    demand(!g_run->expected.empty());
    const Expected next = g_run->expected.front();
    g_run->expected.pop_front();
    const auto word = reinterpret_cast<uint64_t>(udata);
    demand(next.kind == kind && next.word == word && next.fd_err == fd_err && fd == static_cast<int>(word));
    const int rc = take_turn(true);
    g_run->failed += rc != 0 ? 1 : 0;
    end_with(0);
    return rc;
}

int on_read(int fd, int fd_err, void* udata, void*)
{
    return on_fd(kRead, fd, fd_err, udata);
}

int on_write(int fd, int fd_err, void* udata, void*)
{
    return on_fd(kWrite, fd, fd_err, udata);
}

int on_error(int fd, int fd_err, void* udata, void*)
{
    return on_fd(kError, fd, fd_err, udata);
}

int on_post_process()
{
    const bool first = rqs_ctx(GET_LOOP_STAGE, nullptr) == reinterpret_cast<void*>(ELOOP_POSTEV);
    return end_with(take_turn(first));
}

int on_idle()
{
    demand(g_run->failed == 0);
    return end_with(take_turn(false));
}

void update_limit(timespec* limit)
{
    demand(limit->tv_sec == g_run->limit.tv_sec && limit->tv_nsec == g_run->limit.tv_nsec);
    limit->tv_sec = (g_run->input.take<uint8_t>() ^ 0x80) - 0x80; // a signed byte
    limit->tv_nsec = g_run->input.take<int32_t>() % 1'000'000'000;
    g_run->limit = *limit;
}

int after_wait()
{
    return take_turn(false); // which is ignored
}

bool is_dormant()
{
    demand(g_run->registered.empty() && nopolls() == 0);
    return g_run->input.take<uint8_t>() % 2 != 0;
}

int on_changed(int wd, int, void* udata, void*)
{
    demand(wd > 0 && wd < 4 && udata == g_run);
    return -1; // which is ignored
}

rqs_config config_of(uint8_t choice)
{
    rqs_config config = {};
    config.cb.read = on_read;
    config.cb.write = on_write;
    config.cb.error = on_error;
    config.cb.update_tmout = (choice & 1) != 0 ? update_limit : nullptr;
    config.cb.on_idle = (choice & 2) != 0 ? on_idle : nullptr;
    config.cb.post_process = (choice & 4) != 0 ? on_post_process : nullptr;
    config.cb.on_file_modified = (choice & 8) != 0 ? on_changed : nullptr;
    config.cb.time_out = (choice & 16) != 0 ? after_wait : nullptr;
    config.cb.is_dormant = (choice & 32) != 0 ? is_dormant : nullptr;
    config.quit_on_zero_fds = (choice & 64) != 0 ? 1 : 0;
    return config;
}

// ---- the kernel ---------------------------------------------------------------------------------

int refuse(int err)
{
    errno = err;
    return -1;
}

// What an event must lead to; a failed one where it leads nowhere.
void expect(uint32_t mask, uint64_t word)
{
    const int fd_err = ((mask & EPOLLERR) != 0 ? RQS_SOCKERR : 0) |
                       ((mask & (EPOLLHUP | EPOLLRDHUP)) != 0 ? RQS_SOCKHUP : 0);
    if ((mask & (EPOLLIN | EPOLLOUT)) == 0 && fd_err == 0) {
        ++g_run->failed;
        end_with(0);
        return;
    }
    const Kind kind = (mask & EPOLLIN) != 0 ? kRead : (mask & EPOLLOUT) != 0 ? kWrite : kError;
    g_run->expected.push_back({kind, word, fd_err});
}

uint32_t take_mask()
{
    const auto bits = g_run->input.take<uint8_t>();
    uint32_t mask = 0;
    for (size_t i = 0; i < std::size(kMasks); ++i) {
        mask |= (bits >> i & 1) != 0 ? kMasks[i] : 0;
    }
    return mask;
}

int expected_limit()
{
    if (nopolls() > 0) {
        return 0;
    }
    const timespec& limit = g_run->limit;
    return limit.tv_sec < 0 || limit.tv_nsec < 0
               ? -1
               : static_cast<int>(limit.tv_sec * 1000 + limit.tv_nsec / 1'000'000);
}

// The first so many of the table, each with a mask of the input; of the file watches only that there is
// something to read.
int bring_events(epoll_event* events, size_t count)
{
    size_t n = 0;
    for (const auto& [fd, word] : g_run->registered) {
        if (n == count) {
            break;
        }
        events[n].data.u64 = word;
        if (fd < kFirstFd) {
            events[n++].events = EPOLLIN;
            continue;
        }
        events[n].events = take_mask();
        expect(events[n++].events, word);
    }
    return static_cast<int>(n);
}

} // namespace

extern "C" {
int __wrap_epoll_ctl(int, int operation, int fd, epoll_event* event)
{
    const bool known = g_run->registered.count(fd) != 0;
    if (known == (operation == EPOLL_CTL_ADD)) {
        return refuse(known ? EEXIST : ENOENT);
    }
    if (operation == EPOLL_CTL_DEL) {
        g_run->registered.erase(fd);
    } else {
        g_run->registered[fd] = event->data.u64;
    }
    return 0;
}

int __wrap_epoll_wait(int, epoll_event* events, int room, int limit)
{
    demand(limit == expected_limit());
    demand(g_run->expected.empty());
    g_run->failed = g_run->result = 0;
    if (room <= 0) {
        g_run->result = EINVAL;
        return refuse(EINVAL);
    }
    demand(static_cast<size_t>(room) >= g_run->registered.size());
    const auto count = g_run->input.take<uint8_t>();
    if (g_run->input.left() == 0) {
        g_quit = 1;
        return refuse(EINTR);
    }
    if (count == 255) {
        return refuse(EINTR);
    }
    if (count == 254) {
        g_run->result = EBADF;
        return refuse(EBADF);
    }
    return bring_events(events, count);
}

int __wrap_inotify_init(void)
{
    demand(pipe2(g_run->pipe, O_CLOEXEC | O_NONBLOCK) == 0);
    return g_run->pipe[0];
}

// Asked before the records of file watches are read: of none, and of more than one buffer, the event fails.
int __wrap_ioctl(int fd, unsigned long request, int* avail)
{
    demand(request == FIONREAD && __real_ioctl(fd, request, avail) == 0);
    if (*avail == 0 || *avail > 4096) {
        ++g_run->failed;
        end_with(0);
    }
    return 0;
}

int __wrap_inotify_add_watch(int, const char* path, uint32_t)
{
    const int wd = path[0] - 'a';
    if (wd == 0) {
        return refuse(ENOENT);
    }
    g_run->watches.insert(wd);
    return wd;
}

int __wrap_inotify_rm_watch(int, int wd)
{
    return g_run->watches.erase(wd) != 0 ? 0 : refuse(EINVAL);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 2000) {
        return 0;
    }
    Run run = {fuzz::Input(data, size)};
    g_run = &run;
    g_quit = 0;
    memset(g_nopolls, 0, sizeof g_nopolls);
    for (size_t i = 0; i < kFds; ++i) {
        g_records[i] = {{"fz"}, kFirstFd + static_cast<int>(i)};
    }
    const rqs_config config = config_of(run.input.take<uint8_t>());
    fuzz::hide_log(true);
    demand(rqs_init(&config) == 0);
    take_turn(false);
    g_quit = 0;
    run.in_loop = true;
    const int rc = rqs_event_loop();
    run.in_loop = false;
    const bool looks_like_a_wait = run.result == EINTR && g_quit != 0; // kept: its result is dropped
    demand(rc == (looks_like_a_wait ? run.failed : run.result));
    demand(rqs_purge_nopoll_rm() == 0);
    check_counts();
    rqs_destroy();
    rqs_destroy(); // nothing is left to end
    demand(rqs_rm_fd(kFirstFd, true, true) == 0);
    close(run.pipe[1]);
    return 0;
}
}
