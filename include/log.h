/*
 * log.h: levelled log lines for a file, a pipe, a stream, syslog and a hook.
 *
 * One call, log_write(), builds a line in one static buffer; one gate, the macro log_entry(), decides whether
 * it is called at all, by the level of the source file's module. Every source file that logs states its
 * module once, with DECLARE_MLL(slot) after its includes.
 *
 * The log never logs about itself: what goes wrong here is told on stderr. One thread; a signal handler may
 * log only while g_sigctx is non-zero (see log_write).
 *
 * Most of the library logs in the slot MLL_COMMON: an application that uses it for its own sources sets the
 * level of both at once. The slots of the library's other modules start at NORM_level and stay there until
 * somebody sets them (set_loglevel, log_set_modules).
 *
 * State: the three logs g_log, g_access_log and g_stats_log, the two tables of levels, a line buffer.
 *
 * g_log is also the name of a GLib function: the two headers cannot meet in one source file.
 */
#ifndef MORVANE_LOG_H
#define MORVANE_LOG_H

#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>

#include "libmeta.h"
#include "mvtypes.h"

MV_BEGIN_DECLS

/* Levels of a line; a lower number is more severe. ERR_level stands below CRIT_level on purpose: an error
 * that is reported to the caller is always shown, a critical condition only where the level lets it through.
 */
enum {
    MIN_level = -127, /* no tag in the line */
    PANIC_level = -4,
    ERR_level = -3,
    CRIT_level = -2,
    WARN_level = -1,
    NORM_level = 0,
    INFO_level = 1,
    DEBUG_level = 2,
    SECTION_level = 64
};

/* Sizes of the tables of levels, and depth of a file's stack of sections. */
enum { LL_MAX_MODULES = 128, LL_MAX_SECTIONS = 128, LL_STACK_DEPTH = 8 };

/* Sizes of a log's name and of a composed message about a rotation, and the greatest ring of rotated files.
 */
enum { LOG_PATHNAME_MAX = 128, LOG_ERRMSG_MAX = 256, MAX_CYCLIC_ROTATIONS = 128 };

/* Flags of log_timefmt(), and of mk_timestr() and scan_log_time() in timeop.h. */
enum {
    f_REALTIME_TIMER = 0,   /* CLOCK_REALTIME */
    f_MONOTONIC_TIMER = 1,  /* CLOCK_MONOTONIC */
    f_TIMER_ID = 3,         /* mask of the two clock bits; 2 and 3 are no clock and lose the line */
    f_FMT_SECONDS = 16,     /* whole seconds, no fraction */
    f_NO_TIME = 256,        /* neither time nor process id in the line */
    f_GMT_TIME = 512,       /* broken down as GMT; the zone's name stays that of the local zone */
    f_RAW_TIME = 1024,      /* seconds and microseconds since the epoch, as numbers */
    f_BAD_TIME = 1073741824 /* a marker for callers; nothing here sets or tests it */
};

/* g_mod_ll, g_sec_ll: level of each module slot and of each section; zeros (NORM_level) at start. */
extern int g_mod_ll[LL_MAX_MODULES];
extern int g_sec_ll[LL_MAX_SECTIONS];

/* loglevel_ctx: what one source file knows about its level. */
struct loglevel_ctx {
    int mod;                       /* module slot */
    int sec;                       /* open section, -1 for none */
    int sec_sp;                    /* top of sec_stack, -1 for empty */
    int sec_stack[LL_STACK_DEPTH]; /* sections that the open one interrupts */
};

/* DECLARE_MLL: states the module slot of a source file that logs. Once a file, at file scope. */
#define DECLARE_MLL(idx) static struct loglevel_ctx g_llctx __attribute__((unused)) = {(idx), -1, -1, {0}}

/* loghook_cb_t: called with each finished line up to INFO_level, header and line end included. The line
 * stands in the buffer of all lines: a hook that logs copies it first. */
typedef void (*loghook_cb_t)(void* udata, const char* line);

/* ll_status: which tables a log has set as a whole. */
struct ll_status {
    int mod_ll_set : 1;
    int sec_ll_set : 1;
};

