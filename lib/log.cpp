// The log: levels, the line, its destinations and the rotation of files.
#include "log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <iterator>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

#include "detail/app_flags.h"
#include "detail/assertions.h"
#include "detail/kept_errno.h"
#include "detail/quick_format.h"
#include "detail/tmlock.h"
#include "timeop.h"

DECLARE_MLL(MLL_COMMON);

MV_APP_FLAG(g_sigctx);

int g_mod_ll[LL_MAX_MODULES];
int g_sec_ll[LL_MAX_SECTIONS];
struct log_ctx g_log = ZERO_LOG;
struct log_ctx g_access_log = ZERO_LOG;
struct log_ctx g_stats_log = ZERO_LOG;

namespace {

using mv::KeptErrno;

// What goes wrong here is told on stderr: a line of the log would come back to where it failed. Lines are
// logged only where a log is open again. Under these names the steps of a line and of a rotation report.
constexpr char kLogWrite[] = "log_write";
constexpr char kLogRotate[] = "log_rotate";

constexpr size_t kLineMax = 2048;
constexpr int kFrames = 16;
// The longest name that a log stores, a dot and the 20 digits of a time fit.
constexpr size_t kRotatedNameMax = 160;
constexpr size_t kMovedNameMax = 128;

struct log_module_ctx {
    bool is_ready;
    char app_tag[128];
};

log_module_ctx g_logmod;
// Static: a line asks for no memory, and so can tell that there is none.
char g_outbuf[kLineMax];
char g_sigbuf[kLineMax]; // of a handler, so that the line it interrupts stays whole

// A rotation in progress. Its lines go to g_log, whose hook may rotate further logs: the ones in progress
// make a chain, and a log in it does not rotate again for the lines that its own rotation brings.
class Rotation {
  public:
    explicit Rotation(const struct log_ctx* log) : log_(log), outer_(std::exchange(innermost, this)) {}

    Rotation(const Rotation&) = delete;
    Rotation& operator=(const Rotation&) = delete;

    ~Rotation() { innermost = outer_; }

    static bool is_of(const struct log_ctx* log)
    {
        const Rotation* rotation = innermost;
        while (rotation != nullptr && rotation->log_ != log) {
            rotation = rotation->outer_;
        }
        return rotation != nullptr;
    }

  private:
    static Rotation* innermost;

    const struct log_ctx* log_;
    Rotation* outer_;
};

Rotation* Rotation::innermost = nullptr;

struct LevelName {
    const char* tag;
    const char* name;
    int syslog_pri;
};

// Kept: the spelling of "ctitical", which scripts match. The order is that of the levels from PANIC_level on,
// by which a row is found. Not LOG_EMERG: syslog daemons show that to everybody who is logged in.
constexpr LevelName kLevels[] = {
    {"(PNC)", "panic", LOG_ALERT},     {"(ERR)", "error", LOG_ERR},     {"(CRI)", "ctitical", LOG_CRIT},
    {"(WRN)", "warning", LOG_WARNING}, {"(NRM)", "normal", LOG_NOTICE}, {"(INF)", "info", LOG_INFO},
    {"(DBG)", "debug", LOG_DEBUG},
};
constexpr LevelName kSection = {"(SCT)", "section", LOG_DEBUG};
constexpr LevelName kNoLevel = {"( ? )", "??", LOG_DEBUG};
// Of each tag above.
constexpr size_t kTagLength = 5;

static_assert(std::size(kLevels) == DEBUG_level - PANIC_level + 1, "one row a level");

const LevelName& level_name(int level)
{
    if (level >= PANIC_level && level <= DEBUG_level) {
        return kLevels[level - PANIC_level];
    }
    return level == SECTION_level ? kSection : kNoLevel;
}

int flags2clock(uint32_t flags)
{
    switch (flags & f_TIMER_ID) {
    case f_REALTIME_TIMER: return CLOCK_REALTIME;
    case f_MONOTONIC_TIMER: return CLOCK_MONOTONIC;
    default: break;
    }
    fprintf(stderr, "%s: unsupported timer value: %u\n", __func__, flags & f_TIMER_ID);
    return -1;
}

// The line that is being built: the place of the next byte and the room behind it. One byte of the buffer is
// held back for the terminator of output().
struct Line {
    char* start;
    char* at;
    size_t room;

