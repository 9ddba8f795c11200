/* A program that only logs: it owes the library one flag, and gets no more of it than the log and its clocks.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "log.h"

volatile sig_atomic_t g_sigctx = 0;

DECLARE_MLL(MLL_COMMON);

int main(void)
{
    char text[128] = "";
    FILE* out = fmemopen(text, sizeof text, "w");
    if (out == NULL) {
        return 1;
    }
    glog_init("log_only_test");
    log_timefmt(&g_log, f_NO_TIME);
    log_default(&g_log, out);
    log_err("%s %d\n", "line", 1);
    fclose(out);
    return strcmp(text, "(ERR)  line 1\n") != 0;
}
