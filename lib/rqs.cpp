// The event loop of one thread: descriptors, no-poll events, file watches, and the time that all of them
// share.
#include "rqs.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>

#include "clk.h"
#include "detail/app_flags.h"
#include "detail/inotify_records.h"
#include "detail/kept_errno.h"
#include "detail/loop_clock.h"
#include "detail/owned.h"
#include "fdio.h"
#include "gkh.h"
#include "log.h"
#include "psensor.h"
#include "syswrap.h"
#include "timeop.h"
#include "xvdat.h"

DECLARE_MLL(MLL_COMMON);

MV_APP_FLAG(g_quit);

static_assert(uint32_t{RQS_EVENT_READ} == EPOLLIN && uint32_t{RQS_EVENT_WRITE} == EPOLLOUT);
static_assert(sizeof(void*) == sizeof(((epoll_event*)nullptr)->data));
static_assert(std::endian::native == std::endian::little, "a descriptor is the low half of its data word");

namespace {

using mv::KeptErrno;

#define INO_STR "ino"

enum { INOTIFY_BUFLEN = 4096, INO_WFD_CAP = 1024 };

constexpr int32_t INO_TAG = std::bit_cast<int32_t>(std::to_array(INO_STR));
// What on_file_modified is told of. IN_IGNORED comes without being asked for, when a watch ends.
constexpr uint32_t kWatchMask = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
static_assert(kWatchMask == 0xc0e);

constexpr size_t kNopollFirst = 20;      // slots reserved at the start
constexpr size_t kNopollBlock = 10;      // and their growth block
constexpr size_t kEventBlock = 10;       // growth block of the kernel's result array
constexpr size_t kManyEvents = 15;       // up to here a full result array is nothing to speak of
constexpr uintptr_t kFdWords = 1U << 20; // a word below is a descriptor: no program has a record so low

// Lines of the loop name the loop, whichever of its stages writes them.
constexpr const char* kLoopName = "rqs_event_loop";

struct rqs_context {
    int loopfd;            // epoll's
    struct xvec events;    // of epoll_event: the kernel's result array; len is the count of the last wait
    struct xvec changes;   // Kept: unused, and reset with the others
    size_t poll_fds;       // descriptors registered with epoll
    struct xvlst nopoll;   // of nopoll_ref; a slot is an event's number
    struct xvec nopoll_rm; // of ssize_t: slots that go at the next purge
    struct timespec tmout; // limit of the wait, none if a field is negative
    int loop_stage;
};

struct nopoll_ref {
    uint32_t events; // RQS_EVENT_READ or RQS_EVENT_WRITE
    int fd;
    void* udata;
    ssize_t* index; // the owner's variable for the slot number
};

// The record of the inotify descriptor, recognised in the read path by its tag.
struct inotify_ctx {
    union n32_tag tag;
    int fd;
    unsigned int in_epoll : 1; // Kept: never set, see watch_inotify_fd
    alignas(struct inotify_event) char buf[INOTIFY_BUFLEN];
    nkht_t wfd_ht; // watch to udata
    ssize_t wfd_count;
};

// Zeros: a loopfd of 0 is a loop that was not set up.
struct rqs_context g_rqs;
struct rqs_config g_config;
struct inotify_ctx g_ino = {{INO_STR}, -1, 0, {0}, 0, 0};

// ---- registration -----------------------------------------------------------------------------

const char* operation_name(int operation)
{
    switch (operation) {
    case EPOLL_CTL_ADD: return "EPOLL_CTL_ADD";
    case EPOLL_CTL_MOD: return "EPOLL_CTL_MOD";
    default: return "EPOLL_CTL_DEL";
    }
}

int change_fd(int operation, int fd, uint32_t mask, void* udata)
{
    ASSERT(g_rqs.loopfd >= 0);
    struct epoll_event ev = {};
    ev.events = mask;
    if (udata != nullptr) {
        ev.data.ptr = udata;
    } else {
        ev.data.fd = fd;
    }
    // The kernel keeps the word and nothing else: what it points to must live as long as the registration.
    if (epoll_ctl(g_rqs.loopfd, operation, fd, &ev) != 0) {
        const KeptErrno e;
        log_err("%s: epoll_ctl(%d, %s, %d, {0x%lx, %p}) ERROR(%d): %s\n", __func__, g_rqs.loopfd,
                operation_name(operation), fd, static_cast<unsigned long>(mask), udata, e.number(), e.text());
        return -1;
    }
    if (operation == EPOLL_CTL_ADD) {
        ++g_rqs.poll_fds;
    }
    return 0;
}

// ---- file watches -----------------------------------------------------------------------------

bool is_inotify_rec(const void* record)
{
    // A reader that was added without a record of its own has its descriptor for a word: nothing to read
    // there.
    if (reinterpret_cast<uintptr_t>(record) < kFdWords) {
        return false;
    }
    int32_t tag = 0;
    memcpy(&tag, record, sizeof tag);
    return tag == INO_TAG;
}

int wfd_map_add(int wfd, void* udata)
{
    void* value = udata;
    const int rc = g_ino.wfd_ht != 0 ? nkht_add(g_ino.wfd_ht, wfd, &value) : EINVAL;
    if (rc == 0) {
        return 0;
    }
    if (rc == EBUSY) {
        log_err("%s: key wfd=%d is already taken [%p]\n", __func__, wfd, value);
    } else {
        log_err("%s: ERROR(%d) adding wfd=%d, udata=%p: %s\n", __func__, rc, wfd, udata, strerror(rc));
    }
    return -1;
}

// What the table answered, with a line unless it found the key.
int report_lookup(const char* caller, int rc, int wfd)
{
    if (rc == 0) {
        return 0;
    }
    if (rc == ESRCH) {
        log_err("%s: wfd=%d is not found.\n", caller, wfd);
    } else {
        log_err("%s: ERROR(%d): %s\n", caller, rc, strerror(rc));
    }
    return -1;
}

// False, with a line, if the watch is not there: a udata may well be NULL.
bool wfd_map_get(int wfd, void** udata)
{
    const int rc = g_ino.wfd_ht != 0 ? nkht_get(g_ino.wfd_ht, wfd, udata) : EINVAL;
    return report_lookup(__func__, rc, wfd) == 0;
}

int wfd_map_rm(int wfd)
{
    return report_lookup(__func__, g_ino.wfd_ht != 0 ? nkht_rm(g_ino.wfd_ht, wfd, nullptr) : EINVAL, wfd);
}

// A letter an event, in the order of the table: two runs can be compared by a look at their lines.
void dump_inotify_event(const struct inotify_event* e)
{
    if (!loglevel_is(DEBUG_level)) {
        return;
    }

    struct Letter {
        uint32_t bit;
        char letter;
    };

    constexpr Letter letters[] = {{IN_ACCESS, 'A'},    {IN_ATTRIB, 'T'},      {IN_CREATE, 'c'},
                                  {IN_DELETE, 'd'},    {IN_DELETE_SELF, 'D'}, {IN_MODIFY, 'y'},
                                  {IN_MOVE_SELF, 'M'}, {IN_MOVED_FROM, 'f'},  {IN_MOVED_TO, 't'},
                                  {IN_OPEN, 'O'},      {IN_CLOSE_WRITE, 'W'}, {IN_CLOSE_NOWRITE, 'w'}};
    char text[std::size(letters) + 1] = "";
    size_t n = 0;
    for (const Letter& l : letters) {
        if ((e->mask & l.bit) != 0) {
            text[n++] = l.letter;
        }
    }
    // By its bounds: what stands in a record is not trusted to have an end.
    char name[NAME_MAX + 1];
    const size_t length = std::min(mv::inotify_name_length(e), size_t{NAME_MAX});
    memcpy(name, e->name, length);
    name[length] = 0;
    log_dbg("INOTIFY (ev=%p): wd%d, mask=0x%04x [%s] cookie=%u [%s]\n", static_cast<const void*>(e), e->wd,
            e->mask, text, e->cookie, name);
}

int modification_flags(uint32_t mask)
{
    int flags = 0;
    flags |= (mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0 ? RQS_RMV : 0;
    flags |= (mask & IN_MOVE_SELF) != 0 ? RQS_FMOVED : 0;
    flags |= (mask & IN_DELETE_SELF) != 0 ? RQS_FDELETED : 0;
    flags |= (mask & IN_ATTRIB) != 0 ? RQS_ATTR : 0;
    return flags;
}

// A watch that is not in the table was removed while its last events were on the way; the look-up has told
// it.
void process_inmodify(const struct inotify_event* iev)
{
    void* udata = nullptr;
    if (!wfd_map_get(iev->wd, &udata) || g_config.cb.on_file_modified == nullptr) {
        return;
    }
    g_config.cb.on_file_modified(iev->wd, modification_flags(iev->mask), udata, nullptr);
}

void process_record(const char* caller, const struct inotify_event* iev)
{
    dump_inotify_event(iev);
    if ((iev->mask & kWatchMask) != 0) {
        process_inmodify(iev);
    } else if ((iev->mask & IN_IGNORED) != 0) {
        log_dbg("%s: IN_IGNORED (0x%lx)\n", caller, static_cast<unsigned long>(iev->mask));
    } else {
        log_warn("%s: unhandled inotify mask: 0x%lx\n", caller, static_cast<unsigned long>(iev->mask));
    }
}

// Not inlined: the events of descriptors come far more often, and the walk over records would crowd their
// path. The read does not wait: it asks for no more than is there.
[[gnu::noinline]] int process_inotify_records(int fd_err, void* udata)
{
    ASSERT(udata == &g_ino);
    if (fd_err != 0) {
        log_panic("%s: error condition on inotify fd=%d\n", __func__, g_ino.fd);
    }
    // Asked first, for a read of just that much: what comes meanwhile makes the next event.
    int avail = 0;
    const int rc = ioctl(g_ino.fd, FIONREAD, &avail);
    if (rc != 0) {
        const KeptErrno e;
        log_err("%s: ioctl FIONREAD ERROR(%d): %s\n", __func__, e.number(), e.text());
        return rc;
    }
    // Kept: a backlog of more than one buffer is not read in parts: it is a failed event.
    if (avail < 0 || avail > INOTIFY_BUFLEN) {
        log_err("%s: incompatible buffer size (avail=%ld bytes, max=%ld)\n", __func__,
                static_cast<long>(avail), static_cast<long>(INOTIFY_BUFLEN));
        return -1;
    }
    ASSERT(g_ino.fd >= 0);
    const ssize_t got = nread(g_ino.fd, g_ino.buf, static_cast<size_t>(avail), FDIO_VERBOSE);
    if (got <= 0) {
        return -1;
    }
    const auto bytes = static_cast<size_t>(got);
    const char* caller = __func__;
    const mv::InotifyWalk walk = mv::each_inotify_record(
        {g_ino.buf, bytes}, [caller](const struct inotify_event* iev) { process_record(caller, iev); });
    if (walk.bytes != bytes) {
        log_warn("%s: a broken inotify record at byte %ld of %ld\n", __func__, static_cast<long>(walk.bytes),
                 static_cast<long>(bytes));
    }
    log_dbg("%s: %ld inotify_event records processed\n", __func__, static_cast<long>(walk.records));
    return 0;
}

// Table and descriptor: 0, the table's code, or -1 without a descriptor. The two are closed together: by
// close_watches(), also after a failure here.
int open_watches(const char* caller)
{
    g_ino.wfd_count = 0;
    mv::OwnedFd fd(inotify_init());
    if (!fd) {
        const KeptErrno e;
        log_err("%s: inotify_init1 ERROR(%d): %s\n", caller, e.number(), e.text());
        return -1;
    }
    g_ino.fd = fd.release(); // without a table too: close_watches has it
    const int rc = nkht_create(&g_ino.wfd_ht, INO_WFD_CAP, tw_shift);
    if (rc != 0) {
        log_err("%s: failed to create wfd/inotify lookup\n", caller);
    }
    return rc;
}

// The close takes the descriptor out of epoll as well; rqs_destroy() clears the count that it stood in.
void close_watches()
{
    if (g_ino.fd >= 0) {
        Close(g_ino.fd);
        g_ino.fd = -1;
    }
    if (g_ino.wfd_ht != 0) {
        nkht_destroy(g_ino.wfd_ht, nullptr);
        g_ino.wfd_ht = 0;
    }
}

bool drop_watch(const char* caller, int wd)
{
    if (inotify_rm_watch(g_ino.fd, wd) == 0) {
        return true;
    }
    const KeptErrno e;
    log_err("%s: inotify_rm_watch(%d, %d) ERROR(%d): %s\n", caller, g_ino.fd, wd, e.number(), e.text());
    return false;
}

// Kept: in_epoll is never set, so a second watch finds the descriptor registered and fails: one watch at a
// time.
int watch_inotify_fd()
{
    if (g_ino.in_epoll != 0) {
        return 0;
    }
    const int rc = rqs_add_reader(g_ino.fd, &g_ino);
    if (rc == 0) {
        log_dbg("inotify fd%d will be watched.\n", g_ino.fd);
    }
    return rc;
}

// ---- no-poll events ---------------------------------------------------------------------------

int add_nopoll(uint32_t events, int fd, ssize_t* pindex, void* udata)
{
    const ssize_t slot = xvlst_add(&g_rqs.nopoll, sizeof(struct nopoll_ref), 1);
    if (slot < 0) {
        log_err("%s: cannot add a no-poll event for fd%d: %s\n", __func__, fd, strerror(ENOMEM));
        return -1;
    }
    if (pindex != nullptr) {
        *pindex = slot;
    }
    static_cast<struct nopoll_ref*>(g_rqs.nopoll.data)[slot] = {events, fd, udata, pindex};
    return 0;
}

int on_nopoll(void* data, size_t index)
{
    // A copy: the callback may add events, and the list then moves.
    const struct nopoll_ref ref = static_cast<const struct nopoll_ref*>(data)[index];
    if ((ref.events & RQS_EVENT_READ) != 0) {
        return g_config.cb.read(ref.fd, 0, ref.udata, nullptr);
    }
    if ((ref.events & RQS_EVENT_WRITE) != 0) {
        return g_config.cb.write(ref.fd, 0, ref.udata, nullptr);
    }
    log_err("%s: unrecognized event mask: 0x%lx\n", __func__, static_cast<unsigned long>(ref.events));
    return -1;
}

bool is_nopoll_slot(ssize_t j)
{
    return static_cast<size_t>(j) < g_rqs.nopoll.max_len && g_rqs.nopoll.taken != nullptr &&
           g_rqs.nopoll.taken[j] != 0;
}

void make_nopoll_lists(const char* caller)
{
    xvlst_reset(&g_rqs.nopoll);
    xvec_reset(&g_rqs.nopoll_rm);
    if (xvlst_reserve(&g_rqs.nopoll, kNopollFirst, sizeof(struct nopoll_ref), kNopollBlock) != 0 ||
        xvec_reserve(&g_rqs.nopoll_rm, kNopollFirst, sizeof(ssize_t), kNopollBlock) != 0) {
        log_panic("%s: cannot reserve memory for g_rqs.nopoll/rm\n", caller);
    }
}

// ---- the wait -----------------------------------------------------------------------------------

void refresh_tmout()
{
    if (g_config.cb.update_tmout != nullptr) {
        g_config.cb.update_tmout(&g_rqs.tmout);
    }
}

// The limit in milliseconds, counted in 64 bits.
int wait_limit(const char* caller)
{
    if (g_rqs.nopoll.len > 0) {
        log_dbg("%s: no-poll events present: changing to 0 timeout\n", caller);
        return 0;
    }
    if (g_rqs.tmout.tv_sec < 0 || g_rqs.tmout.tv_nsec < 0) {
        return -1;
    }
    const uint64_t ms = static_cast<uint64_t>(g_rqs.tmout.tv_sec) * 1000 +
                        static_cast<uint64_t>(g_rqs.tmout.tv_nsec) / 1000000;
    return static_cast<int>(ms); // Kept: a limit of more than 24 days keeps its low 32 bits
}

void report_failed_wait(const char* caller, const KeptErrno& e)
{
    if (e.number() == EINTR) {
        log_info("%s interrupted, quit=%d\n", caller, static_cast<int>(g_quit));
    } else {
        log_err("%s: epoll_wait(%d...) ERROR(%d): %s\n", caller, g_rqs.loopfd, e.number(), e.text());
    }
}

// The count of events, or the negative result of a wait that failed, with errno. There is room for every
// registered descriptor, so that one wait tells of all that are ready and none waits for the next turn.
int wait4events()
{
    if (g_rqs.poll_fds > g_rqs.events.max_len &&
        xvec_reserve(&g_rqs.events, g_rqs.poll_fds, sizeof(struct epoll_event), kEventBlock) != 0) {
        log_err("%s: xvec_reserve failed\n", __func__);
        abort();
    }
    const int limit = wait_limit(__func__);
    // Kept: without any descriptor so far there is no room, and the call refuses with EINVAL.
    psensor_start(PRF_EVIDLE); // idle is what the sensors call the time that the loop waits
    const int count = epoll_wait(g_rqs.loopfd, static_cast<struct epoll_event*>(g_rqs.events.data),
                                 static_cast<int>(g_rqs.events.max_len), limit);
    const KeptErrno e;
    psensor_stop(PRF_EVIDLE);
    if (count < 0) {
        report_failed_wait(__func__, e);
    } else {
        g_rqs.events.len = static_cast<size_t>(count);
        if (g_rqs.events.len > kManyEvents && g_rqs.events.len == g_rqs.events.max_len) {
            log_warn("%s: all event slots populated, might need more\n", __func__);
        }
    }
    set_clk_now(&mv::g_loop_now, FAST_MONOTONIC_CLOCK); // once a cycle: all that follows shares this time
    return count;
}

// ---- dispatch -----------------------------------------------------------------------------------

// Apart and cold, as the next one: an ASSERT lays 512 bytes on the stack of whatever function it stands in,
// and on_event runs for each event.
[[gnu::noinline, gnu::cold]] void assert_event_space()
{
    ASSERT(g_rqs.events.max_len != 0);
}

[[gnu::noinline, gnu::cold]] int report_mask(const char* caller, uint32_t mask)
{
    log_err("%s: unsupported event mask: 0x%lx\n", caller, static_cast<unsigned long>(mask));
    return -1;
}

// Kept: the low half of the data word, which is the descriptor only where no udata was given.
int as_fd(const void* word)
{
    return static_cast<int>(reinterpret_cast<uintptr_t>(word));
}

int call_error(void* word, int fd_err)
{
    psensor_start(PRF_EVERR);
    const int rc = g_config.cb.error(as_fd(word), fd_err, word, nullptr);
    psensor_stop(PRF_EVERR);
    return rc;
}

int call_read(void* word, int fd_err)
{
    psensor_start(PRF_EVREAD);
    const int rc = is_inotify_rec(word) ? process_inotify_records(fd_err, word)
                                        : g_config.cb.read(as_fd(word), fd_err, word, nullptr);
    psensor_stop(PRF_EVREAD);
    return rc;
}

int call_write(void* word, int fd_err)
{
    psensor_start(PRF_EVWRITE);
    const int rc = g_config.cb.write(as_fd(word), fd_err, word, nullptr);
    psensor_stop(PRF_EVWRITE);
    return rc;
}

int on_event(const struct epoll_event* ev)
{
    if (g_rqs.events.max_len == 0) {
        assert_event_space();
    }
    // By value: a callback may end the loop's life, and the array's.
    const uint32_t mask = ev->events;
    void* word = ev->data.ptr;
    const int fd_err = ((mask & EPOLLERR) != 0 ? RQS_SOCKERR : 0) |
                       ((mask & (EPOLLHUP | EPOLLRDHUP)) != 0 ? RQS_SOCKHUP : 0);
    if ((mask & EPOLLIN) != 0) {
        return call_read(word, fd_err); // of both directions the read goes first; the write comes again
    }
    if ((mask & EPOLLOUT) != 0) {
        return call_write(word, fd_err);
    }
    return fd_err != 0 ? call_error(word, fd_err) : report_mask(__func__, mask);
}

// ---- the cycle ----------------------------------------------------------------------------------

// What a run of the loop ends with: a result, or a count of failed events.
struct Run {
    int rc = 0;
    int nfailed = 0;
};

// The stages answer whether the cycle goes on; where not, the loop is left.

bool is_awake()
{
    g_rqs.loop_stage = ELOOP_START;
    bool dormant = g_rqs.poll_fds == 0 && g_rqs.nopoll.len == 0;
    if (dormant && g_config.cb.is_dormant != nullptr) {
        dormant = g_config.cb.is_dormant();
    }
    if (dormant && g_config.quit_on_zero_fds != 0) {
        log_crit("%s: no fd's, no activity, quitting now.\n", kLoopName);
        return false;
    }
    return true;
}

bool wait_stage(Run& run)
{
    // A stale count would dispatch the events of the last wait again.
    g_rqs.events.len = 0;
    if (g_rqs.poll_fds == 0 && g_rqs.nopoll.len > 0) {
        return true;
    }
    refresh_tmout();
    if (wait4events() < 0) {
        // An EINTR that does not end the loop stays in rc until this cycle's purge puts its result there.
        run.rc = errno;
        if (run.rc != EINTR || g_quit != 0) {
            return false;
        }
    }
    if (g_config.cb.time_out != nullptr) {
        g_config.cb.time_out();
    }
    return true;
}

bool purge_stage(Run& run)
{
    run.rc = rqs_purge_nopoll_rm();
    return run.rc == 0;
}

// Kept: the queue is emptied, so what was queued outside the stages that purge is lost. Room is
// reserved only where the events have outgrown it: a cycle allocates nothing otherwise.
void prepare_removals()
{
    if (g_rqs.nopoll.len > g_rqs.nopoll_rm.max_len &&
        xvec_reserve(&g_rqs.nopoll_rm, g_rqs.nopoll.len, sizeof(ssize_t), 1) != 0) {
        log_panic("Failed to reserve %ld elements for nopoll_rm container.\n",
                  static_cast<long>(g_rqs.nopoll.len));
    }
    g_rqs.nopoll_rm.len = 0;
}

bool nopoll_stage(Run& run)
{
    if (g_rqs.nopoll.len == 0) {
        return true;
    }
    // Kept: all are called, and only the result of the last one counts.
    run.rc = xvlst_each(&g_rqs.nopoll, on_nopoll, nullptr);
    if (run.rc != 0) {
        log_err("%s: FAILED(%d)\n", kLoopName, run.rc);
        return false;
    }
    return true;
}

void event_stage(Run& run)
{
    g_rqs.loop_stage = ELOOP_EV;
    run.nfailed = 0;
    // Kept: events of a descriptor that an earlier callback of the batch removed are dispatched too.
    for (size_t i = 0; i < g_rqs.events.len; ++i) {
        run.nfailed += on_event(static_cast<const struct epoll_event*>(g_rqs.events.data) + i) != 0 ? 1 : 0;
    }
}

bool post_process(Run& run, int stage)
{
    g_rqs.loop_stage = stage;
    if (g_config.cb.post_process != nullptr) {
        psensor_start(PRF_EVPP);
        run.rc = g_config.cb.post_process();
        psensor_stop(PRF_EVPP);
    }
    return run.rc == 0;
}

bool idle_stage(Run& run)
{
    // Kept: one failed event ends the loop, and its cycle has no idle stage.
    if (run.nfailed > 0) {
        log_dbg("%s: failed %ld events\n", kLoopName, static_cast<long>(run.nfailed));
        return false;
    }
    if (g_config.cb.on_idle != nullptr) {
        run.rc = g_config.cb.on_idle();
    }
    return run.rc == 0;
}

bool run_cycle(Run& run)
{
    if (!is_awake() || !wait_stage(run)) {
        return false;
    }
    psensor_start(PRF_EVLOOP);
    prepare_removals();
    if (!nopoll_stage(run) || !purge_stage(run)) {
        return false;
    }
    event_stage(run);
    const bool whole = post_process(run, ELOOP_POSTEV) && purge_stage(run) && idle_stage(run) &&
                       post_process(run, ELOOP_ENDPP);
    psensor_stop(PRF_EVLOOP);
    return whole;
}

} // namespace

int rqs_init(const struct rqs_config* cfg)
{
    ASSERT(cfg != nullptr);
    g_config = *cfg; // a copy: the caller's may go
    g_rqs = {};
    mv::g_loop_now = {};
    // The number says nothing to the kernel, but must be above 0 (epoll_create(2)).
    g_rqs.loopfd = epoll_create(128);
    if (g_rqs.loopfd < 0) {
        const KeptErrno e;
        log_err("%s: epoll_create1() ERROR(%d): %s\n", __func__, e.number(), e.text());
        return -1;
    }
    make_nopoll_lists(__func__);
    // No limit, until update_tmout sets one.
    g_rqs.tmout.tv_sec = -1;
    const int rc = open_watches(__func__);
    if (rc < 0) {
        return -1; // the epoll descriptor stays open: rqs_destroy has it
    }
    set_clk_now(&mv::g_loop_now, FAST_MONOTONIC_CLOCK);
    return rc;
}

int rqs_event_loop(void)
{
    ASSERT(g_rqs.loopfd != 0); // Kept: 0 is "not set up", though epoll may give it
    refresh_tmout();
    log_info("Entering event loop\n");
    Run run;
    while (run.rc == 0 && g_quit == 0 && run_cycle(run)) {
    }
    psensor_stop(PRF_EVLOOP); // a cycle that was left in the middle has not done it
    // A wait that g_quit has ended is the end that was asked for.
    if (run.rc == EINTR && g_quit != 0) {
        run.rc = 0;
    }
    log_info("Exiting event loop, %d failed, rc=%d, quit=%d\n", run.nfailed, run.rc,
             static_cast<int>(g_quit));
    return run.rc != 0 ? run.rc : run.nfailed;
}

void rqs_destroy(void)
{
    close_watches();
    if (g_rqs.loopfd > 0) {
        Close(g_rqs.loopfd);
        g_rqs.loopfd = -1;
        g_rqs.poll_fds = 0;
    }
    xvlst_reset(&g_rqs.nopoll);
    xvec_reset(&g_rqs.nopoll_rm);
    xvec_reset(&g_rqs.events);
    xvec_reset(&g_rqs.changes);
}

int rqs_add_reader(int fd, void* udata)
{
    return change_fd(EPOLL_CTL_ADD, fd, EPOLLIN, udata);
}

int rqs_add_writer(int fd, void* udata)
{
    return change_fd(EPOLL_CTL_ADD, fd, EPOLLOUT, udata);
}

int rqs_mod_reader(int fd, void* udata)
{
    return change_fd(EPOLL_CTL_MOD, fd, EPOLLIN, udata);
}

int rqs_mod(int fd, void* udata, int read_write)
{
    uint32_t mask = (read_write & RQS_READ) != 0 ? EPOLLIN : 0U;
    mask |= (read_write & RQS_WRITE) != 0 ? EPOLLOUT : 0U;
    // EPOLLHUP and EPOLLERR come whether asked for or not: the mask for neither direction adds nothing.
    return change_fd(EPOLL_CTL_MOD, fd, mask != 0 ? mask : EPOLLHUP, udata);
}

int rqs_rm_fd(int fd, bool is_reader, bool is_writer)
{
    (void)is_reader;
    (void)is_writer;
    if (g_rqs.loopfd < 0) {
        return 0;
    }
    struct epoll_event ev = {};
    // ev says nothing here; kernels before 2.6.9 want a pointer all the same (epoll_ctl(2)).
    const int rc = epoll_ctl(g_rqs.loopfd, EPOLL_CTL_DEL, fd, &ev);
    if (rc == 0) {
        --g_rqs.poll_fds;
        return 0;
    }
    const KeptErrno e;
    // Kept: the number printed is the call's result, and only the text is errno's.
    log_err("%s: epoll_ctl(%d, EPOLL_CTL_DEL, %d,..) ERROR(%d): %s\n", __func__, g_rqs.loopfd, fd, rc,
            e.text());
    return rc;
}

int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll(RQS_EVENT_READ, fd, pindex, udata);
}

