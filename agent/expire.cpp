// The end of groups of which no report is heard any more, while somebody asks for reports.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/time.h>

#include "log.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr const char* kCheck = "expire_groups"; // its stages speak for it

// Stored with a joined group in place of the mark.
struct Heard {
    int64_t at; // of the last report, in milliseconds of the monotonic clock
};

// Whether anybody asks. Times as in Heard.
struct Asking {
    bool running;       // a general query was heard within the limit
    int64_t last_query; // meaningful while running
    int64_t since;      // the first query after a silence: no group's age counts from before it
};

Asking g_asking;
volatile sig_atomic_t g_tick = 0; // a second has passed since the last check

// Monotonic: a step of the wall clock must not end groups, nor keep them.
int64_t now_ms()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

int64_t limit_ms()
{
    return static_cast<int64_t>(g_cfg.features.expire) * 1000;
}

void tell_state()
{
    if (g_asking.running) {
        log_info("expiry of groups is running: a general query was heard\n");
    } else {
        log_info("expiry of groups is suspended: no general query within %u s\n", g_cfg.features.expire);
    }
}

// Nobody has asked for so long that silence says nothing about the hosts.
void suspend_if_silent(int64_t now)
{
    if (g_asking.running && now - g_asking.last_query >= limit_ms()) {
        g_asking.running = false;
        tell_state();
    }
}

// A report before the silence may have gone unrepeated because nobody asked: its age begins with the first
// query.
bool is_over(const Heard& heard, int64_t now)
{
    const int64_t from = heard.at > g_asking.since ? heard.at : g_asking.since;
    return now - from >= limit_ms();
}

// The groups that are over: counted first, so that memory is asked for only where there are any.
struct Over {
    int64_t now;
    size_t count;
    long* keys; // NULL while they are counted
};

void note_over(const void* key, void* data, void* farg)
{
    auto* over = static_cast<Over*>(farg);
    if (!is_over(*static_cast<const Heard*>(data), over->now)) {
        return;
    }
    if (over->keys != nullptr) {
        over->keys[over->count] = reinterpret_cast<long>(key);
    }
    ++over->count;
}

// The table must not change under a walk: keys are collected first and removed afterwards.
void end_silent_groups(int64_t now)
{
    Over over = {now, 0, nullptr};
    nkht_iter(g_ctx.wgrp_ht, note_over, &over);
    if (over.count == 0) {
        return;
    }
    over.keys = static_cast<long*>(malloc(over.count * sizeof *over.keys));
    if (over.keys == nullptr) {
        log_err("%s: no memory to expire %lu groups, trying again\n", kCheck, over.count);
        return;
    }
    over.count = 0;
    nkht_iter(g_ctx.wgrp_ht, note_over, &over);
    for (size_t i = 0; i < over.count; ++i) {
        const int32_t group = group_of_key(over.keys[i]);
        log_dbg("%s: no report of %s for %u s\n", kCheck, group_text(group), g_cfg.features.expire);
        end_group(kCheck, group);
    }
    free(over.keys);
}

// Only a flag and the break of a wait: the groups are walked by the loop, not by the handler.
void on_tick(int)
{
    const int saved = errno;
    g_tick = 1;
    if (g_ctx.handle != nullptr) {
        pcap_breakloop(g_ctx.handle);
    }
    errno = saved;
}

int set_timer(time_t seconds)
{
    const struct itimerval every = {{seconds, 0}, {seconds, 0}};
    return setitimer(ITIMER_REAL, &every, nullptr);
}

} // namespace

int expire_start()
{
    g_asking = {};
    g_tick = 0;
    struct sigaction action = {};
    action.sa_handler = on_tick;
    action.sa_flags = SA_RESTART; // a write under way goes on: no line may be lost to a tick
    if (sigaction(SIGALRM, &action, nullptr) != 0 || set_timer(1) != 0) {
        const int err = errno;
        log_err("%s: no timer for the expiry of groups: ERROR(%d): %s\n", __func__, err, strerror(err));
        return -1;
    }
    tell_state();
    return 0;
}

void expire_stop()
{
    set_timer(0);
}

void note_general_query()
{
    const int64_t now = now_ms();
    suspend_if_silent(now);
    g_asking.last_query = now;
    if (!g_asking.running) {
        g_asking.running = true;
        g_asking.since = now;
        tell_state();
    }
}

// A group that is known costs a look and no memory: the record of its first report is written over.
int join_timed(long key)
{
    void* value = nullptr;
    const int rc = nkht_get(g_ctx.wgrp_ht, key, &value);
    if (rc == 0) {
        static_cast<Heard*>(value)->at = now_ms();
        return EBUSY;
    }
    auto* heard = static_cast<Heard*>(malloc(sizeof(Heard)));
    if (heard == nullptr) {
        return ENOMEM;
    }
    // Where the table takes it, it is freed with its group.
    heard->at = now_ms();
    value = heard;
    const int added = nkht_add(g_ctx.wgrp_ht, key, &value);
    if (added != 0) {
        free(heard);
    }
    return added;
}

void expire_groups()
{
    if (g_tick == 0) {
        return;
    }
    // Before the walk: a tick that comes during it is kept for the next wait.
    g_tick = 0;
    const int64_t now = now_ms();
    suspend_if_silent(now);
    if (g_asking.running) {
        end_silent_groups(now);
    }
}