/* rotation_ctx: rotation of a file log by size. */
struct rotation_ctx {
    time_t tm[MAX_CYCLIC_ROTATIONS]; /* ring: times in the names of the rotated files, 0 for an empty place */
    ssize_t next_idx;                /* next place in the ring */
    size_t max_idx;                  /* files to keep; 0: none is ever deleted */
    size_t max_total;                /* bytes at which log_write rotates; 0: never */
};

/* log_ctx: one log. Zero-initialise it (ZERO_LOG); fields are set by the calls below. */
struct log_ctx {
    char name[LOG_PATHNAME_MAX]; /* path or command; empty for a stream given to log_default */
    int is_pipe : 1;             /* opened by log_popen */
    int use_syslog : 1;          /* levels below 0 go to syslog too */
    int is_dead : 1;             /* private: fp could not be closed and must not be used any more */
    uint32_t time_format;        /* f_ flags */
    FILE* fp;                    /* NULL: closed, lines are dropped */
    FILE* mirror_fp;             /* second stream, borrowed; NULL for none */
    size_t total_out;            /* bytes of whole lines since the log was opened or rotated */
    struct ll_status llst;
    struct rotation_ctx rota;
    pid_t pid;           /* in each line; 0 or less: not printed */
    union n64_tag group; /* in each line; 0: not printed; the eighth byte must be 0 */
    bool append_old;     /* log_open continues a file that it finds */
    loghook_cb_t hook_cb;
    void* hook_udata;
};

/* ZERO_LOG: initial value of a log_ctx. */
#ifdef __cplusplus
#define ZERO_LOG                                                                                             \
    {                                                                                                        \
    }
#else
#define ZERO_LOG                                                                                             \
    {                                                                                                        \
        0                                                                                                    \
    }
#endif

/* g_log: the application's log, where the whole library logs. g_access_log, g_stats_log: for daemons that
 * keep them. In object files g_log is morvane_g_log: GLib has a function of that name. */
extern struct log_ctx g_log __asm__("morvane_g_log");
extern struct log_ctx g_access_log;
extern struct log_ctx g_stats_log;

/* g_sigctx: non-zero while a signal handler runs that logs. The application may define it; where it does not,
 * the library has one of its own. */
extern volatile sig_atomic_t g_sigctx;

/*
 * log_entry: writes a line of level ll to g_log if the gate is open; arguments are not evaluated otherwise.
 * Outside a section the module's level must be ll or more. Inside a section the level of the call plays no
 * part: the section's level must not exceed the module's.
 */
#define log_entry(ll, ...)                                                                                   \
    do {                                                                                                     \
        if (g_llctx.sec >= 0 ? g_sec_ll[g_llctx.sec] <= g_mod_ll[g_llctx.mod]                                \
                             : g_mod_ll[g_llctx.mod] >= (ll)) {                                              \
            log_write(&g_log, (ll), __VA_ARGS__);                                                            \
        }                                                                                                    \
    } while (0)

/* log_err ... log_dbg: log_entry with the level of that name. */
#define log_err(...) log_entry(ERR_level, __VA_ARGS__)
#define log_crit(...) log_entry(CRIT_level, __VA_ARGS__)
#define log_warn(...) log_entry(WARN_level, __VA_ARGS__)
#define log_norm(...) log_entry(NORM_level, __VA_ARGS__)
#define log_info(...) log_entry(INFO_level, __VA_ARGS__)
#define log_dbg(...) log_entry(DEBUG_level, __VA_ARGS__)

/* log_access, log_stats: ungated lines of g_access_log and g_stats_log, without a level tag. */
#define log_access(...) log_write(&g_access_log, MIN_level, __VA_ARGS__)
#define log_stats(...) log_write(&g_stats_log, MIN_level, __VA_ARGS__)

/* log_panic: logs the message and a back-trace at PANIC_level, flushes g_log and ends the process by abort().
 */
#define log_panic(...)                                                                                       \
    do {                                                                                                     \
        char frames[512];                                                                                    \
        log_entry(PANIC_level, __VA_ARGS__);                                                                 \
        if (0 == btrace_to_buf(frames, 511)) {                                                               \
            log_entry(PANIC_level, "Aborting at:\n%s==\n", frames);                                          \
        }                                                                                                    \
        fflush(log_fp(&g_log));                                                                              \
        abort();                                                                                             \
    } while (0)

