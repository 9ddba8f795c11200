// Levels: the gate, sections, names, the environment, and the two ends of a process.
#include "log.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <string>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "logcap.h"
#include "match.h"
#include "util.h"

namespace {

constexpr int kSlot = 9;

} // namespace

DECLARE_MLL(kSlot);

namespace {

using support::ChildResult;
using support::expect_abort;
using support::LogCapture;
using support::run_in_child;

struct LevelRow {
    int level;
    const char* tag;
    const char* name;
    int pri;
};

const LevelRow kRows[] = {
    {PANIC_level, "(PNC)", "panic", 1},   {ERR_level, "(ERR)", "error", 3},
    {CRIT_level, "(CRI)", "ctitical", 2}, {WARN_level, "(WRN)", "warning", 4},
    {NORM_level, "(NRM)", "normal", 5},   {INFO_level, "(INF)", "info", 6},
    {DEBUG_level, "(DBG)", "debug", 7},   {SECTION_level, "(SCT)", "section", 7},
};

int g_evaluated = 0;

int evaluated()
{
    return ++g_evaluated;
}

// Puts the file's record back to no section.
void leave_sections()
{
    g_llctx.sec = -1;
    g_llctx.sec_sp = -1;
}

void log_to_stderr()
{
    g_log = {};
    g_log.time_format = f_NO_TIME;
    log_default(&g_log, stderr);
}

} // namespace

// ---- tables ------------------------------------------------------------------------------------

TEST(LogLevels, numbers_of_levels_and_flags)
{
    EXPECT_EQ(MIN_level, -127);
    EXPECT_EQ(PANIC_level, -4);
    EXPECT_LT(ERR_level, CRIT_level) << "an error is more severe than a critical condition";
    EXPECT_EQ(ERR_level, -3);
    EXPECT_EQ(DEBUG_level, 2);
    EXPECT_EQ(SECTION_level, 64);
    EXPECT_EQ(f_BAD_TIME, 1073741824);
    EXPECT_EQ(f_NO_TIME | f_GMT_TIME | f_RAW_TIME | f_FMT_SECONDS | f_TIMER_ID, 256 + 512 + 1024 + 16 + 3);
}

TEST(LogLevels, tags_names_and_priorities)
{
    LogCapture log(SECTION_level);
    for (const LevelRow& row : kRows) {
        log.clear();
        log_entry(row.level, "text\n");
        EXPECT_EQ(log.text(), std::string(row.tag) + "  text\n");
        EXPECT_STREQ(log_level_str(row.level), row.name);
        EXPECT_EQ(get_syslog_pri(row.level), row.pri) << row.level;
    }
}

TEST(LogLevels, numbers_that_are_no_level)
{
    LogCapture log;
    for (const int level : {3, -5, 63, 65, -126, INT_MAX}) {
        log.clear();
        log_write(&g_log, level, "text\n");
        EXPECT_EQ(log.text(), "( ? )  text\n") << level;
        EXPECT_STREQ(log_level_str(level), "??");
        EXPECT_EQ(get_syslog_pri(level), LOG_DEBUG);
    }
    for (const int level : {int{MIN_level}, -128, INT_MIN}) {
        log.clear();
        log_write(&g_log, level, "text\n");
        EXPECT_EQ(log.text(), "text\n") << level;
        EXPECT_STREQ(log_level_str(level), "??");
        EXPECT_EQ(get_syslog_pri(level), LOG_DEBUG);
    }
}

TEST(LogLevels, kept_spelling_of_critical_and_order_of_error_and_critical)
{
    EXPECT_STREQ(log_level_str(CRIT_level), "ctitical");
    LogCapture log(ERR_level);
    log_crit("not shown\n");
    log_err("shown\n");
    EXPECT_EQ(log.text(), "(ERR)  shown\n");
}

