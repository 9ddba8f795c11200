// Rotation on real files: when, under which names, how many are kept, and what happens when a call fails.
#include "log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fds.h"
#include "logcap.h"
#include "logfaults.h"
#include "tempdir.h"
#include "util.h"

namespace {

using support::FdGuard;
using support::LogCapture;
using support::TempDir;
using Names = std::vector<std::string>;

constexpr time_t kStart = 1700000000;

class Stderr {
  public:
    Stderr() { testing::internal::CaptureStderr(); }

    std::string text() { return testing::internal::GetCapturedStderr(); }
};

// A file log named "log" in a directory of its own, not the application's, with a clock that the test moves.
class LogRotate : public testing::Test {
  protected:
    void SetUp() override
    {
        glog_init("tester");
        log.time_format = f_NO_TIME;
        path = dir.path("log");
        faults::now = kStart;
        ASSERT_EQ(log_open(&log, path.c_str()), 0);
    }

    void TearDown() override
    {
        log_close(&log);
        faults::now = 0;
        faults::step = 0;
    }

    std::string rotated(time_t offset) const { return "log." + std::to_string(kStart + offset); }

    void write(const std::string& text) { log_write(&log, MIN_level, "%s\n", text.c_str()); }

    // Rotates n times, a second apart, with one line in each file.
    void rotate_times(int n)
    {
        for (int i = 0; i < n; ++i) {
            write("file " + std::to_string(i));
            ++faults::now;
            ASSERT_EQ(log_rotate(&log), 0);
        }
    }

    FdGuard guard;
    TempDir dir;
    std::string path;
    struct log_ctx log = ZERO_LOG;
};

} // namespace

// ---- settings ----------------------------------------------------------------------------------

TEST_F(LogRotate, number_of_files_is_1_to_127_or_else_16)
{
    EXPECT_EQ(log_rota_maxfiles(&log), 0U);
    EXPECT_EQ(log_rota_maxsize(&log), 0U);
    const std::pair<size_t, size_t> rows[] = {{0, 16},    {1, 1},    {16, 16},
                                              {127, 127}, {128, 16}, {SIZE_MAX, 16}};
    for (const auto& [given, kept] : rows) {
        log_set_rota(&log, 1000 + given, given);
        EXPECT_EQ(log_rota_maxfiles(&log), kept) << given;
        EXPECT_EQ(log_rota_maxsize(&log), 1000 + given);
    }
}

// ---- when --------------------------------------------------------------------------------------

TEST_F(LogRotate, line_that_reaches_the_size_is_the_last_of_its_file)
{
    log_set_rota(&log, 20, 4);
    write("123456789");
    write("12345678");
    EXPECT_EQ(log.total_out, 19U);
    EXPECT_EQ(dir.names(), Names{"log"});
    write("");
    EXPECT_EQ(log.total_out, 0U);
    EXPECT_EQ(dir.names(), (Names{"log", rotated(0)}));
    EXPECT_EQ(dir.read(rotated(0)), "123456789\n12345678\n\n");
    EXPECT_EQ(dir.read("log"), "");
    ++faults::now;
    write(std::string(50, 'x'));
    EXPECT_EQ(dir.read(rotated(1)), std::string(50, 'x') + "\n") << "a line beyond the size is whole";
}

TEST_F(LogRotate, without_a_size_a_log_never_rotates_by_itself)
{
    log_set_rota(&log, 0, 4);
    for (int i = 0; i < 100; ++i) {
        write(std::string(500, 'x'));
    }
    EXPECT_EQ(dir.names(), Names{"log"});
    EXPECT_EQ(log.total_out, 50100U);
}

TEST_F(LogRotate, continued_file_may_rotate_with_its_first_line)
{
    log_close(&log);
    dir.write("log", std::string(100, 'o'));
    log_append_old(&log);
    ASSERT_EQ(log_open(&log, path.c_str()), 0);
    log_set_rota(&log, 50, 4);
    write("new");
    EXPECT_EQ(dir.names(), (Names{"log", rotated(0)}));
    EXPECT_EQ(dir.read(rotated(0)), std::string(100, 'o') + "new\n");
}

