// Records of descriptors: what is released, in which order, and what is said about it.
#include "fdrec.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.h"
#include "dgram.h"
#include "fixtures.h"
#include "netops.h"
#include "oom.h"
#include "text.h"
#include "wrap.h"

using support::expect_abort;
using support::FailAllocation;
using support::format;
using support::Lines;
using support::run_in_child;

namespace {

bool g_fail_strdup = false;

void* at(const void* p)
{
    return const_cast<void*>(p);
}

// The name of a shared memory object of this process, which is made and is to be removed by the record.
struct Shm {
    Shm()
    {
        snprintf(name, sizeof name, "/shm.fdrec_test.%ld", static_cast<long>(getpid()));
        const int fd = shm_open(name, O_CREAT | O_RDWR, 0600);
        made = fd >= 0;
        close(fd);
    }

    Shm(const Shm&) = delete;
    Shm& operator=(const Shm&) = delete;

    ~Shm() { shm_unlink(name); }

    bool exists() const
    {
        const int fd = shm_open(name, O_RDONLY, 0);
        if (fd >= 0) {
            close(fd);
        }
        return fd >= 0;
    }

    char name[64];
    bool made;
};

} // namespace

WRAPPED(char*, strdup, (const char* s));

extern "C" {
char* __wrap_strdup(const char* s)
{
    if (g_fail_strdup) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_strdup(s);
}
}

// ---- making ----------------------------------------------------------------------------------------

class Fdrec : public support::GuardedTest {};

TEST_F(Fdrec, a_new_record_is_zero_but_for_its_descriptors)
{
    fdrec* const r = alloc_fdrec();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->fd, -1);
    EXPECT_EQ(r->wd, -1);
    auto* const bytes = reinterpret_cast<unsigned char*>(r);
    memset(&r->fd, 0, sizeof r->fd);
    memset(&r->wd, 0, sizeof r->wd);
    for (size_t i = 0; i < sizeof *r; ++i) {
        EXPECT_EQ(bytes[i], 0) << i;
    }
    init_fdrec(r);
    free_fdrec(r);
}

TEST_F(Fdrec, a_record_without_memory_is_null_and_logged)
{
    const FailAllocation failure(1);
    EXPECT_EQ(alloc_fdrec(), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  alloc_fdrec: calloc(1, %ld) ERROR(12): Cannot allocate memory",
                            static_cast<long>(sizeof(fdrec)))}));
}

TEST_F(Fdrec, init_touches_the_descriptors_alone)
{
    fdrec r;
    memset(&r, 0x5a, sizeof r);
    init_fdrec(&r);
    EXPECT_EQ(r.fd, -1);
    EXPECT_EQ(r.wd, -1);
    memset(&r.fd, 0x5a, sizeof r.fd);
    memset(&r.wd, 0x5a, sizeof r.wd);
    fdrec untouched;
    memset(&untouched, 0x5a, sizeof untouched);
    EXPECT_EQ(memcmp(&r, &untouched, sizeof r), 0);
}

TEST_F(Fdrec, a_path_has_384_bytes)
{
    EXPECT_EQ(static_cast<int>(FDR_PATH_MAX), 384);
    EXPECT_EQ(sizeof(fdrec::path), 384U);
}

// ---- releasing -------------------------------------------------------------------------------------

TEST_F(Fdrec, a_fresh_record_releases_only_itself)
{
    log.set_level(DEBUG_level);
    fdrec* const r = alloc_fdrec();
    const std::string line = format("(DBG)  free_fdrec: freeing r=%p", at(r));
    free_fdrec(r);
    EXPECT_EQ(log.lines(), Lines{line});
}

