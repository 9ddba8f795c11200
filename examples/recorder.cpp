// recorder: writes the datagrams that arrive at a UDP address to a file, one behind the other, and beside it
// an index that tells when each stretch of the file arrived. SIGTERM ends it; it also ends when the file is
// full.
//
//   recorder [-p PIDFILE] [-l LOGFILE] [-m MEGABYTES] [-S] ADDRESS PORT FILE
//
// The index, FILE.idx, has a line for each run of datagrams of one length: "OFFSET COUNT LENGTH FIRST LAST",
// with the times as seconds of the monotonic clock. -S measures with the library's sensors and prints them at
// the end.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

#include <morvane/dgram.h>
#include <morvane/dstream.h>
#include <morvane/fdio.h>
#include <morvane/log.h>
#include <morvane/netops.h>
#include <morvane/psensor.h>
#include <morvane/rqs.h>
#include <morvane/sigsafe.h>
#include <morvane/syswrap.h>
#include <morvane/util.h>

DECLARE_MLL(MLL_COMMON);

// What every application owes the library.
volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

namespace {

constexpr size_t kDatagramMax = 65536;
constexpr u_long kSequenceMs = 5000; // how long a line of the index may span

struct Options {
    const char* pidfile = nullptr;
    const char* logfile = nullptr;
    size_t megabytes = 64;
    bool sensors = false;
};

// The loop reads the four bytes of the tag before it calls on_readable.
struct Recorder {
    union n32_tag tag;
    uint32_t flags;
    off_t offset; // end of what is recorded
    transfer_spec* spec;
    dgram_idx* index;
};

Recorder g_recorder = {{"udp"}, 0, 0, nullptr, nullptr};

// Sets the flags; the wake-up ends the wait, or the one that is about to begin.
void on_signal(int signo)
{
    on_sigquit(signo);
    sigsafe_wake();
}

// One datagram goes straight from the socket into the mapped file. The loop is level-triggered: what is left
// calls again.
int on_readable(int, int, void* udata, void*)
{
    if (sigsafe_is_wakeup(udata)) {
        return 0;
    }
    auto* r = static_cast<Recorder*>(udata);
    const off_t begin = r->offset;
    ssize_t length = 0;
    if (transfer(r->spec, kDatagramMax, &length) != 0 || length < 1) {
        r->offset = begin; // an empty or lost datagram leaves nothing
        return 0;
    }
    const auto* store = static_cast<const uint8_t*>(r->spec->mmem);
    if (dgram_add(r->index, static_cast<size_t>(length), store, begin) < 0 ||
        r->spec->mmlen - static_cast<size_t>(r->offset) < kDatagramMax) {
        log_norm("the file or its index is full\n");
        g_quit = 1;
    }
    r->index->stype = STY_RAW; // we index datagrams, whatever they carry
    return 0;
}

int run_loop(int sock)
{
    rqs_config config = {};
    config.cb.read = on_readable;
    config.cb.write = config.cb.error = [](int, int, void*, void*) { return 0; };
    int rc = rqs_init(&config);
    if (rc == 0) {
        rc = sigsafe_open() == 0 ? rqs_add_reader(sock, &g_recorder) : -1;
    }
    if (rc == 0) {
        log_norm("recording\n");
        rc = rqs_event_loop();
        rqs_rm_fd(sock, true, false);
    }
    sigsafe_close();
    rqs_destroy();
    return rc;
}

int write_index(const char* path)
{
    char name[4096];
    const bool fits = snprintf(name, sizeof name, "%s.idx", path) < static_cast<int>(sizeof name);
    FILE* fp = fits ? fopen(name, "w") : nullptr;
    if (fp == nullptr) {
        return -1;
    }
    const auto* seq = static_cast<const dgram_seq*>(g_recorder.index->seq.data);
    for (const auto* end = seq + g_recorder.index->seq.len; seq != end; ++seq) {
        fprintf(fp, "%ld %zu %zu %ld.%03ld %ld.%03ld\n", static_cast<long>(seq->offset), seq->count,
                seq->pkt_size, static_cast<long>(seq->first_io.tv_sec), seq->first_io.tv_nsec / 1000000,
                static_cast<long>(seq->last_io.tv_sec), seq->last_io.tv_nsec / 1000000);
    }
    const bool is_whole = ferror(fp) == 0;
    return fclose(fp) == 0 && is_whole ? 0 : -1;
}

// The file is as long as it may become while it is mapped, and as long as what it holds in the end.
int record(int sock, const char* path, size_t size)
{
    const int fd = Open3(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd == -1 || Ftruncate(fd, static_cast<off_t>(size)) != 0) {
        return -1;
    }
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    int rc = map == MAP_FAILED ? -1 : 0;
    if (rc == 0) {
        g_recorder.spec = new_transfer_spec(sock, fd, &g_recorder.offset, &g_recorder.flags, nullptr, 0);
        g_recorder.spec->mmem = map;
        g_recorder.spec->mmlen = size;
        g_recorder.index = mk_dgram_idx(64, kSequenceMs);
        rc = -1;
        if (g_recorder.index != nullptr) {
            rc = run_loop(sock);
            rc |= write_index(path);
            free_dgram_idx(g_recorder.index);
        }
        free(g_recorder.spec);
        munmap(map, size);
        Close(sock);
    }
    rc |= Ftruncate(fd, g_recorder.offset);
    log_norm("%ld bytes recorded\n", static_cast<long>(g_recorder.offset));
    return rc | Close(fd);
}

bool parse_options(int argc, char** argv, Options* options)
{
    for (int c; (c = getopt(argc, argv, "p:l:m:S")) != -1;) {
        switch (c) {
        case 'p': options->pidfile = optarg; break;
        case 'l': options->logfile = optarg; break;
        case 'm': options->megabytes = strtoul(optarg, nullptr, 10); break;
        case 'S': options->sensors = true; break;
        default: return false;
        }
    }
    return argc - optind == 3 && options->megabytes > 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse_options(argc, argv, &options)) {
        fprintf(stderr, "usage: recorder [-p PIDFILE] [-l LOGFILE] [-m MEGABYTES] [-S] ADDRESS PORT FILE\n");
        return 2;
    }
    glog_init("recorder");
    log_open(&g_log, options.logfile);
    log_set_rota(&g_log, 1 << 20, 4); // a megabyte, and four old files
    log_set_pid(&g_log, getpid());
    psensors_init(nullptr, options.sensors ? 1 : 0);
    // The pid file last: it is taken away below, by whatever ends the recording.
    if (handle_quit_signals(on_signal) != 0 || fdio_init(-1) != 0 ||
        (options.pidfile != nullptr && create_pidfile(options.pidfile, getpid()) != 0)) {
        return 1;
    }
    socket_spec spec = {};
    spec.non_blocking = 1;
    spec.socktype = SOCK_DGRAM;
    const int sock = open_socket(argv[optind], argv[optind + 1], nullptr, &spec, nullptr, nullptr);
    const int rc = sock == -1 ? -1 : record(sock, argv[optind + 2], options.megabytes << 20);
    if (rc != 0) {
        log_err("an error ends the recording\n");
    }
    fdio_destroy();
    if (options.sensors) {
        psensors_dump(stdout);
    }
    if (options.pidfile != nullptr) {
        Unlink(options.pidfile);
    }
    log_close(&g_log);
    return rc == 0 ? 0 : 1;
}
