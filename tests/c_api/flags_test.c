/* A C program that defines the application's flags, links the library in either form, and uses log and
 * tables. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "gkh.h"
#include "log.h"
#include "timeop.h"

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;

DECLARE_MLL(MLL_COMMON);

static int g_failures = 0;

static void check(int good, const char* what)
{
    if (!good) {
        fprintf(stderr, "failed: %s\n", what);
        ++g_failures;
    }
}

static void count_line(void* udata, const char* line)
{
    (void)line;
    ++*(int*)udata;
}

/* The library must read the flag of this program, not one of its own: under it, hooks are left out. */
static void check_log(void)
{
    char* text = NULL;
    size_t length = 0;
    int hooked = 0;
    FILE* out = open_memstream(&text, &length);
    log_timefmt(&g_log, f_NO_TIME);
    log_default(&g_log, out);
    log_set_hook(&g_log, &hooked, count_line);
    log_norm("%s %d\n", "line", 1);
    check(hooked == 1, "the hook is called");
    g_sigctx = 1;
    log_err("line 2\n");
    g_sigctx = 0;
    check(hooked == 1, "the hook is not called in a handler");
    log_dbg("not shown\n");
    fclose(out);
    check(strcmp(text, "(NRM)  line 1\n(ERR)  line 2\n") == 0, "the lines");
    free(text);
    log_set_hook(&g_log, NULL, NULL);
    log_default(&g_log, stderr);
}

static void check_table(void)
{
    nkht_t h;
    void* data = &h;
    check(nkht_create(&h, 512, tw_shift) == 0, "create");
    check(nkht_add(h, 5, &data) == 0, "add");
    data = NULL;
    check(nkht_get(h, 5, &data) == 0 && data == &h, "get");
    check(nkht_rm(h, 6, &data) == 3, "remove of a key that is not there");
    nkht_destroy(h, NULL);
}

/* An open before glog_init is a broken invariant. */
static void check_order(void)
{
    int status = 0;
    const pid_t pid = fork();
    if (pid == 0) {
        struct log_ctx log = ZERO_LOG;
        if (freopen("/dev/null", "w", stderr) != NULL) {
            log_open(&log, NULL);
        }
        _exit(0);
    }
    check(waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT,
          "an open before glog_init aborts");
}

int main(void)
{
    const struct timespec tms = {1700000000, 5000};
    char text[64];
    check_order();
    glog_init("flags_test");
    check_log();
    check_table();
    check(mk_timestr(&tms, f_RAW_TIME, text, sizeof text) == 17 && strcmp(text, "1700000000.000005") == 0,
          "time text");
    return g_failures != 0;
}
