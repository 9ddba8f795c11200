// File watches on real files.
#include <cerrno>
#include <fstream>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "rqs_fixture.h"

namespace {

using loop::PipePair;
using loop::put;
using loop::Record;
using loop::Words;

using Flags = std::vector<int>;

constexpr int kStopped = 100;

class RqsWatch : public loop::Loop {
  protected:
    RqsWatch()
    {
        char name[] = "/tmp/rqs_watch_XXXXXX";
        EXPECT_NE(mkdtemp(name), nullptr);
        dir = name;
        file = dir + "/file";
        create(file);
        hooks.on_file_modified = [this](int wd, int flags, void* udata) {
            wds.push_back(wd);
            seen.push_back(flags);
            udatas.push_back(udata);
            return 99; // ignored
        };
    }

    ~RqsWatch() override
    {
        for (const std::string& path : {file, dir + "/other", dir + "/moved"}) {
            unlink(path.c_str());
        }
        rmdir(dir.c_str());
    }

    static void create(const std::string& path)
    {
        std::ofstream out(path);
        out << "first";
    }

    // An append, then the close: IN_MODIFY, IN_CLOSE_WRITE.
    static void append(const std::string& path)
    {
        const mv::OwnedFd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        ASSERT_TRUE(fd);
        put(fd.get(), "more");
    }

    int watch(const std::string& path, void* udata)
    {
        const int wd = rqs_add_file_watch(udata, path.c_str());
        EXPECT_GT(wd, 0);
        return wd;
    }

    // Runs the loop until so many changes were told.
    void run_until(size_t changes)
    {
        stop_when([this, changes] { return seen.size() >= changes; });
        EXPECT_EQ(rqs_event_loop(), kStopped);
    }

    // Runs a few cycles: what is waiting is read.
    void run_some()
    {
        hooks.update_tmout = no_wait;
        stop_after(3);
        EXPECT_EQ(rqs_event_loop(), kStopped);
    }

    std::string dir;
    std::string file;
    std::vector<int> wds;
    Flags seen;
    std::vector<void*> udatas;
    int mark = 0;
    int other_mark = 0;
};

TEST_F(RqsWatch, a_write_gives_0_and_0_again_at_the_close)
{
    init();
    const int wd = watch(file, &mark);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U);
    append(file);
    run_until(2);
    EXPECT_EQ(seen, (Flags{0, 0}));
    EXPECT_EQ(wds, (std::vector<int>{wd, wd}));
    EXPECT_EQ(udatas, (std::vector<void*>{&mark, &mark}));
    EXPECT_EQ(count("read"), 0U) << "the loop reads its own descriptor";
    EXPECT_EQ(lines_with("(DBG)  inotify fd").size(), 1U);
}

TEST_F(RqsWatch, the_result_of_the_callback_is_ignored)
{
    init();
    watch(file, &mark);
    append(file);
    run_until(2);
    EXPECT_TRUE(lines_with("Exiting event loop, 0 failed, rc=100").size() == 1);
}

TEST_F(RqsWatch, a_change_of_mode_gives_the_attribute_flag)
{
    init();
    watch(file, &mark);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    run_until(1);
    EXPECT_EQ(seen, Flags{RQS_ATTR});
}

TEST_F(RqsWatch, a_file_moved_away_gives_removed_and_moved)
{
    init();
    watch(file, &mark);
    ASSERT_EQ(rename(file.c_str(), (dir + "/moved").c_str()), 0);
    run_until(1);
    EXPECT_EQ(seen, Flags{RQS_RMV | RQS_FMOVED});
}

TEST_F(RqsWatch, a_deleted_file_gives_removed_and_deleted)
{
    init();
    watch(file, &mark);
    ASSERT_EQ(unlink(file.c_str()), 0);
    run_until(2);
    EXPECT_EQ(seen, (Flags{RQS_ATTR, RQS_RMV | RQS_FDELETED})) << "the link count changes first";
    EXPECT_EQ(lines_with("IN_IGNORED (0x8000)").size(), 1U);
}