    explicit Line(char* buffer) : start(buffer), at(buffer), room(kLineMax - 1) {}

    void advance(size_t count)
    {
        at += count;
        room -= count;
    }

    // Puts a field and the two blanks behind it. The bytes put without the last blank; negated if they do
    // not fit.
    int put_field(const char* text, size_t length)
    {
        const int n = static_cast<int>(length + 1);
        if (length + 1 >= room) {
            return -n;
        }
        memcpy(at, text, length);
        at[length] = ' ';
        at[length + 1] = ' ';
        advance(length + 2);
        return n;
    }
};

bool put_time(const struct log_ctx* log, Line& line)
{
    const int clk = flags2clock(log->time_format);
    struct timespec now;
    if (clk < 0) {
        return false;
    }
    if (clock_gettime(clk, &now) != 0) {
        perror("clock_gettime");
        return false;
    }
    // Below zero too where a handler came in the middle of a conversion: its line is lost here rather than
    // wait for a lock of libc that the interrupted code holds.
    const ssize_t n = mk_timestr(&now, log->time_format, line.at, line.room);
    if (n <= 0 || static_cast<size_t>(n) >= line.room) {
        fprintf(stderr, "%s: time buffer error (n=%d)\n", kLogWrite, static_cast<int>(n));
        return false;
    }
    line.at[n] = ' ';
    line.advance(static_cast<size_t>(n) + 1);
    return true;
}

// By hand, as put_number: a conversion of printf costs more than the rest of the header.
bool put_pid(const struct log_ctx* log, Line& line)
{
    if (log->pid <= 0) {
        return true;
    }
    // The digits of the greatest pid_t.
    char digits[10];
    char* const end = std::end(digits);
    char* at = end;
    for (pid_t rest = log->pid; rest != 0; rest /= 10) {
        *--at = static_cast<char>('0' + rest % 10);
    }
    const int n = line.put_field(at, static_cast<size_t>(end - at));
    if (n < 0) {
        fprintf(stderr, "%s: pid buffer error (n=%d)", kLogWrite, -n);
        return false;
    }
    return true;
}

bool put_level(int level, Line& line)
{
    if (level <= MIN_level) {
        return true;
    }
    const int n = line.put_field(level_name(level).tag, kTagLength);
    if (n < 0) {
        fprintf(stderr, "%s: level buffer error (n=%d)", kLogWrite, -n);
        return false;
    }
    return true;
}

bool put_group(const struct log_ctx* log, Line& line)
{
    if (log->group.num64 == 0) {
        return true;
    }
    // The number is a text of up to seven characters, and this is its terminator.
    assert(log->group.sym8[7] == 0);
    const int n = line.put_field(log->group.sym8, strlen(log->group.sym8));
    if (n < 0) {
        fprintf(stderr, "%s: group buffer error (n=%d)", kLogWrite, -n);
        return false;
    }
    return true;
}

// MV_PRINTF with 0: the format is checked, its arguments come as a list and cannot be.
MV_PRINTF(2, 0) bool put_message(Line& line, const char* fmt, va_list args)
{
    const int n = mv::quick_format(line.at, line.room, fmt, args);
    if (n <= 0 || static_cast<size_t>(n) >= line.room) {
        perror("fprintf/vfprintf");
        return false;
    }
    line.advance(static_cast<size_t>(n));
    return true;
}

bool put_header(const struct log_ctx* log, int level, Line& line)
{
    if ((log->time_format & f_NO_TIME) == 0 && !(put_time(log, line) && put_pid(log, line))) {
        return false;
    }
    return put_level(level, line) && put_group(log, line);
}

void output(struct log_ctx* log, const Line& line)
{
    *line.at = 0;
    // Kept: a zero byte in the message ends what is written, not what is counted. Unlocked: a log belongs to
    // one thread.
    fputs_unlocked(line.start, log->fp);
    log->total_out += static_cast<size_t>(line.at - line.start);
    if (log->mirror_fp != nullptr && fileno(log->mirror_fp) != fileno(log->fp)) {
        fputs_unlocked(line.start, log->mirror_fp);
    }
}

bool must_rotate(const struct log_ctx* log)
{
    return log->rota.max_total != 0 && log->total_out >= log->rota.max_total && log->fp != stdout &&
           log->fp != stderr && !Rotation::is_of(log);
}

// ---- destinations ------------------------------------------------------------------------------

// Opens file or pipe as log->is_pipe says. 0 or -1; on -1 the log is closed, but as it was if the path is too
// long.
int do_open(struct log_ctx* log, const char* filecmd)
{
    assert(g_logmod.is_ready);
    // The old stream is not closed: it may be stderr, or gone with a rotation, and log_close is the caller's
    // to call.
    if (filecmd == nullptr) {
        log->fp = stderr;
        log->is_dead = 0;
    } else {
        if (strlen(filecmd) > LOG_PATHNAME_MAX) {
            fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n",
                    static_cast<long>(LOG_PATHNAME_MAX));
            return -1;
        }
        // Stored at once: where it fails the log is closed, and lines are dropped without a look at anything
        // else. "a": the kernel puts each line at the end, also after somebody else has written to the file
        // or cut it. NOLINTNEXTLINE(cert-env33-c): a command is the application's own, as it was given.
        log->fp = log->is_pipe != 0 ? popen(filecmd, "w") : fopen(filecmd, "a+");
        log->is_dead = 0;
        if (log->fp == nullptr) {
            const KeptErrno e;
            fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", __func__,
                    static_cast<long>(geteuid()), static_cast<long>(getegid()),
                    log->is_pipe != 0 ? "popen" : "fopen", filecmd, e.number(), e.text());
            return -1;
        }
        if (filecmd != log->name) {
            // Kept: a path of 128 characters is open already and stored cut.
            strncpy(log->name, filecmd, LOG_PATHNAME_MAX - 1);
            log->name[LOG_PATHNAME_MAX - 1] = 0;
        }
        // No line may be lost with a process that crashes, and a line is written by one call all the same.
        setvbuf(log->fp, nullptr, log->is_pipe != 0 ? _IOLBF : _IONBF, 0);
    }
    log->total_out = 0; // of a pipe nothing is known, and nothing rotates
    if (log->is_pipe == 0 && log->fp != stderr && log->fp != stdout) {
        struct stat st;
        if (fstat(fileno(log->fp), &st) == 0) {
            log->total_out = static_cast<size_t>(st.st_size);
        } else {
            const KeptErrno e;
            log_err("%s: fstat(%s) ERROR(%d): %s\n", __func__, log->name, e.number(), e.text());
        }
    }
    return 0;
}

