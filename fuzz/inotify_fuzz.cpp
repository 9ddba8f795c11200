// The walk over inotify records: once over the input in a block of its exact size, once through the whole
// loop, with a pipe in the place of the inotify descriptor. The watches 1 and 2 are known, all others are
// not.
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "detail/inotify_records.h"
#include "log.h"
#include "rqs.h"
#include "wrap.h"

namespace {

int g_pipe[2] = {-1, -1};
int g_next_watch = 0;
size_t g_changes = 0;

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

} // namespace

WRAPPED(int, inotify_init, (void));
WRAPPED(int, inotify_add_watch, (int fd, const char* path, uint32_t mask));
WRAPPED(int, inotify_rm_watch, (int fd, int wd));

extern "C" {
int __wrap_inotify_init(void)
{
    require(pipe2(g_pipe, O_CLOEXEC) == 0);
    return g_pipe[0];
}

int __wrap_inotify_add_watch(int, const char*, uint32_t)
{
    return ++g_next_watch;
}

int __wrap_inotify_rm_watch(int, int)
{
    return 0;
}
}

namespace {

int on_changed(int wd, int flags, void* udata, void*)
{
    require((wd == 1 || wd == 2) && udata == &g_next_watch);
    const int known = RQS_RMV | RQS_FMOVED | RQS_FDELETED | RQS_ATTR;
    require((flags & ~known) == 0 &&
            ((flags & RQS_RMV) != 0) == ((flags & (RQS_FMOVED | RQS_FDELETED)) != 0));
    ++g_changes;
    return 0;
}

// How many records an independent walk finds that reach the callback.
size_t expected_changes(const uint8_t* data, size_t size)
{
    size_t changes = 0;
    for (size_t at = 0; size - at >= sizeof(inotify_event);) {
        inotify_event head;
        memcpy(&head, data + at, sizeof head);
        if (head.len > size - at - sizeof head || head.len % 4 != 0) {
            break;
        }
        changes += (head.wd == 1 || head.wd == 2) && (head.mask & 0xc0e) != 0 ? 1 : 0;
        at += sizeof head + head.len;
    }
    return changes;
}

void walk_exact(const uint8_t* data, size_t size)
{
    const auto block = std::make_unique<char[]>(size);
    if (size > 0) {
        memcpy(block.get(), data, size);
    }
    size_t names = 0;
    const mv::InotifyWalk walk =
        mv::each_inotify_record({block.get(), size}, [&names](const inotify_event* e) {
            const size_t length = mv::inotify_name_length(e);
            require(length <= e->len);
            names += length;
        });
    require(walk.bytes <= size && names <= size && walk.records * sizeof(inotify_event) <= walk.bytes);
}

// A directory's watch and a file's: the second add fails in the loop's registration, its key stays in the
// table.
void run_loop(const uint8_t* data, size_t size)
{
    rqs_config cfg = {};
    cfg.cb.read = cfg.cb.write = cfg.cb.error = [](int, int, void*, void*) { return 0; };
    cfg.cb.on_idle = [] { return 100; };
    cfg.cb.on_file_modified = on_changed;
    g_next_watch = 0;
    g_changes = 0;
    require(rqs_init(&cfg) == 0);
    require(rqs_add_file_watch(&g_next_watch, "/first") == 1);
    require(rqs_add_file_watch(&g_next_watch, "/second") == -1);
    require(write(g_pipe[1], data, size) == static_cast<ssize_t>(size));
    const int rc = rqs_event_loop();
    const bool fits = size <= 4096;
    require(rc == (fits ? 100 : 1));
    require(g_changes == (fits ? expected_changes(data, size) : 0));
    rqs_destroy();
    close(g_pipe[1]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 60000) { // more than a pipe holds
        return 0;
    }
    static FILE* const nowhere = fopen("/dev/null", "w");
    log_default(&g_log, nowhere);
    g_mod_ll[0] = DEBUG_level; // the dump of a record reads its name
    walk_exact(data, size);
    if (size > 0) {
        run_loop(data, size);
    }
    return 0;
}