TEST_F(Fdrec, all_that_hangs_on_a_record_is_released_in_order)
{
    const Shm shm;
    ASSERT_TRUE(shm.made);
    log.set_level(DEBUG_level);
    fdrec* const r = alloc_fdrec();
    r->fd = dup(0);
    r->mmbuf = mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    r->mmbuf_size = 8192;
    strcpy(r->path, shm.name);
    r->sspec = static_cast<socket_spec*>(calloc(1, sizeof(socket_spec)));
    r->mifc = static_cast<ifc_info*>(calloc(1, sizeof(ifc_info)));
    r->dgram = mk_dgram_idx(4, 1000);
    ASSERT_EQ(set_fdrec_tag(r, "name"), 0);
    log.clear();
    const Lines lines{
        format("(DBG)  free_fdrec: freed mmap-ed area (%p) [8192 bytes]", r->mmbuf),
        format("(DBG)  free_fdrec: CLOSED(fd%d)", r->fd),
        format("(DBG)  free_fdrec: removed '%s'", shm.name),
        format("(DBG)  free_fdrec: freeing sspec: %p", at(r->sspec)),
        format("(DBG)  free_fdrec: freeing mifc: %p", at(r->mifc)),
        format("(DBG)  free_fdrec: freeing [name]: tag=%p", at(r->dbg_tag)),
        format("(DBG)  free_dgram_idx: DI(%p): 0 dgram sequences", at(r->dgram)),
    };
    unsigned char* const area = static_cast<unsigned char*>(r->mmbuf);
    free_fdrec(r);
    EXPECT_EQ(log.lines(), lines);
    EXPECT_FALSE(shm.exists());
    unsigned char resident = 0;
    EXPECT_EQ(mincore(area, 4096, &resident), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(Fdrec, kept_a_shared_memory_name_goes_even_where_the_descriptor_failed_to_open)
{
    const Shm shm;
    ASSERT_TRUE(shm.made);
    fdrec* const r = alloc_fdrec();
    strcpy(r->path, shm.name);
    free_fdrec(r);
    EXPECT_FALSE(shm.exists());
    EXPECT_EQ(log.text(), "");
}

TEST_F(Fdrec, an_unlink_that_fails_is_logged_and_the_rest_goes_on)
{
    log.set_level(DEBUG_level);
    fdrec* const r = alloc_fdrec();
    r->fd = dup(0);
    strcpy(r->path, "/shm.fdrec_test.nothing");
    r->sspec = static_cast<socket_spec*>(calloc(1, sizeof(socket_spec)));
    const Lines lines{
        format("(DBG)  free_fdrec: CLOSED(fd%d)", r->fd),
        "(ERR)  free_fdrec: shm_unlink('/shm.fdrec_test.nothing') ERROR(2): No such file or directory",
        format("(DBG)  free_fdrec: freeing sspec: %p", at(r->sspec)),
        format("(DBG)  free_fdrec: freeing r=%p", at(r)),
    };
    free_fdrec(r);
    EXPECT_EQ(log.lines(), lines);
}

TEST_F(Fdrec, a_path_without_the_prefix_is_no_shared_memory)
{
    for (const char* path : {"shm.x", "/shm", "/shmx", "/Shm.x", "/dev/shm/shm.x", " /shm.x"}) {
        fdrec* const r = alloc_fdrec();
        strcpy(r->path, path);
        free_fdrec(r);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Fdrec, an_area_of_all_ones_is_none)
{
    log.set_level(DEBUG_level);
    fdrec* const r = alloc_fdrec();
    r->mmbuf = MAP_FAILED;
    r->mmbuf_size = 4096;
    const std::string line = format("(DBG)  free_fdrec: freeing r=%p", at(r));
    free_fdrec(r);
    EXPECT_EQ(log.lines(), Lines{line});
}

TEST_F(Fdrec, an_unmap_that_fails_is_logged_and_the_rest_goes_on)
{
    fdrec* const r = alloc_fdrec();
    r->fd = dup(0);
    void* const area = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    r->mmbuf = static_cast<char*>(area) + 1; // no page begins there
    r->mmbuf_size = 4095;
    const std::string line =
        format("(ERR)  free_fdrec: munmap(%p, 4095) ERROR(22): Invalid argument", r->mmbuf);
    free_fdrec(r);
    EXPECT_EQ(log.lines(), Lines{line});
    EXPECT_EQ(munmap(area, 4096), 0);
}

TEST_F(Fdrec, a_close_that_fails_is_logged_and_the_rest_goes_on)
{
    fdrec* const r = alloc_fdrec();
    r->fd = 999;
    r->mifc = static_cast<ifc_info*>(calloc(1, sizeof(ifc_info)));
    free_fdrec(r);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  free_fdrec: close(fd999) ERROR(9): Bad file descriptor"}));
}

TEST_F(Fdrec, kept_a_group_is_left_by_the_close_and_a_watch_stays)
{
    const int watcher = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(watcher, 0);
    fdrec* const r = alloc_fdrec();
    r->fd = socket(AF_INET, SOCK_DGRAM, 0);
    r->wd = inotify_add_watch(watcher, "/", IN_CREATE);
    ASSERT_GE(r->wd, 0);
    const int watch = r->wd;
    r->sspec = static_cast<socket_spec*>(calloc(1, sizeof(socket_spec)));
    r->sspec->multicast = 1; // a leave would fail on this socket, which is in no group
    free_fdrec(r);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(inotify_rm_watch(watcher, watch), 0);
    close(watcher);
}

TEST_F(Fdrec, descriptor_0_is_closed_too)
{
    const auto result = run_in_child([] {
        fdrec* const r = alloc_fdrec();
        r->fd = 0;
        free_fdrec(r);
        return fcntl(0, F_GETFD) == -1 && errno == EBADF ? 0 : 1;
    });
    EXPECT_EQ(result.exit_code, 0);
}

TEST_F(Fdrec, a_null_record_is_asserted)
{
    expect_abort("ASSERT at:", [] { free_fdrec(nullptr); });
}

// ---- names -----------------------------------------------------------------------------------------

TEST_F(Fdrec, a_tag_is_made_once)
{
    fdrec* const r = alloc_fdrec();
    const char* const tag = get_fdrec_tag(r);
    const std::string first = tag;
    r->fd = dup(0);
    r->mode = S_IFREG;
    EXPECT_EQ(get_fdrec_tag(r), tag);
    EXPECT_EQ(first, tag);
    free_fdrec(r);
}

TEST_F(Fdrec, a_tag_names_kind_and_descriptor)
{
    const struct {
        mode_t mode;
        const char* name;
    } kinds[] = {{S_IFREG | 0644, "FILE"}, {S_IFSOCK, "SOCK"}, {S_IFDIR, "DIR"},  {S_IFCHR, "CHR"},
                 {S_IFBLK, "BLK"},         {S_IFIFO, "FIFO"},  {S_IFLNK, "LINK"}, {0, "{???}"}};

    for (const auto& kind : kinds) {
        fdrec* const r = alloc_fdrec();
        r->mode = kind.mode;
        r->fd = 777;
        EXPECT_EQ(get_fdrec_tag(r), format("r(%p).%s(777)", at(r), kind.name));
        r->fd = -1;
        free_fdrec(r);
    }
}

TEST_F(Fdrec, a_record_without_descriptor_and_area_is_named_with_minus_1)
{
    fdrec* const r = alloc_fdrec();
    EXPECT_EQ(get_fdrec_tag(r), format("r(%p).{\?\?\?}(-1)", at(r)));
    ASSERT_EQ(set_fdrec_tag(r, nullptr), 0);
    r->mmbuf = MAP_FAILED;
    EXPECT_EQ(get_fdrec_tag(r), format("r(%p).{\?\?\?}(-1)", at(r)));
    free_fdrec(r);
}

TEST_F(Fdrec, a_record_with_an_area_alone_is_named_by_it)
{
    fdrec* const r = alloc_fdrec();
    r->mmbuf = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    r->mmbuf_size = 4096;
    EXPECT_EQ(get_fdrec_tag(r), format("r(%p).M(%p)", at(r), r->mmbuf));
    ASSERT_EQ(set_fdrec_tag(r, nullptr), 0);
    r->fd = 777;
    EXPECT_EQ(get_fdrec_tag(r), format("r(%p).{\?\?\?}(777)", at(r)));
    r->fd = -1;
    free_fdrec(r);
}

TEST_F(Fdrec, a_tag_that_is_set_is_a_copy)
{
    log.set_level(DEBUG_level);
    fdrec* const r = alloc_fdrec();
    char name[] = "first";
    EXPECT_EQ(set_fdrec_tag(r, name), 0);
    name[0] = 'x';
    EXPECT_STREQ(get_fdrec_tag(r), "first");
    EXPECT_EQ(set_fdrec_tag(r, "second"), 0);
    EXPECT_STREQ(get_fdrec_tag(r), "second");
    EXPECT_EQ(log.text(), "");
    free_fdrec(r);
}

TEST_F(Fdrec, a_record_may_be_given_its_own_tag_or_the_end_of_it)
{
    fdrec* const r = alloc_fdrec();
    ASSERT_EQ(set_fdrec_tag(r, "first name"), 0);
    EXPECT_EQ(set_fdrec_tag(r, get_fdrec_tag(r)), 0);
    EXPECT_STREQ(get_fdrec_tag(r), "first name");
    EXPECT_EQ(set_fdrec_tag(r, get_fdrec_tag(r) + 6), 0);
    EXPECT_STREQ(get_fdrec_tag(r), "name");
    free_fdrec(r);
}

TEST_F(Fdrec, a_null_tag_takes_the_name_away_until_one_is_made)
{
    fdrec* const r = alloc_fdrec();
    ASSERT_EQ(set_fdrec_tag(r, "name"), 0);
    EXPECT_EQ(set_fdrec_tag(r, nullptr), 0);
    EXPECT_EQ(r->dbg_tag, nullptr);
    EXPECT_EQ(get_fdrec_tag(r), format("r(%p).{\?\?\?}(-1)", at(r)));
    free_fdrec(r);
}

TEST_F(Fdrec, a_tag_without_memory_for_its_copy_is_logged_and_leaves_none)
{
    fdrec* const r = alloc_fdrec();
    ASSERT_EQ(set_fdrec_tag(r, "name"), 0);
    g_fail_strdup = true;
    EXPECT_EQ(set_fdrec_tag(r, "other"), -1);
    g_fail_strdup = false;
    EXPECT_EQ(r->dbg_tag, nullptr);
    EXPECT_EQ(log.lines(), (Lines{"(CRI)  set_fdrec_tag: out of memory"}));
    free_fdrec(r);
}

TEST_F(Fdrec, a_tag_that_cannot_be_made_ends_the_process)
{
    const char* line = "(PNC)  mk_dbg_tag: failed to allocate memory.\n(PNC)  Aborting at:\n";
    const std::string text = expect_abort(line, [] {
        log_timefmt(&g_log, f_NO_TIME);
        fdrec* const r = alloc_fdrec();
        const FailAllocation failure(1);
        get_fdrec_tag(r);
    });
    EXPECT_NE(text.find("(ERR)  mk_dbg_tag: calloc(1, 64) ERROR(12): Cannot allocate memory\n"),
              std::string::npos)
        << text;
}