// Renames a regular file of some length out of the way, after its modification time. stat() looks through a
// symbolic link and rename() moves the link itself. log_open does not look at the result: what could not be
// moved is continued.
int move_if_present(const char* fpath)
{
    // What is no regular file (/dev/null, a terminal) or empty stays where it is and is used.
    struct stat st;
    if (stat(fpath, &st) != 0) {
        const KeptErrno e;
        if (e.number() == ENOENT) {
            return 0;
        }
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", fpath, e.number(), e.text());
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size == 0) {
        return 0;
    }
    char moved[kMovedNameMax]; // Kept: the limit is one less, so a name of 127 characters loses its last
    const int n =
        snprintf(moved, kMovedNameMax - 1, "%s.%lu", fpath, static_cast<unsigned long>(st.st_mtime));
    if (n > static_cast<int>(kMovedNameMax - 1)) {
        return E2BIG;
    }
    const int rc = rename(fpath, moved);
    if (rc != 0) {
        const KeptErrno e;
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", fpath, moved, e.number(), e.text());
    }
    return rc;
}

// Name of the file that was rotated at a time; false, with a line on stderr, if it does not fit.
bool rotated_name(const struct log_ctx* log, const char* caller, time_t tm, char (&name)[kRotatedNameMax])
{
    const int n = snprintf(name, kRotatedNameMax, "%s.%lu", log->name, static_cast<unsigned long>(tm));
    if (n > static_cast<int>(kRotatedNameMax - 1)) {
        fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", caller, n,
                static_cast<unsigned long>(kRotatedNameMax - 1));
        return false;
    }
    return true;
}