int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll(RQS_EVENT_WRITE, fd, pindex, udata);
}

int rqs_rm_nopoll(ssize_t index)
{
    // The owner's index is left alone: it asked for this and knows.
    if (!is_nopoll_slot(index) || xvlst_del(&g_rqs.nopoll, static_cast<size_t>(index), nullptr) != 0) {
        log_panic("%s: failed to remove j=%ld\n", __func__, static_cast<long>(index));
    }
    return 0;
}

int rqs_pprm_nopoll(ssize_t index)
{
    ASSERT(index >= 0);
    const ssize_t place = xvec_add(&g_rqs.nopoll_rm, sizeof(ssize_t), 1);
    if (place < 0) {
        log_panic("%s: cannot add an item to nopoll_rm\n", __func__);
    }
    static_cast<ssize_t*>(g_rqs.nopoll_rm.data)[place] = index;
    return 0;
}

int rqs_purge_nopoll_rm(void)
{
    for (size_t i = 0; i < g_rqs.nopoll_rm.len; ++i) {
        const ssize_t j = static_cast<const ssize_t*>(g_rqs.nopoll_rm.data)[i];
        ASSERT(j >= 0);
        const bool taken = is_nopoll_slot(j);
        if (taken) {
            ssize_t* index = static_cast<const struct nopoll_ref*>(g_rqs.nopoll.data)[j].index;
            ASSERT(index != nullptr);
            *index = -1;
        }
        if (!taken || xvlst_del(&g_rqs.nopoll, static_cast<size_t>(j), nullptr) != 0) {
            log_panic("%s: failed to remove j=%ld\n", __func__, static_cast<long>(j));
        }
    }
    g_rqs.nopoll_rm.len = 0;
    return 0;
}