TEST(LogLevels, tables_start_at_zero)
{
    for (int i = 0; i < LL_MAX_MODULES; ++i) {
        EXPECT_EQ(g_mod_ll[i], NORM_level);
        EXPECT_EQ(g_sec_ll[i], 0);
    }
    EXPECT_EQ(g_llctx.mod, kSlot);
    EXPECT_EQ(g_llctx.sec, -1);
    EXPECT_EQ(g_llctx.sec_sp, -1);
}

TEST(LogLevels, sections_go_to_their_level_with_the_first_default_stream_of_the_application_log)
{
    struct log_ctx other = ZERO_LOG;
    log_default(&other, stderr);
    EXPECT_EQ(sect_level(0), 0);
    g_log = {};
    log_default(&g_log, stderr);
    EXPECT_EQ(sect_level(0), SECTION_level);
    EXPECT_EQ(sect_level(LL_MAX_SECTIONS - 1), SECTION_level);
    EXPECT_NE(g_log.llst.sec_ll_set, 0);
    set_sect_level(5, 1);
    log_default(&g_log, stdout);
    EXPECT_EQ(sect_level(5), 1) << "only the first time";
}

TEST(LogLevels, whole_tables_are_set_and_the_log_notes_it)
{
    struct log_ctx log = ZERO_LOG;
    log_set_sections(&log, 7);
    log_set_modules(&log, -2);
    for (int i = 0; i < LL_MAX_MODULES; ++i) {
        EXPECT_EQ(mod_loglevel(i), -2);
        EXPECT_EQ(sect_level(i), 7);
    }
    EXPECT_NE(log.llst.mod_ll_set, 0);
    EXPECT_NE(log.llst.sec_ll_set, 0);
    EXPECT_EQ(g_log.llst.mod_ll_set, 0);
}

TEST(LogLevels, macros_read_and_set_levels)
{
    set_myloglevel(2);
    EXPECT_EQ(MLL_loglevel, 2);
    EXPECT_EQ(mod_loglevel(kSlot), 2);
    set_loglevel(3, -1);
    EXPECT_EQ(g_mod_ll[3], -1);
    set_sect_level(4, 6);
    EXPECT_TRUE(sect_level_is(4, 6));
    EXPECT_FALSE(sect_level_is(4, 5));
}

// ---- the gate ----------------------------------------------------------------------------------

TEST(LogGate, outside_a_section_the_modules_level_decides)
{
    LogCapture log;
    for (int mod = -5; mod <= 65; ++mod) {
        set_myloglevel(mod);
        for (const LevelRow& row : kRows) {
            log.clear();
            log_entry(row.level, "x\n");
            EXPECT_EQ(!log.text().empty(), mod >= row.level) << mod << " " << row.level;
        }
    }
}

TEST(LogGate, kept_inside_a_section_its_level_decides_for_all_calls_alike)
{
    LogCapture log;
    MLL_SECT_BEGIN(11);
    for (const int sec : {-5, -4, 0, 2, 64}) {
        set_sect_level(11, sec);
        for (const int mod : {-5, -4, 0, 1, 2, 63, 64}) {
            set_myloglevel(mod);
            for (const LevelRow& row : kRows) {
                log.clear();
                log_entry(row.level, "x\n");
                EXPECT_EQ(!log.text().empty(), sec <= mod) << sec << " " << mod << " " << row.level;
            }
        }
    }
    MLL_SECT_END();
}

TEST(LogGate, arguments_are_not_evaluated_when_it_is_shut)
{
    LogCapture log(NORM_level);
    log_dbg("%d\n", evaluated());
    EXPECT_EQ(g_evaluated, 0);
    log_norm("%d\n", evaluated());
    EXPECT_EQ(g_evaluated, 1);
    EXPECT_EQ(log.text(), "(NRM)  1\n");
}

TEST(LogGate, macros_have_the_level_of_their_name)
{
    LogCapture log(DEBUG_level);
    log_err("a\n");
    log_crit("b\n");
    log_warn("c\n");
    log_norm("d\n");
    log_info("e\n");
    log_dbg("f\n");
    EXPECT_EQ(log.text(), "(ERR)  a\n(CRI)  b\n(WRN)  c\n(NRM)  d\n(INF)  e\n(DBG)  f\n");
}