TEST_F(RqsWatch, kept_the_watch_of_a_deleted_file_cannot_be_removed)
{
    init();
    const int wd = watch(file, &mark);
    ASSERT_EQ(unlink(file.c_str()), 0);
    run_until(2);
    run_some();
    log.clear();
    EXPECT_EQ(rqs_rm_file_watch(wd), -1);
    const auto lines = lines_with("inotify_rm_watch(");
    ASSERT_EQ(lines.size(), 1U) << log.text();
    EXPECT_EQ(lines[0].find("(ERR)  rqs_rm_file_watch: inotify_rm_watch("), 0U);
    EXPECT_NE(lines[0].find(", " + std::to_string(wd) + ") ERROR(22): Invalid argument"), std::string::npos);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U) << "the inotify descriptor stays registered";
    // So the place of the one watch stays taken.
    create(file);
    EXPECT_EQ(rqs_add_file_watch(&mark, file.c_str()), -1);
}

TEST_F(RqsWatch, a_removed_watch_reports_nothing_but_a_line)
{
    init();
    add_idle_reader();
    const int wd = watch(file, &mark);
    log.clear();
    EXPECT_EQ(rqs_rm_file_watch(wd), 0);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U) << "the idle reader";
    EXPECT_EQ(lines_with(" is no longer watched.").size(), 1U);
    append(file);
    const int again = watch(file, &mark);
    EXPECT_NE(again, wd);
    run_some();
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(lines_with("(DBG)  process_inotify_records: IN_IGNORED (0x8000)").size(), 1U) << log.text();
    append(file);
    run_until(2);
    EXPECT_EQ(wds, (std::vector<int>{again, again}));
}

TEST_F(RqsWatch, a_record_of_a_watch_that_is_gone_is_told_and_the_walk_goes_on)
{
    init();
    const int wd = watch(file, &mark);
    append(file); // two records that nobody reads before the watch is gone
    EXPECT_EQ(rqs_rm_file_watch(wd), 0);
    const int again = watch(file, &other_mark);
    append(file);
    log.clear();
    run_until(2);
    EXPECT_EQ(lines_with("(ERR)  wfd_map_get: wfd=" + std::to_string(wd) + " is not found.").size(), 2U);
    EXPECT_EQ(wds, (std::vector<int>{again, again}));
    EXPECT_EQ(udatas, (std::vector<void*>{&other_mark, &other_mark}));
    EXPECT_EQ(lines_with(": 5 inotify_event records processed").size(), 1U) << log.text();
}

TEST_F(RqsWatch, kept_one_watch_at_a_time)
{
    init();
    const int wd = watch(file, &mark);
    create(dir + "/other");
    log.clear();
    EXPECT_EQ(rqs_add_file_watch(&other_mark, (dir + "/other").c_str()), -1);
    EXPECT_EQ(lines_with("ERROR(17): File exists").size(), 1U) << log.text();
    EXPECT_EQ(lines_with("(ERR)").size(), 1U);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U);
    append(dir + "/other"); // its watch was dropped again
    append(file);
    run_until(2);
    run_some();
    EXPECT_EQ(wds, (std::vector<int>{wd, wd}));
    // A daemon that needs the other file removes the first watch.
    EXPECT_EQ(rqs_rm_file_watch(wd), 0);
    watch(dir + "/other", &other_mark);
    append(dir + "/other");
    run_until(4);
    EXPECT_EQ(udatas.back(), &other_mark);
}

TEST_F(RqsWatch, kept_adding_the_watched_file_again_ends_the_first_watch_silently)
{
    init();
    const int wd = watch(file, &mark);
    log.clear();
    EXPECT_EQ(rqs_add_file_watch(&other_mark, file.c_str()), -1);
    char want[128];
    snprintf(want, sizeof want, "(ERR)  wfd_map_add: key wfd=%d is already taken [%p]", wd,
             static_cast<void*>(&mark));
    EXPECT_EQ(log.lines(), Words{want});
    append(file);
    run_some();
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U) << "the count still holds the first watch";
    EXPECT_EQ(rqs_rm_file_watch(wd), -1);
}

