/* Compiled with NDEBUG, as a user's program may be: its own assert() is off, ASSERT, log_panic and the
 * library's assertions are not. */
#ifndef NDEBUG
#error "this program is to be compiled with NDEBUG"
#endif

#include <assert.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "gkh.h"
#include "log.h"

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;

DECLARE_MLL(MLL_COMMON);

static int g_failures = 0;

static void break_assert(void)
{
    ASSERT(g_quit != 0);
}

static void break_panic(void)
{
    log_panic("panic %d\n", 5);
}

static void break_library(void)
{
    nkht_t h;
    if (nkht_create(&h, 8, NULL) == 0) {
        nkht_add(h, 0, NULL);
    }
}

static void break_nothing(void)
{
    assert(g_quit != 0);
    ASSERT(g_quit == 0);
}

/* Runs a function in a child; compares how it ends and what it writes to stderr, where "..." stands for any
 * text. */
static void expect(void (*what)(void), int signo, const char* first, const char* last)
{
    char text[8192];
    size_t length = 0;
    ssize_t n = 0;
    int status = 0;
    int out[2];
    if (pipe(out) != 0) {
        abort();
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDERR_FILENO);
        log_timefmt(&g_log, f_NO_TIME);
        log_default(&g_log, stderr);
        what();
        _exit(0);
    }
    close(out[1]);
    while ((n = read(out[0], text + length, sizeof text - 1 - length)) > 0) {
        length += (size_t)n;
    }
    text[length] = 0;
    close(out[0]);
    waitpid(pid, &status, 0);
    if ((WIFSIGNALED(status) ? WTERMSIG(status) : 0) != signo || strncmp(text, first, strlen(first)) != 0 ||
        length < strlen(last) || strcmp(text + length - strlen(last), last) != 0) {
        fprintf(stderr, "status %d, text [%s], wanted signal %d, [%s...%s]\n", status, text, signo, first,
                last);
        ++g_failures;
    }
}

int main(void)
{
    glog_init("ndebug_test");
    expect(break_nothing, 0, "", "");
    expect(break_assert, SIGABRT, "(PNC)  ASSERT at:\n#0: ", "Assertion `0' failed.\n");
    expect(break_panic, SIGABRT, "(PNC)  panic 5\n(PNC)  Aborting at:\n#0: ", "==\n");
    expect(break_library, SIGABRT, "", "Assertion `tbl != nullptr && key != nullptr' failed.\n");
    return g_failures != 0;
}
