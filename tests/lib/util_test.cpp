#include "util.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "tempdir.h"
#include "text.h"
#include "wrap.h"

using support::ChildResult;
using support::expect_abort;
using support::Lines;
using support::run_in_child;
using support::TempDir;

namespace {

// The n-th dup2 from now fails; 0: none.
int g_fail_dup2 = 0;

// A UDP socket on loopback that waits for a datagram.
class Receiver {
  public:
    Receiver() : fd_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof addr;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &length), 0);
        port_ = std::to_string(ntohs(addr.sin_port));
        const timeval limit{support::kLimit.count(), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    ~Receiver() { close(fd_); }

    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    const char* port() const { return port_.c_str(); }

    std::string take() const
    {
        std::string text(2000, '\0');
        const ssize_t n = recv(fd_, text.data(), text.size(), 0);
        text.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return text;
    }

  private:
    int fd_;
    std::string port_;
};

std::string replaced(const char* path, const char* dir, size_t room, bool& ok)
{
    std::vector<char> buf(room + 1);
    const char* result = replace_dir(path, dir, buf.data(), room);
    ok = result == buf.data();
    EXPECT_TRUE(ok || result == nullptr);
    return ok ? std::string(buf.data()) : std::string();
}

std::string cut(const char* s, const char* delim, size_t room)
{
    std::vector<char> buf(room + 1, '#');
    EXPECT_EQ(cpy_till(s, delim, buf.data(), room), buf.data());
    EXPECT_EQ(buf[room], '#');
    return room == 0 ? std::string() : std::string(buf.data());
}

} // namespace

WRAPPED(int, dup2, (int from, int to));

extern "C" {
int __wrap_dup2(int from, int to)
{
    if (g_fail_dup2 > 0 && --g_fail_dup2 == 0) {
        errno = EBUSY;
        return -1;
    }
    return __real_dup2(from, to);
}

WRAPPED(ssize_t, sendto,
        (int fd, const void* buf, size_t len, int flags, const sockaddr* to, socklen_t to_len));

ssize_t __wrap_sendto(int fd, const void* buf, size_t len, int flags, const sockaddr* to, socklen_t to_len)
{
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(flags, 0);
    return __real_sendto(fd, buf, len, flags, to, to_len);
}
}

class UtilPath : public support::GuardedTest {};

TEST_F(UtilPath, get_base_is_the_text_behind_the_last_slash)
{
    EXPECT_STREQ(get_base("a/b/"), "");
    EXPECT_STREQ(get_base("/x"), "x");
    EXPECT_STREQ(get_base("x"), "x");
    EXPECT_STREQ(get_base(""), "");
    EXPECT_STREQ(get_base("/usr//local/bin/zent"), "zent");
}

TEST_F(UtilPath, replace_dir_puts_the_base_name_under_the_directory)
{
    bool ok = false;
    EXPECT_EQ(replaced("/etc/a.conf", "/run/x", 64, ok), "/run/x/a.conf");
    EXPECT_EQ(replaced("/etc/a.conf", nullptr, 64, ok), "a.conf");
    EXPECT_EQ(replaced("/etc/a.conf", "", 64, ok), "a.conf");
    EXPECT_EQ(replaced("a.conf", "d/", 64, ok), "d//a.conf");
}

TEST_F(UtilPath, replace_dir_fits_with_its_terminator_or_gives_null)
{
    bool ok = false;
    EXPECT_EQ(replaced("/etc/a", "/b", 5, ok), "/b/a");
    EXPECT_EQ(log.text(), "");
    replaced("/etc/a", "/b", 4, ok);
    EXPECT_FALSE(ok);
    replaced("/etc/a", nullptr, 0, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  replace_dir: 4 characters required, 4 afforded",
                                  "(ERR)  replace_dir: 1 characters required, 0 afforded"}));
}

TEST_F(UtilPath, fmode_str_names_each_type)
{
    EXPECT_STREQ(fmode_str(S_IFREG | 0644), "FILE");
    EXPECT_STREQ(fmode_str(S_IFSOCK), "SOCK");
    EXPECT_STREQ(fmode_str(S_IFDIR | 0755), "DIR");
    EXPECT_STREQ(fmode_str(S_IFCHR), "CHR");
    EXPECT_STREQ(fmode_str(S_IFBLK), "BLK");
    EXPECT_STREQ(fmode_str(S_IFIFO), "FIFO");
    EXPECT_STREQ(fmode_str(S_IFLNK), "LINK");
    EXPECT_STREQ(fmode_str(0777), "{???}");
}

