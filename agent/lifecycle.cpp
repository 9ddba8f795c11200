// Set-up and shutdown. The order of the steps, and the descriptors that they leave free, are part of the
// behaviour.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "log.h"
#include "util.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

struct app_cfg g_cfg;
struct app_ctx g_ctx;
const char* g_appname = "";

namespace {

constexpr const char* kSetUp = "app_setup"; // its stages speak for it
constexpr size_t kDirMax = 256;
constexpr size_t kExactGroups = 4096; // least room of the joined groups with the feature exact

int open_table(nkht_t* table, size_t capacity)
{
    const int rc = nkht_create(table, capacity, tw_shift);
    if (rc != 0) {
        log_err("%s: failed to create channel hastable\n", kSetUp);
    }
    return rc;
}

// A table with room for every group of the list in place of the usual one, while that is still empty.
int widen_table()
{
    const size_t listed = g_ctx.scope_ht != 0 ? nkht_count(g_ctx.scope_ht) : 0;
    nkht_t table = 0;
    const int rc = open_table(&table, std::clamp<size_t>(listed, kExactGroups, HT_MAX_CAP));
    if (rc == 0) {
        nkht_destroy(g_ctx.wgrp_ht, nullptr);
        g_ctx.wgrp_ht = table;
    }
    return rc;
}

// Into the background, then away from root: the capture is open, so its rights are needed no more.
int become_daemon()
{
    if (g_cfg.logfile == nullptr) {
        log_err("Logfile must be specified to run as daemon\n");
        return 1;
    }
    char cwd[kDirMax] = "";
    if (getcwd(cwd, kDirMax) == nullptr) {
        const int err = errno;
        log_err("getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }
    // Kept: the starter is told 0 here, whatever fails from now on: what comes after is in the log alone.
    int rc = daemonize();
    if (rc != 0) {
        log_default(&g_log, stderr);
        log_err("Failed to make the process a daemon, quitting.\n");
        return rc;
    }
    if (g_cfg.rt_user[0] != 0) {
        rc = run_as_user(g_cfg.rt_user);
    }
    if (rc == 0 && geteuid() != 0) {
        rc = goto_runtime_dir(cwd);
    }
    return rc;
}

// The log as the user of the daemon, in the directory of the daemon. Kept: with the umask of a daemon, 0, so
// that everybody may write to it. Kept: a link that stands at the path of an old log is moved aside itself,
// its target stays.
int open_log()
{
    if (g_cfg.logfile != nullptr) {
        const int rc = log_open(&g_log, g_cfg.logfile);
        if (rc != 0) {
            return rc;
        }
    }
    set_myloglevel(g_cfg.log_level);
    if (g_cfg.log_level > INFO_level) {
        log_mirror(&g_log, stderr);
    }
    log_set_pid(&g_log, getpid());
    return 0;
}

int settle_daemon()
{
    // Kept: nothing is put in its place. Descriptor 1 goes to the pid file, 2 to whatever is opened next.
    close(STDERR_FILENO);
    if (g_cfg.rt_user[0] != 0) {
        log_info("Running as user [%s]\n", g_cfg.rt_user);
    }
    const int rc = create_pidfile_extra(g_cfg.pidfile, getpid(), nullptr, 0);
    if (rc == 0) {
        glog_enable_syslog(g_appname);
    }
    return rc;
}

// The first step that fails ends it; app_shutdown() takes down what stands by then.
int set_up()
{
    int rc = pcap_setup(g_cfg.mifc);
    if (rc == 0) {
        rc = open_table(&g_ctx.wgrp_ht, MAX_ZENT_CHANNELS);
    }
    if (rc == 0 && !g_cfg.non_daemon) {
        rc = become_daemon();
    }
    if (rc == 0) {
        rc = open_log();
    }
    if (rc == 0 && !g_cfg.non_daemon) {
        rc = settle_daemon();
    }
    if (rc == 0 && g_cfg.grp_list_file != nullptr) {
        rc = load_group_list(g_cfg.grp_list_file);
    }
    if (rc == 0 && g_cfg.features.exact) {
        rc = widen_table();
    }
    if (rc == 0) {
        rc = reporter_setup();
    }
    return rc;
}

} // namespace

int app_setup()
{
    const int rc = set_up();
    if (rc != 0) {
        app_shutdown();
    }
    return rc;
}

void app_shutdown()
{
    if (g_ctx.handle != nullptr) {
        pcap_t* handle = g_ctx.handle;
        g_ctx.handle = nullptr; // a quit signal from here on must find no capture to break
        pcap_close(handle);
    }
    if (g_ctx.wgrp_ht != 0) {
        nkht_destroy(g_ctx.wgrp_ht, g_cfg.features.expire != 0 ? free : nullptr);
        g_ctx.wgrp_ht = 0;
    }
    if (g_ctx.rep.sockfd >= 0 && g_ctx.rep.usock.url_kind != 0) {
        usock_close(g_ctx.rep.sockfd, &g_ctx.rep.usock);
        g_ctx.rep.sockfd = -1;
    }
    if (g_ctx.rep.fp != nullptr && g_ctx.rep.fp != stdout && g_ctx.rep.fp != stderr) {
        fclose(g_ctx.rep.fp);
        g_ctx.rep.fp = nullptr;
    }
    if (g_cfg.pidfile[0] != 0) {
        // Kept: whoever made the file.
        unlink(g_cfg.pidfile);
    }
}
