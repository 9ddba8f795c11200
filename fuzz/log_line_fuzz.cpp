// Lines of a log with any header, level, clock and message, each held against a line that is put together
// here: the time by counting days, the message by the C library. Input, for each line: a byte for its fields,
// one for the time's form, one for the level, a process id, a group, a time, a byte for the conversions, then
// their arguments. The whole input is taken for the name of a level too, and behind 'b' and a size for what
// goes in front of a trace of calls.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include "log.h"
#include "stream_input.h"
#include "wrap.h"

WRAPPED(int, clock_gettime, (clockid_t clock, timespec* now));

namespace {

using fuzz::demand;

constexpr size_t kLongestLine = 2046;

bool g_asked = false; // for the time of a line
timespec g_now;
clockid_t g_clock;

// A stream to memory that can be read back and emptied.
class Sink {
  public:
    explicit Sink(const char* name) : fp_(fdopen(memfd_create(name, 0), "w")) { demand(fp_ != nullptr); }

    FILE* fp() const { return fp_; }

    std::string take() const
    {
        fflush(fp_);
        std::string text(static_cast<size_t>(lseek(fileno(fp_), 0, SEEK_CUR)), 0);
        demand(pread(fileno(fp_), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
        demand(ftruncate(fileno(fp_), 0) == 0);
        rewind(fp_);
        return text;
    }

  private:
    FILE* fp_;
};

struct Fields {
    uint8_t flags;
    uint32_t form;
    int level;
    pid_t pid;
    n64_tag group;
};

std::string digits(int64_t number, size_t width)
{
    std::string text = std::to_string(number);
    return text.size() < width ? std::string(width - text.size(), '0') + text : text;
}

bool is_leap(int64_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// "YYYY-MM-DD", a year and a month at a time.
std::string date_of(int64_t days)
{
    int64_t year = 1970;
    for (; days >= (is_leap(year) ? 366 : 365); ++year) {
        days -= is_leap(year) ? 366 : 365;
    }
    const int lengths[] = {31, is_leap(year) ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int month = 0;
    for (; days >= lengths[month]; ++month) {
        days -= lengths[month];
    }
    return digits(year, 4) + "-" + digits(month + 1, 2) + "-" + digits(days + 1, 2);
}

std::string time_text(uint32_t form)
{
    const std::string fraction = "." + digits(g_now.tv_nsec / 1000, 6);
    if ((form & f_RAW_TIME) != 0) {
        return std::to_string(g_now.tv_sec) + fraction;
    }
    const int64_t second = g_now.tv_sec % 86400;
    return date_of(g_now.tv_sec / 86400) + " " + digits(second / 3600, 2) + ":" +
           digits(second / 60 % 60, 2) + ":" + digits(second % 60, 2) +
           ((form & f_FMT_SECONDS) != 0 ? "" : fraction) + " UTC";
}

std::string tag_of(int level)
{
    switch (level) {
    case -4: return "(PNC)";
    case -3: return "(ERR)";
    case -2: return "(CRI)";
    case -1: return "(WRN)";
    case 0: return "(NRM)";
    case 1: return "(INF)";
    case 2: return "(DBG)";
    case 64: return "(SCT)";
    default: return "( ? )";
    }
}

std::string header_of(const Fields& fields)
{
    std::string text;
    if ((fields.form & f_NO_TIME) == 0) {
        text = time_text(fields.form) + " ";
        if (fields.pid > 0) {
            text += std::to_string(fields.pid) + "  ";
        }
    }
    if (fields.level > -127) {
        text += tag_of(fields.level) + "  ";
    }
    if (fields.group.num64 != 0) {
        text += std::string(fields.group.sym8) + "  ";
    }
    return text;
}

struct Arguments {
    std::string first, last;
    int number;
    unsigned plain;
    long wide;
    unsigned long big;
};

// A format of up to six conversions in the order of the arguments, the simple ones of the log and others.
std::string make_format(fuzz::Input& input)
{
    static const char* const kForms[6][3] = {{"%s", "%-7s", "%.3s"}, {"%d", "%5d", "%+d"},
                                             {"%u", "%x", "%%%u"},   {"%ld", "%012ld", "%lx"},
                                             {"%lu", "%lo", "%lX"},  {"%s", "[%40s]", "%.0s"}};
    std::string format;
    const size_t count = input.take<uint8_t>() % 7;
    for (size_t i = 0; i < count; ++i) {
        const auto choice = input.take<uint8_t>();
        if ((choice & 16) != 0) {
            format += "text ";
        }
        format += kForms[i][choice % 3];
    }
    return format + (count % 2 == 0 ? "\n" : "");
}

std::string text_argument(fuzz::Input& input)
{
    std::string text;
    const size_t repeat = input.take<uint8_t>();
    for (char c = 0; input.left() > 0 && (c = static_cast<char>(input.take<uint8_t>())) != 0;) {
        text.push_back(c);
    }
    const std::string once = text;
    for (size_t i = 0; i < repeat && text.size() < 4000; ++i) {
        text += once;
    }
    return text;
}

std::string g_hooked;
void* g_hook_data;

void hook(void* udata, const char* line)
{
    g_hooked += line;
    g_hook_data = udata;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

std::string by_libc(const std::string& format, const Arguments& a)
{
    std::string text(20'000, 0);
    const int n = snprintf(text.data(), text.size(), format.c_str(), a.first.c_str(), a.number, a.plain,
                           a.wide, a.big, a.last.c_str());
    text.resize(static_cast<size_t>(n));
    return text;
}

void write_line(log_ctx* log, const Fields& fields, const std::string& format, const Arguments& a)
{
    // Blocks of their own size: a byte too many is seen.
    const auto first = std::make_unique<char[]>(a.first.size() + 1);
    memcpy(first.get(), a.first.c_str(), a.first.size() + 1);
    log_write(log, fields.level, format.c_str(), first.get(), a.number, a.plain, a.wide, a.big,
              a.last.c_str());
}

#pragma GCC diagnostic pop

Fields take_fields(fuzz::Input& input)
{
    static const uint32_t kForms[] = {0,
                                      f_FMT_SECONDS,
                                      f_NO_TIME,
                                      f_GMT_TIME,
                                      f_RAW_TIME,
                                      f_GMT_TIME | f_FMT_SECONDS,
                                      f_MONOTONIC_TIMER,
                                      f_RAW_TIME | f_MONOTONIC_TIMER};
    Fields fields;
    fields.flags = input.take<uint8_t>();
    const auto form = input.take<uint8_t>();
    fields.form = kForms[form % 8] | (form >= 248 ? 2 : 0);
    fields.level = (input.take<uint8_t>() ^ 0x80) - 0x80; // a signed byte
    fields.pid = input.take<int32_t>();
    fields.group.num64 = (fields.flags & 1) != 0 ? input.take<uint64_t>() : 0;
    fields.group.sym8[7] = 0;
    g_now.tv_sec = static_cast<time_t>(input.take<uint64_t>() % (uint64_t{1} << 36));
    g_now.tv_nsec = static_cast<long>(input.take<uint32_t>() % 1'000'000'000);
    return fields;
}

void set_up(log_ctx* log, const Fields& fields, const Sink& file, const Sink& mirror)
{
    log_default(log, file.fp());
    log_mirror(log, (fields.flags & 2) == 0 ? nullptr : (fields.flags & 4) != 0 ? mirror.fp() : file.fp());
    log_timefmt(log, fields.form);
    log_set_pid(log, fields.pid);
    log_set_group(log, fields.group.num64);
    log_set_hook(log, log, (fields.flags & 8) != 0 ? hook : nullptr);
}

// What is to be written; nothing where a line is dropped whole.
std::string expected_line(const Fields& fields, const std::string& message)
{
    const bool timed = (fields.form & f_NO_TIME) == 0;
    if (message.empty() || (timed && (fields.form & f_TIMER_ID) >= 2)) {
        return "";
    }
    const std::string line = header_of(fields) + message;
    return line.size() <= kLongestLine ? line : "";
}

void try_line(log_ctx* log, fuzz::Input& input)
{
    static const Sink file("file"), mirror("mirror");
    const Fields fields = take_fields(input);
    const std::string format = make_format(input);
    Arguments a = {text_argument(input), "",
                   input.take<int>(),    input.take<unsigned>(),
                   input.take<long>(),   input.take<unsigned long>()};
    a.last = text_argument(input);
    set_up(log, fields, file, mirror);
    const std::string expected = expected_line(fields, by_libc(format, a));
    const size_t before = log->total_out;
    const bool in_handler = (fields.flags & 16) != 0;
    g_hooked.clear();
    g_clock = -1;
    g_sigctx = in_handler ? 1 : 0;
    g_asked = true;
    write_line(log, fields, format, a);
    g_asked = false;
    g_sigctx = 0;
    demand(file.take() == expected);
    demand(mirror.take() == ((fields.flags & 6) == 6 ? expected : ""));
    demand(log->total_out - before == expected.size());
    demand(g_hooked == ((fields.flags & 8) != 0 && fields.level <= 1 && !in_handler ? expected : ""));
    demand(g_hooked.empty() || g_hook_data == log);
    if ((fields.form & f_NO_TIME) == 0 && !expected.empty()) {
        demand(g_clock == ((fields.form & f_MONOTONIC_TIMER) != 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME));
    }
}

// The names of levels, each with the long and the short word.
void try_level_word(const std::string& text)
{
    static const char* const kWords[7][2] = {{"err", "error"},   {"crit", "critical"}, {"warn", "warning"},
                                             {"norm", "normal"}, {"info", "info"},     {"dbg", "debug"},
                                             {"sect", "section"}};
    int expected = 77;
    for (int i = 0; i < 7; ++i) {
        for (const char* word : kWords[i]) {
            expected = strcasecmp(word, text.c_str()) == 0 ? (i < 6 ? i - 3 : 64) : expected;
        }
    }
    int level = 77;
    const int rc = match_log_level(text.c_str(), &level);
    demand(level == expected && rc == (expected == 77 ? -1 : 0));
}

// A level from the environment: a text that begins with a number other than 0, or is "0".
void try_level_variable(const std::string& text)
{
    constexpr int kOtherwise = 42;
    unsetenv("FUZZ_LEVEL");
    demand(read_level_env("FUZZ_LEVEL", kOtherwise) == kOtherwise);
    setenv("FUZZ_LEVEL", text.c_str(), 1);
    size_t at = text.find_first_not_of(" \t\n\v\f\r");
    at = at == std::string::npos ? text.size() : at;
    const bool negative = at < text.size() && text[at] == '-';
    at += at < text.size() && (negative || text[at] == '+') ? 1 : 0;
    int number = 0;
    for (size_t digits = 0;
         digits < 9 && at < text.size() && isdigit(static_cast<unsigned char>(text[at])) != 0;
         ++digits, ++at) {
        number = number * 10 + (text[at] - '0');
    }
    const bool is_longer = at < text.size() && isdigit(static_cast<unsigned char>(text[at])) != 0;
    const int read = read_level_env("FUZZ_LEVEL", kOtherwise);
    if (!is_longer) {
        demand(read == (number != 0 ? (negative ? -number : number) : text == "0" ? 0 : kOtherwise));
    }
}

void try_level_number(int level)
{
    static const struct {
        int level;
        const char* name;
        int priority;
    } kLevels[] = {{-4, "panic", 1}, {-3, "error", 3}, {-2, "ctitical", 2}, {-1, "warning", 4},
                   {0, "normal", 5}, {1, "info", 6},   {2, "debug", 7},     {64, "section", 7}};

    std::string name = "??";
    int priority = 7;
    for (const auto& entry : kLevels) {
        if (entry.level == level) {
            name = entry.name;
            priority = entry.priority;
        }
    }
    demand(log_level_str(level) == name && get_syslog_pri(level) == priority);
}

// A trace in a block of its size, behind the text, which is there whole or not at all.
void try_trace(size_t room, const std::string& text)
{
    const auto block = std::make_unique<char[]>(room);
    const bool fits = !text.empty() && text.size() < room;
    const int rc = snprintf_btrace(block.get(), room, "%s", text.c_str());
    demand((rc == 0) == fits);
    demand(rc != 0 || text.compare(0, text.size(), block.get(), text.size()) == 0);
    demand(rc != 0 || memchr(block.get(), 0, room) != nullptr);
    demand(snprintf_btrace(block.get(), room, nullptr) == 0);
}

void try_words(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    try_level_word(text);
    try_level_variable(text);
    try_level_number((data[0] ^ 0x80) - 0x80); // a signed byte
    if (data[0] == 'b' && size > 1) {
        try_trace(data[1] * size_t{8}, text.size() > 2 ? text.substr(2) : "");
    }
}

bool set_zone()
{
    setenv("TZ", "UTC", 1);
    tzset();
    return true;
}

// What is dropped is told on stderr, which is not looked at.
// NOLINTNEXTLINE(cert-err58-cpp): a call of the C library throws nothing.
FILE* const g_nowhere = fopen("/dev/null", "w");

} // namespace

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    if (!g_asked) {
        return __real_clock_gettime(clock, now);
    }
    g_clock = clock;
    *now = g_now;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool zone_is_set = set_zone();
    demand(zone_is_set);
    FILE* const real_stderr = stderr;
    stderr = g_nowhere;
    fuzz::Input input(data, size);
    static log_ctx log;
    log = ZERO_LOG;
    for (int lines = 0; lines < 8 && input.left() > 0; ++lines) {
        try_line(&log, input);
    }
    if (size > 0) {
        try_words(data, size);
    }
    stderr = real_stderr;
    return 0;
}