TEST(LogGate, kept_loglevel_is_asks_otherwise_than_the_gate)
{
    set_myloglevel(0);
    EXPECT_TRUE(loglevel_is(0));
    EXPECT_TRUE(loglevel_is(-1));
    EXPECT_FALSE(loglevel_is(1));
    MLL_SECT_BEGIN(2);
    set_sect_level(2, 64);
    EXPECT_TRUE(loglevel_is(1)) << "true, while the gate is shut";
    EXPECT_TRUE(loglevel_is(64));
    EXPECT_FALSE(loglevel_is(65));
    LogCapture log(0);
    log_norm("x\n");
    EXPECT_EQ(log.text(), "");
    MLL_SECT_END();
}

TEST(LogGate, is_one_statement)
{
    LogCapture log(DEBUG_level);
    // NOLINTBEGIN(readability-braces-around-statements): without them the else finds its if.
    if (g_evaluated != 0)
        log_dbg("not written\n");
    else
        log_dbg("written\n");
    // NOLINTEND(readability-braces-around-statements)
    EXPECT_EQ(log.text(), "(DBG)  written\n");
}

// ---- sections ----------------------------------------------------------------------------------

TEST(LogSections, nest_eight_deep_and_come_back_in_order)
{
    for (int i = 0; i < LL_STACK_DEPTH; ++i) {
        MLL_SECT_BEGIN(i * 10);
        EXPECT_EQ(g_llctx.sec, i * 10);
        EXPECT_EQ(g_llctx.sec_sp, i);
    }
    for (int i = LL_STACK_DEPTH - 1; i >= 0; --i) {
        EXPECT_EQ(g_llctx.sec, i * 10);
        MLL_SECT_END();
    }
    EXPECT_EQ(g_llctx.sec, -1);
    EXPECT_EQ(g_llctx.sec_sp, -1);
}

TEST(LogSections, ninth_one_end_without_begin_and_number_out_of_the_table_abort)
{
    expect_abort("(PNC)  ASSERT at:\n#0: ", [] {
        log_to_stderr();
        for (int i = 0; i <= LL_STACK_DEPTH; ++i) {
            MLL_SECT_BEGIN(1);
        }
    });
    expect_abort("", [] { MLL_SECT_END(); });
    for (const int idx : {-1, int{LL_MAX_SECTIONS}}) {
        expect_abort("", [&] { MLL_SECT_BEGIN(idx); });
    }
    MLL_SECT_BEGIN(LL_MAX_SECTIONS - 1);
    EXPECT_EQ(g_llctx.sec, LL_MAX_SECTIONS - 1);
    leave_sections();
}

// ---- words and the environment -----------------------------------------------------------------

TEST(LogWords, every_word_in_any_case)
{
    const std::pair<const char*, int> words[] = {
        {"err", ERR_level},      {"error", ERR_level},    {"crit", CRIT_level}, {"critical", CRIT_level},
        {"warn", WARN_level},    {"warning", WARN_level}, {"norm", NORM_level}, {"normal", NORM_level},
        {"info", INFO_level},    {"debug", DEBUG_level},  {"dbg", DEBUG_level}, {"section", SECTION_level},
        {"sect", SECTION_level}, {"ERROR", ERR_level},    {"Dbg", DEBUG_level}, {"nOrM", NORM_level},
    };
    for (const auto& [word, level] : words) {
        int found = 99;
        EXPECT_EQ(match_log_level(word, &found), 0) << word;
        EXPECT_EQ(found, level) << word;
    }
}

TEST(LogWords, other_texts_leave_the_level_alone)
{
    for (const char* word : {"", "panic", "er", "errors", " err", "err ", "ctitical", "2", "information"}) {
        int found = 99;
        EXPECT_EQ(match_log_level(word, &found), -1) << word;
        EXPECT_EQ(found, 99);
    }
}

