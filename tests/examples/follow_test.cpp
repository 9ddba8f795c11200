// The program that follows a growing file, on real files.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "detail/owned.h"
#include "fault.h"
#include "fds.h"
#include "paths.h"

namespace {

const std::string kFollow = support::build_path("examples/follow");

class Follow : public testing::Test {
  protected:
    Follow()
    {
        char name[] = "/tmp/follow_XXXXXX";
        EXPECT_NE(mkdtemp(name), nullptr);
        dir = name;
        file = dir + "/log";
        append("first\n");
    }

    ~Follow() override
    {
        unlink(file.c_str());
        unlink((dir + "/moved").c_str());
        rmdir(dir.c_str());
    }

    void append(const std::string& text)
    {
        const mv::OwnedFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        ASSERT_TRUE(fd);
        ASSERT_EQ(write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    support::FdGuard guard_;
    std::string dir;
    std::string file;
};

TEST_F(Follow, prints_what_is_there_and_what_is_appended)
{
    support::Process follow({kFollow, file});
    ASSERT_TRUE(follow.wait_for_out("first\n")) << follow.err();
    append("second\n");
    EXPECT_TRUE(follow.wait_for_out("second\n"));
    const std::string block(300'000, 'x');
    append(block + "third\n");
    EXPECT_TRUE(follow.wait_for_out("third\n"));
    follow.kill(SIGTERM);
    const support::ChildResult end = follow.wait();
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.out, "first\nsecond\n" + block + "third\n");
}

TEST_F(Follow, a_file_that_became_shorter_is_printed_from_its_start)
{
    support::Process follow({kFollow, file});
    ASSERT_TRUE(follow.wait_for_out("first\n"));
    ASSERT_EQ(truncate(file.c_str(), 0), 0);
    EXPECT_TRUE(follow.wait_for_err("file truncated"));
    append("anew\n");
    EXPECT_TRUE(follow.wait_for_out("anew\n"));
    follow.kill(SIGINT);
    EXPECT_EQ(follow.wait().exit_code, 0);
}

TEST_F(Follow, ends_when_the_file_is_deleted)
{
    support::Process follow({kFollow, file});
    ASSERT_TRUE(follow.wait_for_out("first\n"));
    append("last\n");
    ASSERT_EQ(unlink(file.c_str()), 0);
    const support::ChildResult end = follow.wait();
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.out, "first\nlast\n");
    EXPECT_NE(end.err.find(file + ": file deleted"), std::string::npos) << end.err;
}

TEST_F(Follow, ends_when_the_file_is_moved_and_not_when_only_its_mode_changes)
{
    support::Process follow({kFollow, file});
    ASSERT_TRUE(follow.wait_for_out("first\n"));
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    append("after chmod\n");
    EXPECT_TRUE(follow.wait_for_out("after chmod\n"));
    ASSERT_EQ(rename(file.c_str(), (dir + "/moved").c_str()), 0);
    const support::ChildResult end = follow.wait();
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_NE(end.err.find(file + ": file moved"), std::string::npos) << end.err;
}

TEST_F(Follow, output_that_takes_no_more_is_a_failure)
{
    support::Process follow(support::with_fault({"write", 2, EIO}, {kFollow, file}));
    ASSERT_TRUE(follow.wait_for_out("first\n")) << follow.err();
    append("second\n");
    const support::ChildResult end = follow.wait();
    EXPECT_EQ(end.exit_code, 1);
    EXPECT_NE(end.err.find("Input/output error"), std::string::npos) << end.err;
}

TEST_F(Follow, a_file_that_is_not_there_and_a_call_without_one)
{
    const support::ChildResult missing = support::run_program({kFollow, dir + "/none"});
    EXPECT_EQ(missing.exit_code, 1);
    EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos) << missing.err;
    const support::ChildResult usage = support::run_program({kFollow});
    EXPECT_EQ(usage.exit_code, 2);
    EXPECT_EQ(usage.err, "usage: follow file\n");
}

} // namespace
