/* watch_rotate: watches a file and logs each change of it, in a log that rotates by its size.
 *
 *   watch_rotate [-s BYTES] [-k FILES] LOGFILE FILE
 *
 * It ends when the file is gone, or at SIGTERM. Old logs are named LOGFILE.SECONDS; -k of them are kept. Two
 * rotations within one second share a name, so that the older one is lost: a log is best rotated rarely. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <morvane/log.h>
#include <morvane/rqs.h>
#include <morvane/sigsafe.h>
#include <morvane/util.h>

DECLARE_MLL(MLL_COMMON);

volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

static void on_signal(int signo)
{
    (void)signo;
    g_quit = 1;
    sigsafe_wake();
}

static int on_file_modified(int wd, int flags, void* udata, void* aux)
{
    const char* path = udata;
    struct stat st;

    (void)wd, (void)aux;
    if ((flags & RQS_RMV) != 0) {
        log_norm("%s is %s\n", path, (flags & RQS_FMOVED) != 0 ? "moved away" : "deleted");
        g_quit = 1;
    } else if ((flags & RQS_ATTR) != 0 && access(path, F_OK) != 0) {
        log_norm("%s lost its last name\n", path); /* it goes when the last one who has it open closes it */
        g_quit = 1;
    } else if (stat(path, &st) == 0) {
        log_norm("%s has %ld bytes\n", path, (long)st.st_size);
    }
    return 0;
}

/* The loop itself reads the watches; only the wake-up is ours. */
static int on_readable(int fd, int fd_err, void* udata, void* aux)
{
    (void)fd, (void)fd_err, (void)aux;
    return sigsafe_is_wakeup(udata) ? 0 : 1;
}

static int watch(char* path)
{
    struct rqs_config config;
    int rc = -1;

    memset(&config, 0, sizeof config);
    config.cb.read = config.cb.write = config.cb.error = on_readable;
    config.cb.on_file_modified = on_file_modified;
    if (rqs_init(&config) == 0 && sigsafe_open() == 0 && rqs_add_file_watch(path, path) >= 0) {
        log_norm("watching %s\n", path);
        printf("watching %s\n", path);
        fflush(stdout);
        rc = rqs_event_loop();
    }
    sigsafe_close();
    rqs_destroy();
    return rc;
}

int main(int argc, char** argv)
{
    size_t size = 1 << 20;
    size_t keep = 4;
    int option;
    int rc;

    glog_init("watch_rotate");
    while ((option = getopt(argc, argv, "s:k:")) != -1) {
        switch (option) {
        case 's': size = strtoul(optarg, NULL, 10); break;
        case 'k': keep = strtoul(optarg, NULL, 10); break;
        default: optind = argc; break;
        }
    }
    if (argc - optind != 2) {
        fprintf(stderr, "usage: watch_rotate [-s BYTES] [-k FILES] LOGFILE FILE\n");
        return 2;
    }
    if (log_open(&g_log, argv[optind]) != 0 || handle_quit_signals(on_signal) != 0) {
        return 1;
    }
    log_set_rota(&g_log, size, keep);
    rc = watch(argv[optind + 1]);
    log_close(&g_log);
    return rc == 0 ? 0 : 1;
}