/*
 * ASSERT: an invariant. If cond is 0: a back-trace at PANIC_level, then the end of the process as by
 * assert(0). It is active in every build, also where the including file is compiled with NDEBUG.
 */
#define ASSERT(cond)                                                                                         \
    do {                                                                                                     \
        if (!(cond)) {                                                                                       \
            char frames[512];                                                                                \
            if (0 == btrace_to_buf(frames, 511)) {                                                           \
                log_entry(PANIC_level, "ASSERT at:\n%s==\n", frames);                                        \
            }                                                                                                \
            fflush(log_fp(&g_log));                                                                          \
            log_assert_failed(__FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__);                        \
        }                                                                                                    \
    } while (0)

/* loglevel_is: whether the module's level, or the level of the open section, is a or more. Kept: not the
 * gate's test. */
#define loglevel_is(a) ((a) <= g_mod_ll[g_llctx.mod] || (g_llctx.sec >= 0 && g_sec_ll[g_llctx.sec] >= (a)))

/* Levels of modules: read slot a; read this file's slot; set this file's slot; set slot a. */
#define mod_loglevel(a) (g_mod_ll[(a)])
#define MLL_loglevel (g_mod_ll[g_llctx.mod])
#define set_myloglevel(b) (g_mod_ll[g_llctx.mod] = (b))
#define set_loglevel(a, b) (g_mod_ll[(a)] = (b))

/* Levels of sections: read; test for equality; set. */
#define sect_level(a) (g_sec_ll[(a)])
#define sect_level_is(a, b) ((b) == g_sec_ll[(a)])
#define set_sect_level(a, b) (g_sec_ll[(a)] = (b))

/* MLL_SECT_BEGIN, MLL_SECT_END: open section idx of this file; return to the one before. They nest
 * LL_STACK_DEPTH deep. */
#define MLL_SECT_BEGIN(idx) mll_sect_pushset(&g_llctx, (idx))
#define MLL_SECT_END() mll_sect_pop(&g_llctx)

/* mll_sect_pushset: saves ctx->sec and opens section idx. REQUIRES: fewer than LL_STACK_DEPTH sections saved;
 * idx in the table. */
void mll_sect_pushset(struct loglevel_ctx* ctx, int idx);

/* mll_sect_pop: returns to the section saved last. REQUIRES: a saved section. */
void mll_sect_pop(struct loglevel_ctx* ctx);

/* log_assert_failed: what ASSERT ends with: libc's report of assert(0) at the given place, and abort(). */
void log_assert_failed(const char* file, unsigned int line, const char* func) __attribute__((noreturn));

/* glog_init: names the application, at most 127 characters kept. Must come before log_open and log_popen.
 * REQUIRES: app_tag. */
void glog_init(const char* app_tag);

/*
 * log_write: formats one line and writes it to the log's stream, its mirror, syslog (levels below 0) and the
 * hook (levels up to 1). The line: time and a blank, process id and two blanks, level tag and two blanks,
 * group tag and two blanks, message. The caller's format ends it with "\n".
 *
 * A line has room for 2046 characters; a message that does not fit, and an empty one, is dropped whole with a
 * complaint on stderr. Nothing is allocated. While g_sigctx is set, syslog, hook and rotation are left out
 * and the line is built in a buffer of its own. Results of output calls are not looked at.
 */
void log_write(struct log_ctx* log, int level, const char* fmt, ...) MV_PRINTF(3, 4);

/* log_default: makes fp (borrowed) the stream. On g_log, all sections go to SECTION_level unless they were
 * set before. */
void log_default(struct log_ctx* log, FILE* fp);

/* log_set_sections, log_set_modules: set the level of all sections or modules; the log only notes that it was
 * done. */
void log_set_sections(struct log_ctx* log, int level);
void log_set_modules(struct log_ctx* log, int level);

/* log_mirror: a second stream for every line (borrowed, made line-buffered). A stream on the same descriptor
 * as fp gets no copy. */
void log_mirror(struct log_ctx* log, FILE* fp);

/* log_mirror_fp, log_fp: the streams, or NULL; log_fp also gives NULL for a stream that a rotation failed to
 * close. */