TEST_F(UtilPath, get_stat_mode_tells_the_type_of_a_descriptor)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    mode_t mode = 0;
    get_stat_mode(ends[0], &mode);
    EXPECT_STREQ(fmode_str(mode), "FIFO");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(UtilPath, get_stat_mode_of_a_bad_descriptor_ends_the_process)
{
    const std::string text = expect_abort("", [] {
        log_timefmt(&g_log, f_NO_TIME);
        mode_t mode = 0;
        get_stat_mode(-1, &mode);
    });
    EXPECT_EQ(text, "(ERR)  get_stat_mode: FAILED to retrieve mode for fd=-1: Bad file descriptor\n");
}

TEST_F(UtilPath, fopen_any_opens_in_the_first_directory_that_has_the_file)
{
    TempDir dir;
    dir.make_dir("one");
    dir.make_dir("two");
    dir.write("two/f", "second");
    dir.write("f", "outside");
    const std::string one = dir.path("one");
    const std::string two = dir.path("two/");
    const char* dirs[] = {one.c_str(), two.c_str(), dir.path().c_str()};
    char path[256];
    log.set_level(DEBUG_level);
    FILE* fp = fopen_any("f", "r", 3, dirs, path, sizeof path);
    ASSERT_NE(fp, nullptr);
    char text[16] = {};
    EXPECT_STREQ(fgets(text, sizeof text, fp), "second");
    fclose(fp);
    EXPECT_EQ(path, two + "f"); // no second slash
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  fopen_any: trying to open [" + one + "/f]",
                                  "(DBG)  fopen_any: trying to open [" + two + "f]",
                                  "(DBG)  fopen_any: opened [" + two + "f]"}));
}

TEST_F(UtilPath, fopen_any_empties_the_path_where_nothing_opens)
{
    TempDir dir;
    const char* dirs[] = {dir.path().c_str(), nullptr, "/"};
    char path[256] = "old";
    EXPECT_EQ(fopen_any("none", "r", 3, dirs, path, sizeof path), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(path, "");
}

TEST_F(UtilPath, fopen_any_of_no_directories_empties_the_path)
{
    const char* dirs[] = {"/"};
    char path[8] = "old";
    EXPECT_EQ(fopen_any("f", "r", 0, dirs, path, sizeof path), nullptr);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(fopen_any("f", "r", 0, dirs, path, 0), nullptr);
}

TEST_F(UtilPath, fopen_any_gives_up_at_a_path_that_does_not_fit)
{
    TempDir dir;
    dir.write("f", "x");
    const char* dirs[] = {"/a/very/long/directory", dir.path().c_str()};
    char path[12] = "old";
    EXPECT_EQ(fopen_any("f", "r", 2, dirs, path, sizeof path), nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_STREQ(path, "");
}

TEST_F(UtilPath, fopen_any_uses_the_whole_buffer)
{
    TempDir dir;
    dir.write("f", "x");
    const char* dirs[] = {dir.path().c_str()};
    const size_t exact = dir.path().size() + sizeof "/f";
    std::vector<char> path(exact);
    EXPECT_EQ(fopen_any("f", "r", 1, dirs, path.data(), exact - 1), nullptr);
    FILE* fp = fopen_any("f", "r", 1, dirs, path.data(), exact);
    ASSERT_NE(fp, nullptr);
    fclose(fp);
}

TEST_F(UtilPath, pick_first_file_takes_the_first_that_exists)
{
    const char* paths[] = {"/nonexistent/a", "/proc/self/status", "/"};
    EXPECT_EQ(pick_first_file(paths, 3), paths[1]);
    EXPECT_EQ(pick_first_file(paths, 1), nullptr);
    EXPECT_EQ(pick_first_file(paths, 0), nullptr);
}

class UtilFile : public support::GuardedTest {};

TEST_F(UtilFile, read_file_buf_reads_the_whole_file)
{
    TempDir dir;
    dir.write("f", "hello");
    char buf[6] = "#####";
    EXPECT_EQ(read_file_buf(dir.path("f").c_str(), buf, 5), 5);
    EXPECT_EQ(std::string(buf, 6), std::string("hello\0", 6));
    EXPECT_EQ(log.text(), "");
}

TEST_F(UtilFile, read_file_buf_of_an_empty_file_is_zero)
{
    TempDir dir;
    dir.write("f", "");
    char buf[1];
    EXPECT_EQ(read_file_buf(dir.path("f").c_str(), buf, 0), 0);
}

TEST_F(UtilFile, read_file_buf_refuses_a_file_above_the_buffer)
{
    TempDir dir;
    dir.write("f", "hello");
    char buf[5] = "abcd";
    EXPECT_EQ(read_file_buf(dir.path("f").c_str(), buf, 4), -7);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(log.lines(),
              Lines{"(ERR)  read_file_buf: file size (5 bytes) is too big for buffer (4 bytes)"});
}

TEST_F(UtilFile, read_file_buf_of_a_missing_file_logs_the_open)
{
    char buf[4];
    EXPECT_EQ(read_file_buf("/nonexistent/f", buf, sizeof buf), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  read_file_buf: open('/nonexistent/f', 0, 0x0) ERROR(2): No such "
                                 "file or directory"});
}

TEST_F(UtilFile, read_file_buf_of_a_directory_logs_the_read)
{
    std::vector<char> buf(1 << 20);
    EXPECT_EQ(read_file_buf("/", buf.data(), buf.size()), -1);
    EXPECT_EQ(errno, EISDIR);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.text().find("ERROR(21): Is a directory"), std::string::npos) << log.text();
}