// Enters a rotated file into the ring; the file whose place it takes is deleted. Kept: also where that is the
// same name, of a rotation in the same second.
void handle_rotation(struct log_ctx* log, time_t now, const char* prev_log)
{
    struct rotation_ctx& rota = log->rota;
    // max_idx may have become smaller since the last rotation.
    if (rota.next_idx < 0 || static_cast<size_t>(rota.next_idx) >= rota.max_idx) {
        rota.next_idx = 0;
    }
    const ssize_t idx = rota.next_idx++;
    // To g_log, whichever log it was that rotated.
    log_norm("[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", g_logmod.app_tag, prev_log,
             static_cast<long>(now), static_cast<long>(idx));
    if (rota.tm[idx] != 0) {
        char oldest[kRotatedNameMax];
        if (!rotated_name(log, __func__, rota.tm[idx], oldest)) {
            return;
        }
        if (unlink(oldest) == 0) {
            log_dbg("%s: replaced %s with %s.%lu\n", __func__, oldest, log->name,
                    static_cast<unsigned long>(now));
        } else {
            const KeptErrno e;
            log_err("%s: unlink(%s) ERROR(%d) : %s\n", __func__, oldest, e.number(), e.text());
        }
    }
    rota.tm[idx] = now;
}

// Whether the log is one that can be rotated; says on stderr why not. The result of log_rotate goes to rc.
bool can_rotate(const struct log_ctx* log, int& rc)
{
    rc = -1;
    if (log->name[0] == 0) {
        fprintf(stderr, "%s: nothing to rotate.\n", kLogRotate);
        rc = 0;
    } else if (log->fp == stdout || log->fp == stderr) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", kLogRotate);
    } else if (log->is_pipe != 0 || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", kLogRotate);
    } else {
        return true;
    }
    return false;
}

// Closes the stream for a rotation. One that cannot be closed is gone all the same: it must not be used
// again.
bool close_for_rotation(struct log_ctx* log)
{
    if (log->is_dead != 0 || log->fp == nullptr) {
        errno = EBADF;
    } else if (fclose(log->fp) == 0) {
        return true;
    }
    const KeptErrno e;
    fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", kLogRotate, log->name, e.number(), e.text());
    log->is_dead = -1;
    return false;
}

int rotate(struct log_ctx* log)
{
    int rc = 0;
    if (!can_rotate(log, rc)) {
        return rc;
    }
    // One reading for name, ring and line: the second may change in between.
    const time_t now = time(nullptr);
    char new_name[kRotatedNameMax];
    if (!rotated_name(log, kLogRotate, now, new_name) || !close_for_rotation(log)) {
        return -1;
    }
    // A failed rename is kept as a text until the log is open again and can take it.
    char errmsg[LOG_ERRMSG_MAX] = "";
    const bool renamed = rename(log->name, new_name) == 0;
    if (!renamed) {
        const KeptErrno e;
        snprintf(errmsg, LOG_ERRMSG_MAX - 1, "%s: failed to rename [%s] to [%s], ERROR(%d): %s", kLogRotate,
                 log->name, new_name, e.number(), e.text());
        fprintf(stderr, "%s - rotation is to be stopped\n", errmsg);
    }
    rc = do_open(log, log->name);
    if (rc != 0) {
        return rc;
    }
    if (!renamed) {
        // From 0, though the file is as long as it was: by its length every further line would try to rotate.
        log->total_out = 0;
        log_err("%s: %s - rotation cancelled this time\n", kLogRotate, errmsg);
        return 0;
    }
    // Behind the opening, so that its lines go to the new file.
    if (log->rota.max_idx != 0) {
        handle_rotation(log, now, new_name);
    }
    return 0;
}

} // namespace

void mll_sect_pushset(struct loglevel_ctx* ctx, int idx)
{
    // sec_sp is the index of the section saved last, -1 for none.
    ASSERT(ctx->sec_sp < LL_STACK_DEPTH - 1);
    ASSERT(idx >= 0 && idx < LL_MAX_SECTIONS);
    ctx->sec_stack[++ctx->sec_sp] = ctx->sec;
    ctx->sec = idx;
}

void mll_sect_pop(struct loglevel_ctx* ctx)
{
    ASSERT(ctx->sec_sp >= 0);
    ctx->sec = ctx->sec_stack[ctx->sec_sp--];
}

// A failed ASSERT ends in the words of assert(), which callers look for.
void log_assert_failed(const char* file, unsigned int line, const char* func)
{
    __assert_fail("0", file, line, func);
}