TEST_F(RqsWatch, a_path_that_cannot_be_watched)
{
    init();
    log.clear();
    EXPECT_EQ(rqs_add_file_watch(&mark, "/nowhere/at/all"), -1);
    EXPECT_EQ(errno, ENOENT);
    char want[160];
    snprintf(
        want, sizeof want,
        "(ERR)  rqs_add_file_watch: inotify_add_watch(%p, '/nowhere/at/all', 3086) ERROR(2): No such file or "
        "directory",
        static_cast<void*>(&mark));
    EXPECT_EQ(log.lines(), Words{want});
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U);
    EXPECT_EQ(rqs_add_file_watch(&mark, std::string(300, 'x').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(RqsWatch, watches_before_set_up_and_after_the_end_fail)
{
    EXPECT_EQ(rqs_add_file_watch(&mark, file.c_str()), -1);
    EXPECT_EQ(rqs_rm_file_watch(1), -1);
    init();
    const int wd = watch(file, &mark);
    rqs_destroy();
    EXPECT_EQ(rqs_rm_file_watch(wd), -1);
    EXPECT_EQ(rqs_add_file_watch(&mark, file.c_str()), -1);
    init();
    watch(file, &mark);
    append(file);
    run_until(2);
}

TEST_F(RqsWatch, without_the_callback_changes_are_dropped)
{
    rqs_callbacks cb = loop::all_callbacks();
    cb.on_file_modified = nullptr;
    init(cb);
    watch(file, &mark);
    append(file);
    run_some();
    EXPECT_EQ(lines_with(": 2 inotify_event records processed").size(), 1U) << log.text();
    EXPECT_TRUE(seen.empty());
}

TEST_F(RqsWatch, a_udata_of_null_is_handed_on)
{
    init();
    watch(file, nullptr);
    append(file);
    run_until(2);
    EXPECT_EQ(udatas, (std::vector<void*>{nullptr, nullptr}));
}

TEST_F(RqsWatch, changes_come_in_the_stage_of_events_between_other_readers)
{
    init();
    Record record;
    const PipePair p = add_ready_reader(record);
    watch(file, &mark);
    append(file);
    std::vector<int> stages;
    hooks.on_file_modified = [&](int, int, void*) {
        stages.push_back(loop::stage());
        return 0;
    };
    hooks.on_idle = [&] { return stages.size() >= 2 ? kStopped : 0; };
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(stages, (std::vector<int>{ELOOP_EV, ELOOP_EV}));
    EXPECT_GE(count("read"), 1U);
}

TEST_F(RqsWatch, the_callback_may_remove_its_watch_and_add_another)
{
    init();
    int wd = watch(file, &mark);
    create(dir + "/other");
    hooks.on_file_modified = [&](int at, int flags, void*) {
        seen.push_back(flags);
        if (at == wd) {
            EXPECT_EQ(rqs_rm_file_watch(wd), 0);
            wd = watch(dir + "/other", &other_mark);
        }
        return 0;
    };
    append(file);
    run_until(1);
    ASSERT_EQ(chmod((dir + "/other").c_str(), 0600), 0);
    run_until(2);
    EXPECT_EQ(seen.back(), RQS_ATTR);
    EXPECT_GE(lines_with("is not found.").size(), 1U) << "the second record of the append";
}

TEST_F(RqsWatch, the_callback_may_end_the_loops_life)
{
    init();
    watch(file, &mark);
    append(file);
    append(file);
    hooks.on_file_modified = [&](int, int flags, void*) {
        seen.push_back(flags);
        rqs_destroy();
        return 0;
    };
    EXPECT_NE(rqs_event_loop(), 0);
    EXPECT_EQ(seen.size(), 1U);
    EXPECT_GE(lines_with("wfd_map_get: ERROR(22): Invalid argument").size(), 1U);
}

// One record of 16 bytes a change, alternating, so that the kernel does not join them, and one for the close.
void change_attributes_and_size(const std::string& path, int records)
{
    const mv::OwnedFd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    for (int i = 0; i < records; ++i) {
        if (i % 2 == 0) {
            ASSERT_EQ(fchmod(fd.get(), 0600), 0);
        } else {
            put(fd.get(), "x");
        }
    }
}

TEST_F(RqsWatch, a_backlog_of_just_one_buffer_is_read)
{
    init();
    watch(file, &mark);
    change_attributes_and_size(file, 255);
    run_until(256);
    EXPECT_EQ(seen.size(), 256U);
    EXPECT_TRUE(lines_with("(ERR)").empty()) << log.text();
    EXPECT_EQ(lines_with("process_inotify_records: 256 inotify_event records processed").size(), 1U);
}

TEST_F(RqsWatch, kept_a_backlog_over_one_buffer_is_a_failed_event)
{
    init();
    watch(file, &mark);
    change_attributes_and_size(file, 256);
    EXPECT_EQ(rqs_event_loop(), 1);
    const std::string line =
        "(ERR)  process_inotify_records: incompatible buffer size (avail=4112 bytes, max=4096)";
    EXPECT_EQ(lines_with(line).size(), 1U) << log.text();
    EXPECT_TRUE(seen.empty()) << "nothing was read";
    EXPECT_EQ(rqs_event_loop(), 1) << "and it stays so";
}

TEST_F(RqsWatch, records_of_a_directory_carry_names)
{
    init();
    watch(dir, &mark);
    append(file);
    run_until(2);
    EXPECT_EQ(seen, (Flags{0, 0}));
    const auto dumps = lines_with("INOTIFY (ev=");
    ASSERT_EQ(dumps.size(), 2U) << log.text();
    EXPECT_NE(dumps[0].find("mask=0x0002 [y] cookie=0 [file]"), std::string::npos) << dumps[0];
    EXPECT_NE(dumps[1].find("mask=0x0008 [W] cookie=0 [file]"), std::string::npos) << dumps[1];
}

TEST_F(RqsWatch, records_of_a_file_have_no_name_and_are_dumped_at_debug_level_alone)
{
    init();
    const int wd = watch(file, &mark);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    run_until(1);
    const auto dumps = lines_with("(DBG)  INOTIFY (ev=");
    ASSERT_EQ(dumps.size(), 1U);
    EXPECT_NE(dumps[0].find("): wd" + std::to_string(wd) + ", mask=0x0004 [T] cookie=0 []"),
              std::string::npos)
        << dumps[0];
    log.clear();
    g_mod_ll[MLL_COMMON] = INFO_level;
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    run_until(2);
    EXPECT_TRUE(lines_with("(DBG)").empty());
    g_mod_ll[MLL_COMMON] = DEBUG_level;
}

TEST_F(RqsWatch, without_the_table_all_but_file_watches_works)
{
    // The first three allocations are the loop's lists, the next are the table's.
    rqs_config cfg = {};
    cfg.cb = loop::all_callbacks();
    {
        const support::FailAllocation fail(4);
        EXPECT_EQ(rqs_init(&cfg), ENOMEM);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(lines_with("(ERR)  rqs_init: failed to create wfd/inotify lookup").size(), 1U);
    EXPECT_NE(rqs_now().tv_nsec + rqs_now().tv_sec, 0);
    log.clear();
    EXPECT_EQ(rqs_add_file_watch(&mark, file.c_str()), -1);
    EXPECT_EQ(lines_with("(ERR)  wfd_map_add: ERROR(22) adding wfd=1, udata=").size(), 1U) << log.text();
    Record record;
    const PipePair p = add_ready_reader(record);
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("read"), 1U);
}

TEST_F(RqsWatch, no_memory_for_a_watch_drops_it_again)
{
    init();
    log.clear();
    {
        const support::FailAllocation fail(1);
        EXPECT_EQ(rqs_add_file_watch(&mark, file.c_str()), -1);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(lines_with("ERROR(12) adding wfd=1, udata=").size(), 1U) << log.text();
    EXPECT_EQ(lines_with("(ERR)").size(), 1U);
    EXPECT_EQ(watch(file, &mark), 2);
}

} // namespace
