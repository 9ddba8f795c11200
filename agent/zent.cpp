// main(): options, set-up, run, shutdown, and what the application owes the library.
#include "zent.h"

#include "log.h"
#include "util.h"

DECLARE_MLL(MLL_COMMON);

// What the application owes the library; the agent itself reads g_quit alone.
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;

int main(int argc, char** argv)
{
    g_appname = argc > 0 ? get_base(argv[0]) : "zent";
    if (argc < 2) {
        usage();
    }
    if (read_features() != 0) {
        return 2; // nothing stands yet that would have to be taken down
    }
    glog_init(g_appname);
    setlinebuf(stdout);
    log_default(&g_log, stderr);
    set_myloglevel(DEBUG_level); // until the log stands, everything is shown

    int rc = app_getcfg(argc, const_cast<const char**>(argv));
    if (rc == 0) {
        rc = app_setup();
    }
    if (rc == 0) {
        set_myloglevel(g_cfg.log_level);
        rc = app_run();
    }
    if (rc < 0) {
        rc = 2;
    }
    log_info("%s is exiting with rc=%d\n", g_appname, rc);
    app_shutdown();
    return rc;
}