TEST_F(UtilFile, read_file_buf_tells_of_fewer_bytes_than_the_size)
{
    const char* path = "/sys/kernel/uevent_seqnum"; // such a file claims a page
    if (access(path, R_OK) != 0) {
        GTEST_SKIP() << "skipped: no " << path;
    }
    char buf[65536];
    EXPECT_EQ(read_file_buf(path, buf, sizeof buf), -1);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.text().find("(ERR)  read_file_buf: [/sys/kernel/uevent_seqnum] under-read: "), 0U);
    EXPECT_NE(log.text().find("/4096\n"), std::string::npos) << log.text();
}

TEST_F(UtilFile, file_to_dest_sends_the_file_as_one_datagram)
{
    TempDir dir;
    const Receiver receiver;
    for (const size_t size : {size_t{1}, size_t{1400}}) {
        const std::string text(size, 'x');
        dir.write("f", text);
        EXPECT_EQ(file_to_dest("127.0.0.1", receiver.port(), dir.path("f").c_str()), 0);
        EXPECT_EQ(receiver.take(), text);
    }
}

TEST_F(UtilFile, file_to_dest_refuses_empty_and_too_long_files)
{
    TempDir dir;
    const Receiver receiver;
    dir.write("empty", "");
    dir.write("long", std::string(1401, 'x'));
    EXPECT_EQ(file_to_dest("127.0.0.1", receiver.port(), dir.path("empty").c_str()), -1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(file_to_dest("127.0.0.1", receiver.port(), dir.path("long").c_str()), -1);
    EXPECT_EQ(log.lines(),
              Lines{"(ERR)  read_file_buf: file size (1401 bytes) is too big for buffer (1400 bytes)"});
    EXPECT_EQ(file_to_dest("127.0.0.1", receiver.port(), dir.path("none").c_str()), -1);
}

TEST_F(UtilFile, file_to_dest_fails_where_no_socket_opens)
{
    TempDir dir;
    dir.write("f", "x");
    EXPECT_EQ(file_to_dest("127.0.0.1", "http", dir.path("f").c_str()), -1);
    EXPECT_EQ(file_to_dest("12345", "9", dir.path("f").c_str()), -1);
    EXPECT_EQ(log.lines().size(), 2U) << log.text();
}

TEST_F(UtilFile, file_to_dest_fails_where_the_datagram_is_refused)
{
    TempDir dir;
    dir.write("f", "x");
    // No broadcast without SO_BROADCAST.
    EXPECT_EQ(file_to_dest("255.255.255.255", "9", dir.path("f").c_str()), -1);
    EXPECT_NE(log.text().find("file_to_dest: sendto("), std::string::npos) << log.text();
}

class UtilOutput : public support::GuardedTest {};

TEST_F(UtilOutput, redirect_output_takes_stdout_and_stderr)
{
    TempDir dir;
    dir.write("out", "");
    const ChildResult result = run_in_child([&] {
        const auto before = support::open_fds();
        if (redirect_output(dir.path("out").c_str()) != 0 || support::open_fds() != before) {
            return 1;
        }
        dprintf(1, "to stdout;");
        dprintf(2, "to stderr;");
        return 0;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(dir.read("out"), "to stdout;to stderr;");
}

TEST_F(UtilOutput, redirect_output_serves_a_daemon_without_stdin_and_stdout)
{
    TempDir dir;
    dir.write("out", "");
    const ChildResult result = run_in_child([&] {
        close(0);
        close(1);
        const int rc = redirect_output(dir.path("out").c_str());
        dprintf(1, "%d;", rc);
        dprintf(2, "%d;", fcntl(0, F_GETFD));
        return 0;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(dir.read("out"), "0;-1;");
}

TEST_F(UtilOutput, redirect_output_keeps_a_file_that_opens_as_stdout)
{
    TempDir dir;
    dir.write("out", "");
    const ChildResult result = run_in_child([&] {
        close(1);
        const int rc = redirect_output(dir.path("out").c_str());
        dprintf(1, "%d;", rc);
        dprintf(2, "x;");
        return 0;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(dir.read("out"), "0;x;");
}

TEST_F(UtilOutput, redirect_output_does_not_create_the_path)
{
    TempDir dir;
    EXPECT_EQ(redirect_output(dir.path("none").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(UtilOutput, redirect_output_tells_which_duplication_failed)
{
    const int out = dup(1);
    g_fail_dup2 = 1;
    EXPECT_EQ(redirect_output("/dev/null"), -2);
    EXPECT_EQ(errno, EBUSY);
    g_fail_dup2 = 2;
    EXPECT_EQ(redirect_output("/dev/null"), -3);
    const int err = errno;
    __real_dup2(out, 1);
    close(out);
    EXPECT_EQ(err, EBUSY);
    EXPECT_EQ(log.lines().size(), 2U) << log.text();
}

class UtilText : public support::GuardedTest {};

TEST_F(UtilText, tag_index_ignores_case)
{
    const char* tags[] = {"alpha", "Beta", "GAMMA", nullptr};
    EXPECT_EQ(tag_index("alpha", tags), 0);
    EXPECT_EQ(tag_index("bETA", tags), 1);
    EXPECT_EQ(tag_index("gamma", tags), 2);
    EXPECT_EQ(tag_index("gamm", tags), -1);
    EXPECT_EQ(tag_index("", tags), -1);
    const char* none[] = {nullptr};
    EXPECT_EQ(tag_index("alpha", none), -1);
}

TEST_F(UtilText, cpy_till_stops_at_the_first_delimiter)
{
    EXPECT_EQ(cut("key=value;x", "=;", 32), "key");
    EXPECT_EQ(cut("key=value;x", ";", 32), "key=value");
    EXPECT_EQ(cut("key", "=", 32), "key");
    EXPECT_EQ(cut("key", "", 32), "key");
    EXPECT_EQ(cut("=key", "=", 32), "");
    EXPECT_EQ(cut("", "=", 32), "");
}

TEST_F(UtilText, cpy_till_never_leaves_the_buffer)
{
    EXPECT_EQ(cut("abcdef", "", 7), "abcdef");
    EXPECT_EQ(cut("abcdef", "", 6), "abcde");
    EXPECT_EQ(cut("abcdef", "", 2), "a");
    EXPECT_EQ(cut("abcdef", "", 1), "");
    cut("abcdef", "", 0); // writes nothing at all
}

TEST_F(UtilText, close_pipe_closes_what_is_open)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int reader = ends[0];
    EXPECT_EQ(close_pipe(ends), 0);
    EXPECT_EQ(ends[0], reader); // the numbers stay
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1);
    int none[2] = {-1, -1};
    EXPECT_EQ(close_pipe(none), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(UtilText, close_pipe_closes_descriptor_0)
{
    const auto result = run_in_child([] {
        int ends[2] = {STDIN_FILENO, -1};
        return close_pipe(ends) == 0 && fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_code, 0);
}

TEST_F(UtilText, close_pipe_stops_at_the_first_failure)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(close_pipe(ends), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fcntl(ends[1], F_GETFD), 0);
    ends[0] = -1;
    EXPECT_EQ(close_pipe(ends), 0);
    EXPECT_EQ(log.lines().size(), 1U);
}