size_t rqs_fd_count(int which)
{
    switch (which) {
    case GET_TOTALFDS: return g_rqs.poll_fds + g_rqs.nopoll.len;
    case GET_POLLFDS: return g_rqs.poll_fds;
    case GET_NOPOLLFDS: return g_rqs.nopoll.len;
    default: break;
    }
    log_err("%s: invalid specifier: %d\n", __func__, which);
    ASSERT(which >= GET_TOTALFDS && which <= GET_NOPOLLFDS);
    return 0;
}

void* rqs_ctx(int type, void* aux)
{
    (void)aux;
    if (type == GET_LOOP_STAGE) {
        return reinterpret_cast<void*>(static_cast<intptr_t>(g_rqs.loop_stage));
    }
    log_err("%s: invalid request type: %d\n", __func__, type);
    return nullptr;
}

const struct timespec* rqs_now_ref(void)
{
    return &mv::g_loop_now;
}

struct timespec rqs_now(void)
{
    return mv::g_loop_now;
}

int rqs_add_file_watch(void* udata, const char* filepath)
{
    // The kernel has one watch for a file, whatever path leads to it: a second call gives the number of the
    // first.
    const int wd = inotify_add_watch(g_ino.fd, filepath, kWatchMask);
    if (wd < 0) {
        const KeptErrno e;
        log_err("%s: inotify_add_watch(%p, '%s', %lu) ERROR(%d): %s\n", __func__, udata, filepath,
                static_cast<unsigned long>(kWatchMask), e.number(), e.text());
        return -1;
    }
    if (wfd_map_add(wd, udata) != 0 || watch_inotify_fd() != 0) {
        // Kept: the kernel's watch goes, also one that was in force before; an entry of the table stays.
        drop_watch(__func__, wd);
        return -1;
    }
    ++g_ino.wfd_count;
    return wd;
}

int rqs_rm_file_watch(int wd)
{
    if (!drop_watch(__func__, wd)) {
        return -1; // Kept: also for a deleted file, whose watch is gone; it goes on counting
    }
    --g_ino.wfd_count;
    ASSERT(g_ino.wfd_count >= 0);
    if (g_ino.wfd_count == 0 && rqs_rm_fd(g_ino.fd, true, false) == 0) {
        log_dbg("inotify fd%d is no longer watched.\n", g_ino.fd);
    }
    return wfd_map_rm(wd);
}