TEST_F(LogRotate, standard_streams_never_rotate)
{
    struct log_ctx streams = ZERO_LOG;
    streams.time_format = f_NO_TIME;
    log_set_rota(&streams, 1, 4);
    Stderr err;
    log_default(&streams, stderr);
    log_write(&streams, MIN_level, "to stderr\n");
    testing::internal::CaptureStdout();
    log_default(&streams, stdout);
    log_write(&streams, MIN_level, "to stdout\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "to stdout\n");
    EXPECT_EQ(err.text(), "to stderr\n") << "no complaint: they are not even asked";
}

TEST_F(LogRotate, rotation_asked_for_on_a_stream_is_refused)
{
    struct log_ctx streams = ZERO_LOG;
    log_default(&streams, stderr);
    {
        Stderr err;
        EXPECT_EQ(log_rotate(&streams), 0);
        EXPECT_EQ(err.text(), "log_rotate: nothing to rotate.\n");
    }
    strcpy(streams.name, "named");
    for (FILE* stream : {stderr, stdout}) {
        log_default(&streams, stream);
        Stderr err;
        EXPECT_EQ(log_rotate(&streams), -1);
        EXPECT_EQ(err.text(), "log_rotate: stdout and stderr cannot be rotated.\n");
    }
}

TEST_F(LogRotate, name_of_a_command_is_refused)
{
    struct log_ctx other = log;
    strcpy(other.name, "|cat");
    Stderr err;
    EXPECT_EQ(log_rotate(&other), -1);
    EXPECT_EQ(err.text(), "log_rotate: not supported for pipe-based streams.\n");
}

// ---- names and the ring ------------------------------------------------------------------------

TEST_F(LogRotate, without_settings_it_renames_and_keeps_no_ring)
{
    LogCapture lines(DEBUG_level);
    rotate_times(20);
    EXPECT_EQ(dir.names().size(), 21U);
    EXPECT_EQ(dir.read(rotated(3)), "file 2\n");
    EXPECT_EQ(log.rota.next_idx, 0);
    EXPECT_EQ(log.rota.tm[0], 0);
    EXPECT_EQ(lines.text(), "");
}

TEST_F(LogRotate, ring_keeps_the_newest_files)
{
    LogCapture quiet(PANIC_level);
    for (const size_t files : {size_t{1}, size_t{16}, size_t{127}}) {
        log.rota = {};
        log_set_rota(&log, 1000000, files);
        const int rotations = static_cast<int>(files) * 2 + 3;
        const time_t before = faults::now - kStart;
        rotate_times(rotations);
        Names expected{"log"};
        for (size_t i = files; i > 0; --i) {
            expected.push_back(rotated(before + rotations + 1 - static_cast<time_t>(i)));
        }
        EXPECT_EQ(dir.names(), expected) << files;
        EXPECT_EQ(dir.read(expected.back()), "file " + std::to_string(rotations - 1) + "\n");
        for (size_t i = 1; i < expected.size(); ++i) {
            std::filesystem::remove(dir.path(expected[i]));
        }
    }
}

TEST_F(LogRotate, each_step_of_the_ring_is_told_in_the_application_log)
{
    LogCapture lines(DEBUG_level);
    log_set_rota(&log, 1000, 2);
    rotate_times(3);
    EXPECT_EQ(lines.text(), "(NRM)  [tester]: previous log rotated to [" + path +
                                ".1700000001] tm=1700000001, idx=0\n"
                                "(NRM)  [tester]: previous log rotated to [" +
                                path +
                                ".1700000002] tm=1700000002, idx=1\n"
                                "(NRM)  [tester]: previous log rotated to [" +
                                path +
                                ".1700000003] tm=1700000003, idx=0\n"
                                "(DBG)  handle_rotation: replaced " +
                                path + ".1700000001 with " + path + ".1700000003\n");
    EXPECT_EQ(log.rota.tm[0], kStart + 3);
    EXPECT_EQ(log.rota.tm[1], kStart + 2);
    EXPECT_EQ(log.rota.next_idx, 1);
}

TEST_F(LogRotate, ring_that_shrinks_stays_within_its_bounds)
{
    LogCapture quiet(PANIC_level);
    log_set_rota(&log, 1000, 16);
    rotate_times(10);
    EXPECT_EQ(log.rota.next_idx, 10);
    log_set_rota(&log, 1000, 4);
    rotate_times(1);
    EXPECT_EQ(log.rota.next_idx, 1);
    EXPECT_EQ(log.rota.tm[0], kStart + 11);
    EXPECT_FALSE(dir.has(rotated(1))) << "the file of its place is deleted";
    log_set_rota(&log, 1000, 127);
    log.rota.next_idx = 127;
    rotate_times(1);
    EXPECT_EQ(log.rota.tm[0], kStart + 12);
}

TEST_F(LogRotate, kept_two_rotations_in_one_second_replace_a_file)
{
    LogCapture quiet(PANIC_level);
    log_set_rota(&log, 1000, 4);
    write("first");
    ASSERT_EQ(log_rotate(&log), 0);
    write("second");
    ASSERT_EQ(log_rotate(&log), 0);
    EXPECT_EQ(dir.names(), (Names{"log", rotated(0)}));
    EXPECT_EQ(dir.read(rotated(0)), "second\n");
    EXPECT_EQ(log.rota.tm[0], kStart);
    EXPECT_EQ(log.rota.tm[1], kStart);
}

TEST_F(LogRotate, kept_ring_of_one_deletes_both_files_of_one_second)
{
    LogCapture quiet(PANIC_level);
    log_set_rota(&log, 1000, 1);
    write("first");
    ASSERT_EQ(log_rotate(&log), 0);
    write("second");
    ASSERT_EQ(log_rotate(&log), 0);
    EXPECT_EQ(dir.names(), Names{"log"});
}

TEST_F(LogRotate, kept_name_that_was_stored_cut_cannot_be_renamed_and_the_log_goes_on_under_it)
{
    LogCapture lines;
    log_close(&log);
    const std::string whole = dir.path(std::string(128 - dir.path("").size(), 'x'));
    const std::string cut = whole.substr(0, 127);
    ASSERT_EQ(log_open(&log, whole.c_str()), 0);
    write("first");
    Stderr err;
    EXPECT_EQ(log_rotate(&log), 0);
    write("second");
    EXPECT_EQ(err.text().rfind("log_rotate: failed to rename [" + cut + "] to [", 0), 0U);
    EXPECT_EQ(dir.read(whole.substr(dir.path("").size())), "first\n");
    EXPECT_EQ(dir.read(cut.substr(dir.path("").size())), "second\n");
}

// ---- the application's log rotates itself ------------------------------------------------------

TEST_F(LogRotate, lines_of_a_rotation_open_the_fresh_file)
{
    g_log = {};
    g_log.time_format = f_NO_TIME;
    ASSERT_EQ(log_open(&g_log, dir.path("app").c_str()), 0);
    log_set_rota(&g_log, 10, 4);
    log_write(&g_log, NORM_level, "full\n");
    EXPECT_EQ(dir.read("app." + std::to_string(kStart)), "(NRM)  full\n");
    const std::string line = "(NRM)  [tester]: previous log rotated to [" + dir.path("app") +
                             ".1700000000] tm=1700000000, idx=0\n";
    EXPECT_EQ(dir.read("app"), line);
    EXPECT_EQ(g_log.total_out, line.size());
    log_close(&g_log);
    g_log = {};
}

TEST_F(LogRotate, size_below_its_own_line_rotates_once_for_each_line)
{
    g_log = {};
    g_log.time_format = f_NO_TIME;
    ASSERT_EQ(log_open(&g_log, dir.path("app").c_str()), 0);
    log_set_rota(&g_log, 1, 8);
    for (int i = 0; i < 3; ++i) {
        ++faults::now;
        log_write(&g_log, NORM_level, "line %d\n", i);
    }
    EXPECT_EQ(dir.names(), (Names{"app", "app.1700000001", "app.1700000002", "app.1700000003", "log"}));
    EXPECT_EQ(dir.read("app.1700000001"), "(NRM)  line 0\n");
    const std::string second = dir.read("app.1700000002");
    EXPECT_EQ(second.rfind("(NRM)  [tester]: previous log rotated to [", 0), 0U);
    EXPECT_NE(second.find("idx=0\n(NRM)  line 1\n"), std::string::npos) << second;
    log_close(&g_log);
    g_log = {};
}

namespace {
struct log_ctx* g_hooked = nullptr;
int g_hook_calls = 0;

void rotate_in_hook(void* /*udata*/, const char* /*line*/)
{
    if (++g_hook_calls == 1) {
        log_rotate(g_hooked);
    }
}
} // namespace

TEST_F(LogRotate, hook_that_rotates_inside_a_rotation_does_not_let_its_lines_rotate)
{
    g_log = {};
    g_log.time_format = f_NO_TIME;
    ASSERT_EQ(log_open(&g_log, dir.path("app").c_str()), 0);
    log_set_rota(&g_log, 1, 8);
    log_set_rota(&log, 1000, 4);
    g_hooked = &log;
    log_set_hook(&g_log, nullptr, rotate_in_hook);
    g_hook_calls = 0;
    faults::step = 1;
    log_write(&g_log, NORM_level, "line\n");
    faults::step = 0;
    EXPECT_EQ(g_hook_calls, 4) << "the line, and one for each rotation: of the other log, of this one by the "
                                  "message of that, and of this one again";
    log_close(&g_log);
    g_log = {};
}

// ---- failures ----------------------------------------------------------------------------------

TEST_F(LogRotate, file_that_cannot_be_closed_ends_the_log_until_it_is_opened_again)
{
    write("first");
    FILE* const fp = log.fp;
    {
        Stderr err;
        faults::on_fclose = EIO;
        EXPECT_EQ(log_rotate(&log), -1);
        EXPECT_EQ(err.text(), "log_rotate: failed to close [" + path + "], ERROR(5): Input/output error\n");
    }
    EXPECT_EQ(log.fp, fp) << "the field stays";
    EXPECT_EQ(log_fp(&log), nullptr) << "but nobody gets the stream";
    {
        Stderr err;
        write("dropped");
        log_close(&log);
        EXPECT_EQ(err.text(), "");
    }
    {
        Stderr err;
        EXPECT_EQ(log_rotate(&log), -1);
        EXPECT_EQ(err.text(), "log_rotate: failed to close [" + path + "], ERROR(9): Bad file descriptor\n");
    }
    EXPECT_EQ(dir.names(), Names{"log"});
    log_append_old(&log);
    ASSERT_EQ(log_open(&log, path.c_str()), 0);
    write("again");
    EXPECT_EQ(dir.read("log"), "first\nagain\n");
}

TEST_F(LogRotate, file_that_cannot_be_renamed_is_continued_for_another_size)
{
    LogCapture lines;
    log_set_rota(&log, 10, 4);
    const std::string message = "log_rotate: failed to rename [" + path + "] to [" + path +
                                ".1700000000], ERROR(13): Permission denied";
    {
        Stderr err;
        faults::on_rename = EACCES;
        write("123456789");
        EXPECT_EQ(err.text(), message + " - rotation is to be stopped\n");
    }
    EXPECT_EQ(lines.text(), "(ERR)  log_rotate: " + message + " - rotation cancelled this time\n");
    EXPECT_EQ(log.total_out, 0U);
    EXPECT_EQ(log.rota.tm[0], 0);
    write("abc");
    EXPECT_EQ(dir.names(), Names{"log"});
    write("defgh");
    EXPECT_EQ(dir.names(), (Names{"log", rotated(0)}));
    EXPECT_EQ(dir.read(rotated(0)), "123456789\nabc\ndefgh\n");
}

TEST_F(LogRotate, message_about_a_failed_rename_is_cut_to_254_characters)
{
    LogCapture lines;
    log_close(&log);
    const std::string name(127 - dir.path("").size(), 'n');
    ASSERT_EQ(log_open(&log, dir.path(name).c_str()), 0);
    Stderr err;
    faults::on_rename = EACCES;
    EXPECT_EQ(log_rotate(&log), 0);
    const std::string text = err.text();
    const std::string tail = " - rotation is to be stopped\n";
    EXPECT_EQ(text.size(), 254 + tail.size()) << text;
    EXPECT_EQ(text.substr(254), tail);
}

TEST_F(LogRotate, file_that_cannot_be_opened_again_leaves_the_log_closed)
{
    log_set_rota(&log, 5, 4);
    {
        Stderr err;
        faults::on_fopen = ENOSPC;
        write("12345");
        EXPECT_EQ(err.text(), "do_open: uid/gig=" + std::to_string(geteuid()) + "/" +
                                  std::to_string(getegid()) + " fopen(" + path +
                                  ") ERROR(28): No space left on device\n");
    }
    EXPECT_EQ(log.fp, nullptr);
    EXPECT_EQ(dir.names(), Names{rotated(0)});
    Stderr err;
    write("dropped");
    EXPECT_EQ(err.text(), "");
    {
        Stderr again;
        EXPECT_EQ(log_rotate(&log), -1);
        EXPECT_EQ(again.text(),
                  "log_rotate: failed to close [" + path + "], ERROR(9): Bad file descriptor\n");
    }
    EXPECT_EQ(dir.names(), Names{rotated(0)});
}

TEST_F(LogRotate, result_of_a_failed_reopen_is_returned)
{
    Stderr err;
    faults::on_fopen = ENOSPC;
    EXPECT_EQ(log_rotate(&log), -1);
    EXPECT_NE(err.text().find("do_open: "), std::string::npos);
}

TEST_F(LogRotate, old_file_that_cannot_be_deleted_is_told_and_leaves_the_ring)
{
    LogCapture lines(DEBUG_level);
    log_set_rota(&log, 1000, 1);
    rotate_times(1);
    lines.clear();
    faults::on_unlink = EROFS;
    rotate_times(1);
    EXPECT_EQ(lines.text(), "(NRM)  [tester]: previous log rotated to [" + path +
                                ".1700000002] tm=1700000002, idx=0\n"
                                "(ERR)  handle_rotation: unlink(" +
                                path + ".1700000001) ERROR(30) : Read-only file system\n");
    EXPECT_EQ(log.rota.tm[0], kStart + 2);
    EXPECT_EQ(dir.names(), (Names{"log", rotated(1), rotated(2)}));
}

TEST_F(LogRotate, size_that_cannot_be_asked_does_not_stop_a_rotation)
{
    LogCapture lines;
    faults::on_fstat = EIO;
    EXPECT_EQ(log_rotate(&log), 0);
    EXPECT_EQ(lines.text(), "(ERR)  do_open: fstat(" + path + ") ERROR(5): Input/output error\n");
    EXPECT_EQ(log.total_out, 0U);
}

TEST_F(LogRotate, directory_that_is_gone_ends_the_log)
{
    LogCapture lines;
    std::filesystem::remove_all(dir.path());
    Stderr err;
    EXPECT_EQ(log_rotate(&log), -1);
    const std::string text = err.text();
    EXPECT_EQ(text.rfind("log_rotate: failed to rename [", 0), 0U) << text;
    EXPECT_NE(text.find("\ndo_open: uid/gig="), std::string::npos) << text;
    EXPECT_EQ(log.fp, nullptr);
}

// ---- nothing is lost ---------------------------------------------------------------------------

TEST_F(LogRotate, million_lines_through_a_rotating_log_are_all_there_once)
{
    LogCapture quiet(PANIC_level);
    log_set_rota(&log, 100000, 127);
    faults::step = 1; // a second for each rotation
    constexpr int kLines = 1000000;
    for (int i = 0; i < kLines; ++i) {
        log_write(&log, MIN_level, "%d\n", i);
    }
    Names names = dir.names();
    ASSERT_GT(names.size(), 60U);
    ASSERT_LT(names.size(), 128U) << "none was deleted";
    std::rotate(names.begin(), names.begin() + 1, names.end()); // "log" is the newest
    int next = 0;
    for (const std::string& name : names) {
        std::ifstream in(dir.path(name));
        for (std::string line; std::getline(in, line); ++next) {
            ASSERT_EQ(line, std::to_string(next)) << name;
        }
    }
    EXPECT_EQ(next, kLines);
}
