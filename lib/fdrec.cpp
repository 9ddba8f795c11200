// Records of open descriptors: made, named and taken down.
#include "fdrec.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "detail/kept_errno.h"
#include "dgram.h"
#include "log.h"
#include "syswrap.h"
#include "util.h"

DECLARE_MLL(MLL_COMMON);

namespace {

using mv::KeptErrno;

constexpr char kFreeFdrec[] = "free_fdrec"; // whose steps report under its name

// Two addresses of 18 characters, or one with a kind and a descriptor: nothing is ever cut.
constexpr size_t kTagMax = 64;

// The leading slash is what POSIX wants of such a name; on Linux the object stands in /dev/shm.
constexpr char kShmPrefix[] = "/shm.";

// Both ways in which a record says that it has none: never mapped, and a mapping that failed.
bool has_mapping(const struct fdrec* r)
{
    return r->mmbuf != nullptr && r->mmbuf != MAP_FAILED;
}

// Whether a path is the name of a shared memory object.
// Kept: the prefix alone says so, also where the descriptor was never opened: a name that an earlier process
// left goes too.
bool is_shm(const char* path)
{
    return strncmp(path, kShmPrefix, sizeof kShmPrefix - 1) == 0;
}

// Makes one or ends the process: callers put the result straight behind a %s.
void mk_dbg_tag(struct fdrec* r)
{
    ASSERT(r->dbg_tag == nullptr);
    r->dbg_tag = static_cast<char*>(Calloc(1, kTagMax));
    if (r->dbg_tag == nullptr) {
        log_panic("%s: failed to allocate memory.\n", __func__);
    }
    // A record of memory alone is known by its address; any other by its descriptor and what kind that is.
    if (r->fd == -1 && has_mapping(r)) {
        snprintf(r->dbg_tag, kTagMax - 1, "r(%p).M(%p)", static_cast<void*>(r), r->mmbuf);
    } else {
        snprintf(r->dbg_tag, kTagMax - 1, "r(%p).%s(%d)", static_cast<void*>(r), fmode_str(r->mode), r->fd);
    }
}

// Of the steps of free_fdrec none stops the ones behind it: whatever fails, the record goes. The bytes must
// be those of the mmap(): fewer would leave a part of the area mapped for good.
void unmap(struct fdrec* r)
{
    if (munmap(r->mmbuf, r->mmbuf_size) != 0) {
        const KeptErrno e;
        log_err("%s: munmap(%p, %ld) ERROR(%d): %s\n", kFreeFdrec, r->mmbuf, static_cast<long>(r->mmbuf_size),
                e.number(), e.text());
        return;
    }
    log_dbg("%s: freed mmap-ed area (%p) [%ld bytes]\n", kFreeFdrec, r->mmbuf,
            static_cast<long>(r->mmbuf_size));
}

void remove_shm(const struct fdrec* r)
{
    if (shm_unlink(r->path) != 0) {
        const KeptErrno e;
        log_err("%s: shm_unlink('%s') ERROR(%d): %s\n", kFreeFdrec, r->path, e.number(), e.text());
        return;
    }
    log_dbg("%s: removed '%s'\n", kFreeFdrec, r->path);
}

} // namespace

struct fdrec* alloc_fdrec(void)
{
    auto* const r = static_cast<struct fdrec*>(Calloc(1, sizeof(struct fdrec)));
    if (r != nullptr) {
        init_fdrec(r);
    }
    return r;
}

void init_fdrec(struct fdrec* r)
{
    // Not the 0 of fresh memory, which is a descriptor that free_fdrec() would close. Every other owned field
    // says "none" by its zeros.
    r->fd = -1;
    r->wd = -1;
}

void free_fdrec(struct fdrec* r)
{
    ASSERT(r != nullptr);
    // In this order: the mapping before its descriptor, the name of the memory last, when nobody has it open
    // here; the tag behind the lines that show it.
    if (has_mapping(r)) {
        unmap(r);
    }
    if (r->fd >= 0) {
        Close(r->fd);
    }
    if (is_shm(r->path)) {
        remove_shm(r);
    }
    // Kept: no group is left by a call and wd is not looked at. The close above has ended the membership, and
    // the watch belongs to whoever added it.
    if (r->sspec != nullptr) {
        log_dbg("%s: freeing sspec: %p\n", __func__, static_cast<void*>(r->sspec));
        free(r->sspec);
    }
    if (r->mifc != nullptr) {
        log_dbg("%s: freeing mifc: %p\n", __func__, static_cast<void*>(r->mifc));
        free(r->mifc);
    }
    if (r->dbg_tag != nullptr) {
        log_dbg("%s: freeing [%s]: tag=%p\n", __func__, r->dbg_tag, static_cast<void*>(r->dbg_tag));
        free(r->dbg_tag);
    } else {
        log_dbg("%s: freeing r=%p\n", __func__, static_cast<void*>(r));
    }
    // free_dgram_idx() asserts its argument, unlike free().
    if (r->dgram != nullptr) {
        free_dgram_idx(r->dgram);
    }
    free(r);
}

const char* get_fdrec_tag(struct fdrec* r)
{
    if (r->dbg_tag == nullptr) {
        mk_dbg_tag(r);
    }
    return r->dbg_tag;
}

int set_fdrec_tag(struct fdrec* r, const char* tag)
{
    char* const copy = tag != nullptr ? strdup(tag) : nullptr;
    free(r->dbg_tag); // not before the copy: tag may be this very text
    r->dbg_tag = copy;
    // Without memory the record has no tag rather than a wrong one; get_fdrec_tag() makes the usual one then.
    if (tag != nullptr && copy == nullptr) {
        log_crit("%s: out of memory\n", __func__);
        return -1;
    }
    return 0;
}