FILE* log_mirror_fp(struct log_ctx* log);
FILE* log_fp(struct log_ctx* log);

/* log_set_pid, log_get_pid: the process id in each line; 0 or less leaves the field out. */
void log_set_pid(struct log_ctx* log, pid_t pid);
pid_t log_get_pid(const struct log_ctx* log);

/* log_set_group, log_get_group: the group tag in each line, as the number of a union n64_tag whose eighth
 * byte is 0; 0 leaves the field out. */
void log_set_group(struct log_ctx* log, uint64_t group_id);
uint64_t log_get_group(const struct log_ctx* log);

/* log_timefmt: how the time of a line is written: f_ flags. */
void log_timefmt(struct log_ctx* log, uint32_t flags);

/* log_set_hook: hook_func is called with udata (both borrowed) for each line that is written, up to
 * INFO_level; NULL for no hook. It may log. */
void log_set_hook(struct log_ctx* log, void* udata, loghook_cb_t hook_func);

/* log_level_str: name of a level ("error", "info", ...), "??" for a number that is no level. Static text. */
const char* log_level_str(int level);

/* get_syslog_pri: the priority under which a level goes to syslog (syslog.h). */
int get_syslog_pri(int level);

/* match_log_level: reads the name of a level, ignoring case. 0, or -1 with *level as it was. */
int match_log_level(const char* str, int* level);

/* read_level_env: a level given as a number in environment variable varname; default_level if it is unset or
 * holds no number. */
int read_level_env(const char* varname, int default_level);

/* btrace_to_buf: up to 16 frames of the call stack as "#0: ...\n", innermost first, cut to the buffer. 0 or
 * -1. Allocates. */
int btrace_to_buf(char* buf, size_t buflen);

/* snprintf_btrace: a formatted text (none for a NULL fmt), then btrace_to_buf behind it. 0 or -1. */
int snprintf_btrace(char* buf, size_t buflen, const char* fmt, ...) MV_PRINTF(3, 4);

/*
 * log_open: opens a file for appending, unbuffered. A file of some length that stands at the path is first
 * renamed to "path.MTIME", unless log_append_old was called. A NULL path means stderr. 0, or -1 with a line
 * on stderr and the log closed. REQUIRES: glog_init. Paths of up to 128 characters open; one of exactly 128
 * is stored cut, and a longer one is refused with the log left as it was.
 */
int log_open(struct log_ctx* log, const char* filename);

/* log_popen: opens a pipe to a shell command, line-buffered. 0 or -1, as log_open. */
int log_popen(struct log_ctx* log, const char* cmd);

/* log_append_old: the next log_open continues the file that it finds. */
void log_append_old(struct log_ctx* ctx);

/* glog_enable_syslog, glog_disable_syslog: send levels below 0 of g_log to syslog as well (LOG_LOCAL0,
 * LOG_PID, LOG_CONS). app is borrowed for good. */
void glog_enable_syslog(const char* app);
void glog_disable_syslog(void);

/* log_set_rota: rotate at maxsize bytes (0: never) and keep maxfiles old files; a number outside 1 to 127
 * means 16. Files of earlier runs are never removed: the ring lives in memory. */
void log_set_rota(struct log_ctx* log, size_t maxsize, size_t maxfiles);

/* log_rota_maxfiles, log_rota_maxsize: what log_set_rota has set; 0 before. */
size_t log_rota_maxfiles(struct log_ctx* log);
size_t log_rota_maxsize(struct log_ctx* log);

/*
 * log_rotate: renames the log's file to "name.NOW", seconds since the epoch, opens a new one and deletes the
 * oldest of the ring. 0, also where there is nothing to rotate or the rename failed (the log then goes on in
 * the same file); -1 for streams and pipes, or if the file cannot be closed or opened again: then the log
 * stays closed. Two rotations within one second use the same name: the file of the second replaces that of
 * the first, whose lines are lost.
 */
int log_rotate(struct log_ctx* log);

/* log_close: closes file or pipe. The log must not be written to afterwards, nor closed again. Streams are
 * left alone. */
void log_close(struct log_ctx* log);

MV_END_DECLS

#endif
