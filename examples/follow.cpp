// Follows a growing file: prints what it holds and then whatever is appended, until the file is moved or
// deleted or a signal comes. A file that has become shorter is printed from its start again.
//
// usage: follow file
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <morvane/fdio.h>
#include <morvane/log.h>
#include <morvane/rqs.h>
#include <morvane/syswrap.h>
#include <morvane/util.h>

DECLARE_MLL(MLL_COMMON);

extern "C" {
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;
}

namespace {

struct Followed {
    const char* path;
    int fd;
    off_t printed; // bytes
    bool is_lost;  // the output takes no more
};

bool print_all(const char* text, size_t length)
{
    while (length > 0) {
        const ssize_t n = nwrite(STDOUT_FILENO, text, length, FDIO_VERBOSE);
        if (n <= 0) {
            return false;
        }
        text += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// Prints from where it stopped up to the end of the file. False where nobody reads the output any more.
bool print_news(Followed* f)
{
    struct stat st;
    if (fstat(f->fd, &st) == 0 && st.st_size < f->printed) {
        log_norm("%s: file truncated\n", f->path);
        f->printed = 0;
    }
    char buf[65536];
    ssize_t n = 0;
    while ((n = npread(f->fd, buf, sizeof buf, f->printed, FDIO_VERBOSE)) > 0) {
        if (!print_all(buf, static_cast<size_t>(n))) {
            return false;
        }
        f->printed += n;
    }
    return true;
}

// The descriptor that is read here keeps a deleted file alive, so its deletion shows as a change of
// attributes: no link is left.
const char* how_it_went(const Followed* f, int flags)
{
    struct stat st;
    if ((flags & RQS_FMOVED) != 0) {
        return "moved";
    }
    const bool unlinked = (flags & RQS_ATTR) != 0 && fstat(f->fd, &st) == 0 && st.st_nlink == 0;
    return unlinked || (flags & RQS_FDELETED) != 0 ? "deleted" : nullptr;
}

int on_file_modified(int, int flags, void* udata, void*)
{
    auto* f = static_cast<Followed*>(udata);
    f->is_lost = f->is_lost || !print_news(f);
    const char* gone = how_it_went(f, flags);
    if (gone != nullptr) {
        log_norm("%s: file %s\n", f->path, gone);
    }
    if (f->is_lost || gone != nullptr) {
        g_quit = 1; // the loop ends when this cycle is done
    }
    return 0;
}

// No descriptor is registered but the loop's own; these may not be null all the same.
int on_no_event(int, int, void*, void*)
{
    return 0;
}

// Once a second at the latest a signal is seen, also one that comes just before a wait.
void set_limit(struct timespec* tmout)
{
    *tmout = {1, 0};
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: follow file\n");
        return 2;
    }
    glog_init("follow");
    log_default(&g_log, stderr);
    struct rqs_config cfg = {};
    cfg.cb.update_tmout = set_limit;
    cfg.cb.read = cfg.cb.write = cfg.cb.error = on_no_event;
    cfg.cb.on_file_modified = on_file_modified;
    if (handle_quit_signals([](int) { g_quit = 1; }) != 0 || ignore_sigpipe() != 0 || rqs_init(&cfg) != 0) {
        return 1;
    }
    Followed followed = {argv[1], open_src_file(argv[1]), 0, false};
    // First the watch, then the content: nothing that is written in between is missed.
    const bool ready =
        followed.fd >= 0 && rqs_add_file_watch(&followed, argv[1]) >= 0 && print_news(&followed);
    const int rc = ready ? rqs_event_loop() : 1;
    if (followed.fd >= 0) {
        Close(followed.fd);
    }
    rqs_destroy();
    return rc == 0 && !followed.is_lost ? 0 : 1;
}