void glog_init(const char* app_tag)
{
    assert(app_tag != nullptr);
    strncpy(g_logmod.app_tag, app_tag, sizeof g_logmod.app_tag - 1);
    g_logmod.app_tag[sizeof g_logmod.app_tag - 1] = 0;
    g_logmod.is_ready = true;
    // The first call of backtrace() loads a library and allocates: not something for the middle of a panic.
    void* frames[kFrames];
    backtrace(frames, kFrames);
}

void log_write(struct log_ctx* log, int level, const char* fmt, ...)
{
    if (log->fp == nullptr || log->is_dead != 0) {
        return;
    }
    const bool in_handler = g_sigctx != 0; // read once: a handler may come and go while the line is made
    Line line(in_handler ? g_sigbuf : g_outbuf);
    va_list args;
    va_start(args, fmt);
    const bool complete = put_header(log, level, line) && put_message(line, fmt, args);
    va_end(args);
    if (!complete) {
        return;
    }
    output(log, line);
    if (in_handler) {
        return; // syslog takes a lock, a hook may do anything, a rotation closes what is being written
    }
    if (level < 0 && log->use_syslog != 0) {
        const mv::SyslogMark mark; // libc stamps the message with local time
        va_start(args, fmt);       // anew: the list was used up by the line
        // With its facility in each message, so that an openlog() of the application does not move the lines.
        vsyslog(get_syslog_pri(level) | LOG_LOCAL0, fmt, args);
        va_end(args);
    }
    if (log->hook_cb != nullptr && level <= INFO_level) {
        log->hook_cb(log->hook_udata, line.start);
    }
    if (must_rotate(log)) {
        log_rotate(log);
    }
}

void log_default(struct log_ctx* log, FILE* fp)
{
    log->fp = fp;
    log->is_dead = 0;
    // Above DEBUG_level: the gate keeps sections shut until their level, or a module's, is set otherwise.
    if (log == &g_log && log->llst.sec_ll_set == 0) {
        log_set_sections(log, SECTION_level);
    }
}

void log_set_sections(struct log_ctx* log, int level)
{
    for (int& entry : g_sec_ll) {
        entry = level;
    }
    log->llst.sec_ll_set = -1;
}

void log_set_modules(struct log_ctx* log, int level)
{
    for (int& entry : g_mod_ll) {
        entry = level;
    }
    log->llst.mod_ll_set = -1;
}

void log_mirror(struct log_ctx* log, FILE* fp)
{
    log->mirror_fp = fp;
    if (fp != nullptr) {
        setvbuf(fp, nullptr, _IOLBF, 0);
    }
}

FILE* log_mirror_fp(struct log_ctx* log)
{
    return log->mirror_fp;
}

FILE* log_fp(struct log_ctx* log)
{
    return log->is_dead != 0 ? nullptr : log->fp;
}

void log_set_pid(struct log_ctx* log, pid_t pid)
{
    log->pid = pid;
}

pid_t log_get_pid(const struct log_ctx* log)
{
    return log->pid;
}

void log_set_group(struct log_ctx* log, uint64_t group_id)
{
    log->group.num64 = group_id;
}

uint64_t log_get_group(const struct log_ctx* log)
{
    return log->group.num64;
}

void log_timefmt(struct log_ctx* log, uint32_t flags)
{
    log->time_format = flags;
}

void log_set_hook(struct log_ctx* log, void* udata, loghook_cb_t hook_func)
{
    log->hook_udata = udata;
    log->hook_cb = hook_func;
}

const char* log_level_str(int level)
{
    return level_name(level).name;
}

int get_syslog_pri(int level)
{
    return level_name(level).syslog_pri;
}

int match_log_level(const char* str, int* level)
{
    // No word for PANIC_level, at which a log would not even show errors.
    static constexpr struct {
        const char* word;
        int level;
    } kWords[] = {
        {"err", ERR_level},      {"error", ERR_level},    {"crit", CRIT_level}, {"critical", CRIT_level},
        {"warn", WARN_level},    {"warning", WARN_level}, {"norm", NORM_level}, {"normal", NORM_level},
        {"info", INFO_level},    {"debug", DEBUG_level},  {"dbg", DEBUG_level}, {"section", SECTION_level},
        {"sect", SECTION_level},
    };

    for (const auto& entry : kWords) {
        if (strcasecmp(str, entry.word) == 0) {
            *level = entry.level;
            return 0;
        }
    }
    return -1;
}