TEST(LogWords, level_from_the_environment)
{
    unsetenv("MORVANE_TEST_LEVEL");
    EXPECT_EQ(read_level_env("MORVANE_TEST_LEVEL", 7), 7);
    const std::pair<const char*, int> texts[] = {
        {"2", 2},  {"-3", -3}, {"0", 0},      {"", 7},   {"debug", 7},
        {"00", 7}, {"0x", 7},  {"12abc", 12}, {" 5", 5}, {"+0", 7},
    };
    for (const auto& [text, level] : texts) {
        setenv("MORVANE_TEST_LEVEL", text, 1);
        EXPECT_EQ(read_level_env("MORVANE_TEST_LEVEL", 7), level) << text;
    }
    unsetenv("MORVANE_TEST_LEVEL");
}

// ---- the end of a process ----------------------------------------------------------------------

namespace {

// Removes the frames "#i: ..." of a back-trace, which must be numbered from 0, and returns the rest.
std::string without_frames(const std::string& text, int& frames)
{
    std::string rest;
    frames = 0;
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        const std::string line = text.substr(start, end == std::string::npos ? end : end - start + 1);
        start = end == std::string::npos ? text.size() : end + 1;
        const std::string mark = "#" + std::to_string(frames) + ": ";
        if (line.compare(0, mark.size(), mark) != 0) {
            rest += line;
            continue;
        }
        ++frames;
        // The last frame may be cut by the buffer: the closing mark then stands on its line.
        if (line.size() >= 3 && line.compare(line.size() - 3, 3, "==\n") == 0) {
            rest += "==\n";
        }
    }
    return rest;
}

void panic_here()
{
    log_panic("bad thing %d\n", 7);
}

void fail_here(int number)
{
    ASSERT(number == 4);
}

} // namespace

TEST(LogEnd, panic_writes_the_message_and_a_back_trace_and_aborts)
{
    const ChildResult child = run_in_child([] {
        log_to_stderr();
        panic_here();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    int frames = 0;
    EXPECT_EQ(without_frames(child.err, frames), "(PNC)  bad thing 7\n(PNC)  Aborting at:\n==\n");
    EXPECT_GT(frames, 0) << child.err;
}

TEST(LogEnd, panic_below_the_level_is_silent_and_aborts_all_the_same)
{
    const ChildResult child = run_in_child([] {
        log_to_stderr();
        set_myloglevel(-5);
        panic_here();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "");
}

TEST(LogEnd, panic_without_an_open_log_aborts)
{
    const ChildResult child = run_in_child([] {
        g_log = {};
        panic_here();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "");
}

TEST(LogEnd, panic_flushes_the_stream)
{
    const ChildResult child = run_in_child([] {
        log_to_stderr();
        setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        log_default(&g_log, stdout);
        panic_here();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_NE(child.out.find("bad thing 7\n"), std::string::npos) << child.out;
}

TEST(LogEnd, failed_invariant_writes_a_back_trace_and_ends_as_by_assert)
{
    const ChildResult child = run_in_child([] {
        log_to_stderr();
        fail_here(3);
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    int frames = 0;
    const std::string rest = without_frames(child.err, frames);
    EXPECT_GT(frames, 0);
    EXPECT_TRUE(support::matches(rest, ("\\(PNC\\)  ASSERT at:\n==\nlog_levels_test: "
                                        "[^ ]*tests/lib/log_levels_test\\.cpp:[0-9]+: "
                                        "void [^\n]*fail_here\\(int\\): Assertion `0' failed\\.\n")))
        << rest;
}

TEST(LogEnd, invariant_that_holds_does_nothing_and_is_evaluated_once)
{
    LogCapture log(DEBUG_level);
    ASSERT(evaluated() == 1);
    EXPECT_EQ(g_evaluated, 1);
    EXPECT_EQ(log.text(), "");
    fail_here(4);
}

TEST(LogEnd, plain_assertions_of_the_library_are_active)
{
    expect_abort("Assertion `app_tag != nullptr' failed.", [] { glog_init(nullptr); });
}
