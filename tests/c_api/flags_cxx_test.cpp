// The same in C++: flags defined by the program, with the linkage that the headers declare.
#include <csignal>
#include <cstdio>
#include <string>

#include "gkh.h"
#include "log.h"

extern "C" {
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;
}

DECLARE_MLL(MLL_COMMON);

namespace {

void note(void* udata, const char* line)
{
    *static_cast<std::string*>(udata) += line;
}

} // namespace

int main()
{
    std::string seen;
    struct log_ctx zero = ZERO_LOG;
    g_log = zero;
    glog_init("flags_cxx_test");
    log_timefmt(&g_log, f_NO_TIME);
    log_default(&g_log, stdout);
    log_set_hook(&g_log, &seen, note);
    log_warn("%s\n", "one");
    g_sigctx = 1;
    log_warn("%s\n", "two");
    g_sigctx = 0;
    if (seen != "(WRN)  one\n") {
        fprintf(stderr, "the hook saw [%s]\n", seen.c_str());
        return 1;
    }
    skht_t table = 0;
    const char* keys[] = {"a", "b"};
    if (skht_create(&table, 4, nullptr, keys, 2) != 0 || skht_count(table) != 2) {
        fprintf(stderr, "the table is not made\n");
        return 1;
    }
    skht_destroy(table, nullptr);
    return 0;
}