int read_level_env(const char* varname, int default_level)
{
    const char* text = getenv(varname);
    if (text == nullptr) {
        return default_level;
    }
    // strtol() gives 0 for a text without digits as well: only the plain "0" is taken for the number.
    const int number = static_cast<int>(strtol(text, nullptr, 10));
    if (number != 0) {
        return number;
    }
    return strcmp(text, "0") == 0 ? 0 : default_level;
}

int btrace_to_buf(char* buf, size_t buflen)
{
    // backtrace() does not promise to set errno, so an old number must not be printed for it.
    void* frames[kFrames];
    errno = 0;
    const int count = backtrace(frames, kFrames);
    if (count <= 0) {
        if (errno != 0) {
            perror("backtrace");
        }
        return -1;
    }
    char** symbols = backtrace_symbols(frames, count);
    if (symbols == nullptr) {
        perror("backtrace_symbols");
        return -1;
    }
    // Signed: snprintf tells what it would have written, and room below zero is the sign that it was cut.
    ssize_t room = static_cast<ssize_t>(buflen);
    for (int i = 0; i < count && room > 0; ++i) {
        const int n = snprintf(buf, static_cast<size_t>(room), "#%d: %s\n", i, symbols[i]);
        room -= n;
        if (n < 0 || room <= 0) {
            break;
        }
        buf += n;
    }
    // One block holds the pointers and the texts.
    free(symbols);
    return 0;
}

int snprintf_btrace(char* buf, size_t buflen, const char* fmt, ...)
{
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        const int n = vsnprintf(buf, buflen, fmt, args);
        va_end(args);
        if (n < 1 || static_cast<size_t>(n) >= buflen) {
            return -1;
        }
        buf += n;
        buflen -= static_cast<size_t>(n);
    }
    return btrace_to_buf(buf, buflen);
}

int log_open(struct log_ctx* log, const char* filename)
{
    log->is_pipe = 0;
    if (!log->append_old && filename != nullptr) {
        move_if_present(filename);
    }
    return do_open(log, filename);
}

int log_popen(struct log_ctx* log, const char* cmd)
{
    log->is_pipe = -1;
    return do_open(log, cmd);
}

void log_append_old(struct log_ctx* ctx)
{
    ctx->append_old = true;
}

void glog_enable_syslog(const char* app)
{
    openlog(app, LOG_PID | LOG_CONS, LOG_LOCAL0);
    g_log.use_syslog = -1;
}

void glog_disable_syslog(void)
{
    closelog();
    g_log.use_syslog = 0;
}

void log_set_rota(struct log_ctx* log, size_t maxsize, size_t maxfiles)
{
    constexpr size_t kDefaultFiles = 16;
    log->rota.max_total = maxsize;
    log->rota.max_idx = maxfiles >= 1 && maxfiles < MAX_CYCLIC_ROTATIONS ? maxfiles : kDefaultFiles;
}

size_t log_rota_maxfiles(struct log_ctx* log)
{
    return log->rota.max_idx;
}

size_t log_rota_maxsize(struct log_ctx* log)
{
    return log->rota.max_total;
}

int log_rotate(struct log_ctx* log)
{
    const Rotation rotation(log);
    return rotate(log);
}

void log_close(struct log_ctx* log)
{
    if (log->fp == nullptr || log->fp == stdout || log->fp == stderr || log->is_dead != 0) {
        return;
    }
    const bool is_pipe = log->is_pipe != 0;
    const int rc = is_pipe ? pclose(log->fp) : fclose(log->fp);
    const KeptErrno e;
    // Where SIGCHLD is ignored the kernel reaps the command by itself, and pclose() finds no child: no
    // failure.
    if (rc < 0 && !(is_pipe && e.number() == ECHILD)) {
        fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", __func__,
                is_pipe ? "pclose" : "fclose", e.number(), e.text());
    }
    // Kept: fp stays in the record; the log must not be used any more.
    if (log->use_syslog != 0) {
        closelog();
    }
}
