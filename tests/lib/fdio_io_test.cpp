// Reads and writes that survive signals, waiting, and the two ends of a transfer.
#include "fdio.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <numeric>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "psensor.h"
#include "tempdir.h"
#include "text.h"
#include "util.h"
#include "wrap.h"

using support::expect_assertion;
using support::FdGuard;
using support::Lines;
using support::PipePair;
using support::run_in_child;
using support::SocketPair;
using support::TempDir;

namespace {

// What the next system calls of a kind do: the result and errno given, as often as told; then the real thing.
struct Script {
    int calls = 0; // so far
    int times = 0; // still to be answered by the script
    ssize_t result = -1;
    int err = 0;

    bool answers()
    {
        ++calls;
        if (times == 0) {
            return false;
        }
        --times;
        if (result < 0) {
            errno = err;
        }
        return true;
    }
};

Script g_read;
Script g_write;
Script g_pread;
Script g_sendfile;
Script g_unlink;
int g_getrusage_calls = 0;

volatile sig_atomic_t g_signals = 0;

void count_signal(int)
{
    g_signals = g_signals + 1;
}

void set_quit(int)
{
    g_quit = 1;
}

// Without SA_RESTART: a blocked call ends with EINTR.
void interrupt_by(void (*handler)(int))
{
    struct sigaction action {};

    action.sa_handler = handler;
    sigaction(SIGUSR1, &action, nullptr);
}

// A process that sends us SIGUSR1, count times or (0) until it is killed, and then runs last.
template <class Last>
pid_t pester(int count, Last last)
{
    const pid_t target = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        for (int i = 0; count == 0 || i < count; ++i) {
            if (kill(target, SIGUSR1) != 0 || getppid() != target) {
                _exit(1);
            }
            usleep(2000);
        }
        last();
        _exit(0);
    }
    return pid;
}

void end(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

} // namespace

WRAPPED(ssize_t, read, (int fd, void* buf, size_t count));
WRAPPED(ssize_t, write, (int fd, const void* buf, size_t count));
WRAPPED(ssize_t, pread, (int fd, void* buf, size_t count, off_t offset));
WRAPPED(ssize_t, sendfile, (int out, int in, off_t* offset, size_t count));
WRAPPED(int, unlink, (const char* path));
WRAPPED(int, getrusage, (int who, struct rusage* ru));

extern "C" {
ssize_t __wrap_read(int fd, void* buf, size_t count)
{
    return g_read.answers() ? g_read.result : __real_read(fd, buf, count);
}

ssize_t __wrap_write(int fd, const void* buf, size_t count)
{
    return g_write.answers() ? g_write.result : __real_write(fd, buf, count);
}

ssize_t __wrap_pread(int fd, void* buf, size_t count, off_t offset)
{
    return g_pread.answers() ? g_pread.result : __real_pread(fd, buf, count, offset);
}

ssize_t __wrap_sendfile(int out, int in, off_t* offset, size_t count)
{
    return g_sendfile.answers() ? g_sendfile.result : __real_sendfile(out, in, offset, count);
}

int __wrap_unlink(const char* path)
{
    return g_unlink.answers() ? static_cast<int>(g_unlink.result) : __real_unlink(path);
}

int __wrap_getrusage(int who, struct rusage* ru)
{
    ++g_getrusage_calls;
    return __real_getrusage(who, ru);
}
}

namespace {

// By the system's own call.
void fill(const PipePair& pipe, const std::string& text)
{
    EXPECT_EQ(__real_write(pipe.out, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

// A descriptor of a file in memory with the text.
int memory_file(const std::string& text)
{
    const int fd = memfd_create("test", MFD_CLOEXEC);
    EXPECT_EQ(__real_write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return fd;
}

// Each call of the four with its script, as one shape.
struct Way {
    const char* name;
    Script* script;
    ssize_t failure;    // how it tells one
    bool verbose_alone; // of the flags, FDIO_VERBOSE alone makes it log
    ssize_t (*call)(int fd, size_t count, u_int32_t flags);
};

class FdioAll : public support::GuardedTest {
  protected:
    void TearDown() override
    {
        for (Script* script : {&g_read, &g_write, &g_pread, &g_sendfile}) {
            *script = {};
        }
    }
};

char g_block[16];
off_t g_offset = 0;

const Way kWays[] = {
    {"nread", &g_read, -1, false,
     [](int fd, size_t count, u_int32_t flags) { return nread(fd, g_block, count, flags); }},
    {"nwrite", &g_write, -1, false,
     [](int fd, size_t count, u_int32_t flags) { return nwrite(fd, g_block, count, flags); }},
    {"npread", &g_pread, 0, true,
     [](int fd, size_t count, u_int32_t flags) { return npread(fd, g_block, count, 0, flags); }},
    {"nsendfile", &g_sendfile, 0, true,
     [](int fd, size_t count, u_int32_t flags) { return nsendfile(fd, fd, &g_offset, count, 0, flags); }}};

} // namespace

TEST_F(FdioAll, a_count_of_zero_makes_no_system_call)
{
    for (const Way& way : kWays) {
        EXPECT_EQ(way.call(-1, 0, FDIO_VERBOSE), 0) << way.name;
        EXPECT_EQ(way.script->calls, 0) << way.name;
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(FdioAll, a_bad_descriptor_fails_in_the_way_of_each_call)
{
    for (const Way& way : kWays) {
        log.clear();
        errno = 0;
        EXPECT_EQ(way.call(-1, 4, 0), way.failure) << way.name;
        EXPECT_EQ(errno, EBADF) << way.name;
        ASSERT_EQ(log.lines().size(), 1U) << way.name;
        EXPECT_EQ(log.text().find(std::string("(ERR)  ") + way.name + ": "), 0U) << log.text();
        EXPECT_NE(log.text().find("ERROR(9): Bad file descriptor"), std::string::npos) << log.text();
    }
}

TEST_F(FdioAll, an_interruption_is_repeated_until_bytes_move)
{
    for (const Way& way : kWays) {
        *way.script = {0, 3, -1, EINTR};
        errno = 0;
        // The fourth call is real and fails.
        EXPECT_EQ(way.call(-1, 4, 0), way.failure) << way.name;
        EXPECT_EQ(way.script->calls, 4) << way.name;
        EXPECT_EQ(errno, EBADF) << way.name;
    }
    EXPECT_EQ(log.lines().size(), std::size(kWays)) << log.text();
}

TEST_F(FdioAll, an_interruption_with_the_quit_flag_ends_without_errno)
{
    g_quit = 1;
    for (const Way& way : kWays) {
        *way.script = {0, 3, -1, EINTR};
        errno = ENOTTY;
        EXPECT_EQ(way.call(-1, 4, 0), way.failure) << way.name;
        EXPECT_EQ(way.script->calls, 1) << way.name;
        EXPECT_EQ(errno, 0) << way.name;
    }
    g_quit = 0;
    EXPECT_EQ(log.text(), "");
}

TEST_F(FdioAll, the_plain_errors_of_a_stream_are_silent_without_flags)
{
    for (const Way& way : kWays) {
        for (const int err : {EAGAIN, EPIPE, ECONNRESET}) {
            log.clear();
            *way.script = {0, 1, -1, err};
            EXPECT_EQ(way.call(-1, 4, 0), way.failure) << way.name;
            EXPECT_EQ(errno, err) << way.name;
            EXPECT_EQ(log.text(), "") << way.name;
        }
    }
}

TEST_F(FdioAll, kept_any_flag_makes_read_and_write_log_but_only_verbose_the_other_two)
{
    for (const Way& way : kWays) {
        for (const u_int32_t flags : {u_int32_t{FDIO_VERBOSE}, u_int32_t{FDIO_SENDFILE}}) {
            log.clear();
            *way.script = {0, 1, -1, EAGAIN};
            EXPECT_EQ(way.call(-1, 4, flags), way.failure) << way.name;
            EXPECT_EQ(errno, EAGAIN) << way.name;
            EXPECT_EQ(!log.text().empty(), flags == FDIO_VERBOSE || !way.verbose_alone)
                << way.name << " " << flags;
        }
    }
}

TEST_F(FdioAll, kept_anything_moved_ends_the_call)
{
    for (const Way& way : kWays) {
        *way.script = {0, 5, 1, 0};
        EXPECT_EQ(way.call(-1, 4, 0), 1) << way.name;
        EXPECT_EQ(way.script->calls, 1) << way.name;
    }
}

TEST_F(FdioAll, a_result_of_zero_ends_the_call)
{
    for (const Way& way : kWays) {
        *way.script = {0, 5, 0, 0};
        errno = 0;
        EXPECT_EQ(way.call(-1, 4, 0), 0) << way.name;
        EXPECT_EQ(way.script->calls, 1) << way.name;
    }
}

TEST_F(FdioAll, kept_a_zero_with_a_stale_interruption_is_repeated_only_when_writing)
{
    for (const Way& way : kWays) {
        *way.script = {0, 5, 0, 0};
        errno = EINTR; // of some earlier call
        EXPECT_EQ(way.call(-1, 4, 0), 0) << way.name;
        const bool writes = way.script == &g_write || way.script == &g_sendfile;
        EXPECT_EQ(way.script->calls, writes ? 2 : 1) << way.name;
    }
}

class FdioWrite : public support::GuardedTest {};

TEST_F(FdioWrite, a_short_write_is_not_repeated)
{
    SocketPair pair;
    fcntl(pair.ours, F_SETFL, O_NONBLOCK);
    const std::string data(4 << 20, 'x');
    const ssize_t n = nwrite(pair.ours, data.data(), data.size(), 0);
    EXPECT_GT(n, 0);
    EXPECT_LT(n, static_cast<ssize_t>(data.size()));
    EXPECT_EQ(g_write.calls, 1);
}

TEST_F(FdioWrite, a_full_buffer_gives_eagain_in_silence)
{
    SocketPair pair;
    fcntl(pair.ours, F_SETFL, O_NONBLOCK);
    const std::string data(1 << 16, 'x');
    while (nwrite(pair.ours, data.data(), data.size(), 0) > 0) {
    }
    EXPECT_EQ(nwrite(pair.ours, data.data(), data.size(), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.text(), "");
}

class FdioRead : public support::GuardedTest {};

TEST_F(FdioRead, the_end_of_the_file_gives_zero)
{
    const int fd = memory_file("abc");
    lseek(fd, 0, SEEK_SET);
    char buf[8];
    EXPECT_EQ(nread(fd, buf, sizeof buf, 0), 3);
    EXPECT_EQ(std::string(buf, 3), "abc");
    EXPECT_EQ(nread(fd, buf, sizeof buf, 0), 0);
    close(fd);
}

TEST_F(FdioRead, a_signal_restarts_a_blocked_read)
{
    PipePair pipe;
    interrupt_by(count_signal);
    const pid_t helper = pester(5, [&] { fill(pipe, "x"); });
    char buf[8];
    EXPECT_EQ(nread(pipe.in, buf, sizeof buf, 0), 1);
    end(helper);
    EXPECT_GE(g_signals, 1);
}

TEST_F(FdioRead, a_signal_with_the_quit_flag_ends_a_blocked_read)
{
    PipePair pipe;
    interrupt_by(set_quit);
    const pid_t helper = pester(0, [] {});
    char buf[8];
    errno = ENOTTY;
    EXPECT_EQ(nread(pipe.in, buf, sizeof buf, 0), -1);
    EXPECT_EQ(errno, 0);
    end(helper);
    g_quit = 0;
}

TEST(FdioPread, reads_at_the_offset_and_leaves_the_position)
{
    FdGuard guard;
    const int fd = memory_file("abcdef");
    lseek(fd, 1, SEEK_SET);
    char buf[8];
    EXPECT_EQ(npread(fd, buf, 2, 3, 0), 2);
    EXPECT_EQ(std::string(buf, 2), "de");
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 1);
    errno = 0;
    EXPECT_EQ(npread(fd, buf, 2, 6, 0), 0);
    EXPECT_EQ(errno, 0);
    close(fd);
}

TEST(FdioSendfile, moves_bytes_and_the_offset)
{
    FdGuard guard;
    SocketPair pair;
    const int fd = memory_file("abcdef");
    off_t offset = 2;
    EXPECT_EQ(nsendfile(pair.ours, fd, &offset, 3, 0, 0), 3);
    EXPECT_EQ(offset, 5);
    char buf[8];
    EXPECT_EQ(__real_read(pair.peer, buf, sizeof buf), 3);
    EXPECT_EQ(std::string(buf, 3), "cde");
    EXPECT_EQ(nsendfile(pair.ours, fd, &offset, 100, 0, 0), 1);
    errno = 0;
    EXPECT_EQ(nsendfile(pair.ours, fd, &offset, 100, 0, 0), 0);
    EXPECT_EQ(errno, 0);
    close(fd);
}

TEST(FdioSendfile, needs_an_offset)
{
    expect_assertion("nsendfile", [] { return static_cast<int>(nsendfile(-1, -1, nullptr, 0, 0, 0)); });
}

class FdioWait : public support::GuardedTest {};

TEST_F(FdioWait, poll_on_socket_gives_the_events)
{
    SocketPair pair;
    EXPECT_EQ(poll_on_socket(pair.ours, POLLIN | POLLOUT, 0), POLLOUT);
    EXPECT_EQ(__real_write(pair.peer, "x", 1), 1);
    EXPECT_EQ(poll_on_socket(pair.ours, POLLIN | POLLOUT, -1), POLLIN | POLLOUT);
}

TEST_F(FdioWait, poll_on_socket_gives_zero_after_its_time)
{
    SocketPair pair;
    EXPECT_EQ(poll_on_socket(pair.ours, POLLIN, 3), 0);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  poll_on_socket: poll() has timed out after 3 ms"});
}

TEST_F(FdioWait, poll_on_socket_does_not_repeat_an_interruption)
{
    SocketPair pair;
    interrupt_by(count_signal);
    const pid_t helper = pester(0, [] {});
    EXPECT_EQ(poll_on_socket(pair.ours, POLLIN, -1), -1);
    EXPECT_EQ(errno, EINTR);
    end(helper);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(FdioWait, to_read_is_ready_not_ready_or_failed)
{
    PipePair pipe;
    EXPECT_EQ(wait_to_read(pipe.in, 0), 1);
    fill(pipe, "x");
    EXPECT_EQ(wait_to_read(pipe.in, 0), 0);
    pipe.in.reset();
    EXPECT_EQ(wait_to_read(pipe.out, 0), -1); // POLLERR: the reader has gone
}

TEST_F(FdioWait, kept_a_hang_up_alone_is_not_ready)
{
    PipePair pipe;
    pipe.out.reset();
    EXPECT_EQ(poll_on_socket(pipe.in, POLLIN, 0), POLLHUP);
    EXPECT_EQ(wait_to_read(pipe.in, 0), 1);
}

TEST_F(FdioWait, to_write_is_ready_not_ready_or_failed)
{
    SocketPair pair;
    EXPECT_EQ(wait_to_write(pair.ours, 0), 0);
    fcntl(pair.ours, F_SETFL, O_NONBLOCK);
    const std::string data(1 << 16, 'x');
    while (nwrite(pair.ours, data.data(), data.size(), 0) > 0) {
    }
    EXPECT_EQ(wait_to_write(pair.ours, 0), 1);
    PipePair pipe;
    pipe.in.reset();
    EXPECT_EQ(wait_to_write(pipe.out, 0), -1);
}

TEST_F(FdioWait, an_interrupted_wait_fails)
{
    SocketPair pair;
    interrupt_by(count_signal);
    const pid_t helper = pester(0, [] {});
    EXPECT_EQ(wait_to_read(pair.ours, -1), -1);
    end(helper);
}

class FdioTestRead : public support::GuardedTest {};

TEST_F(FdioTestRead, a_silent_descriptor_is_an_error_after_its_time)
{
    SocketPair pair;
    const int fd = pair.ours;
    EXPECT_EQ(test_read_fd(fd, 1), 1);
    EXPECT_EQ(log.lines(),
              (Lines{"(WRN)  poll_on_socket: poll() has timed out after 1 ms",
                     "(ERR)  test_read_fd: cannot read from fd=" + std::to_string(fd) + ", nrd=-1"}));
}

TEST_F(FdioTestRead, a_closed_peer_is_an_error)
{
    SocketPair pair;
    const int fd = pair.ours;
    pair.peer.reset();
    EXPECT_EQ(test_read_fd(fd, 1000), -1);
    EXPECT_EQ(log.lines(),
              Lines{"(ERR)  test_read_fd: cannot read from fd=" + std::to_string(fd) + ", nrd=0"});
}

TEST_F(FdioTestRead, a_delivering_descriptor_loses_up_to_half_a_kilobyte)
{
    PipePair pipe;
    fill(pipe, std::string(600, 'x'));
    const int fd = pipe.in;
    {
        log.clear();
        log.set_level(DEBUG_level);
        EXPECT_EQ(test_read_fd(fd, -1), 0);
        EXPECT_EQ(log.lines(),
                  Lines{"(DBG)  test_read_fd: fd=" + std::to_string(fd) + " is readable [512 bytes]"});
    }
    char buf[600];
    EXPECT_EQ(nread(fd, buf, sizeof buf, 0), 88);
}

TEST_F(FdioTestRead, a_failed_read_keeps_its_error)
{
    PipePair pipe;
    fill(pipe, "x");
    g_read = {0, 1, -1, EIO};
    EXPECT_EQ(test_read_fd(pipe.in, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.lines().size(), 2U) << log.text();
}

class FdioOpen : public support::GuardedTest {};

TEST_F(FdioOpen, the_source_is_opened_for_reading)
{
    TempDir dir;
    dir.write("f", "abc");
    const int fd = open_src_file(dir.path("f").c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    close(fd);
    EXPECT_EQ(open_src_file("/nonexistent"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(
        log.lines(),
        Lines{"(ERR)  open_src_file: open('/nonexistent', 0, 0x0) ERROR(2): No such file or directory"});
}

TEST_F(FdioOpen, the_destination_is_created)
{
    TempDir dir;
    const std::string path = dir.path("f");
    const int fd = open_dst_file(path.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);

    struct stat st {};

    EXPECT_EQ(fstat(fd, &st), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 07777, 0644 & ~mask);
    close(fd);
}

TEST_F(FdioOpen, a_destination_that_exists_is_an_error)
{
    TempDir dir;
    dir.write("f", "old");
    EXPECT_EQ(open_dst_file(dir.path("f").c_str(), 0), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  open_dst_file: open('" + dir.path("f") +
                                 "', 705, 0x1a4) ERROR(17): File exists"});
    EXPECT_EQ(dir.read("f"), "old");
}

TEST_F(FdioOpen, an_unlinked_destination_lives_in_its_descriptor)
{
    TempDir dir;
    const int fd = open_dst_file(dir.path("f").c_str(), FDIO_UNLINK_DST);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(dir.has("f"));
    EXPECT_EQ(__real_write(fd, "x", 1), 1);
    close(fd);
}

TEST_F(FdioOpen, kept_a_failed_unlink_leaves_the_descriptor_open)
{
    TempDir dir;
    g_unlink = {0, 1, -1, EBUSY};
    const auto before = support::open_fds();
    EXPECT_EQ(open_dst_file(dir.path("f").c_str(), FDIO_UNLINK_DST), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(log.lines().size(), 1U);
    const auto after = support::open_fds();
    EXPECT_EQ(after.size(), before.size() + 1);
    for (const int fd : after) {
        if (before.count(fd) == 0) {
            close(fd);
        }
    }
}

TEST_F(FdioOpen, sendfile_serves_a_file_and_a_stream_socket)
{
    u_int32_t flags = FDIO_VERBOSE;
    EXPECT_EQ(check_can_sendfile(S_IFIFO, S_IFREG, SOCK_DGRAM, &flags), 1);
    EXPECT_EQ(check_can_sendfile(S_IFREG | 0644, S_IFREG, SOCK_DGRAM, &flags), 2);
    EXPECT_EQ(check_can_sendfile(S_IFREG | 0644, S_IFSOCK, SOCK_DGRAM, &flags), 3);
    EXPECT_EQ(flags, static_cast<u_int32_t>(FDIO_VERBOSE));
    EXPECT_EQ(check_can_sendfile(S_IFREG | 0644, S_IFSOCK | 0777, SOCK_STREAM, &flags), 0);
    EXPECT_EQ(flags, static_cast<u_int32_t>(FDIO_VERBOSE | FDIO_SENDFILE));
    EXPECT_EQ(use_sendfile(flags, nullptr), 1);
    EXPECT_EQ(use_sendfile(FDIO_VERBOSE | FDIO_SENDTO, nullptr), 0);
}

namespace {

// A program that moves some bytes and waits once, and says what its sensors have seen.
std::string sensed_program(int enable)
{
    return run_in_child([=] {
               psensors_init(nullptr, enable);
               PipePair pipe;
               char buf[4];
               const int fd = memory_file("abc");
               SocketPair pair;
               off_t offset = 0;
               g_getrusage_calls = 0;
               nwrite(pipe.out, "abc", 3, 0);
               wait_to_read(pipe.in, 0);
               nread(pipe.in, buf, sizeof buf, 0);
               npread(fd, buf, sizeof buf, 0, 0);
               nsendfile(pair.ours, fd, &offset, 3, 0, 0);
               printf("%d\n", g_getrusage_calls);
               psensors_dump(stdout);
               close(fd);
               return 0;
           })
        .out;
}

} // namespace

TEST(FdioSensors, a_program_with_sensors_sees_its_input_output_and_idle_time)
{
    const std::string text = sensed_program(1);
    EXPECT_EQ(text.find("10\n"), 0U) << text; // two readings for each of five calls
    EXPECT_NE(text.find("P-Sensor [ev_idle]\n== time:\t0."), std::string::npos) << text;
    EXPECT_NE(text.find("P-Sensor [data_in]\n== time:\t0."), std::string::npos) << text;
    EXPECT_NE(text.find("P-Sensor [data_out]\n== time:\t0."), std::string::npos) << text;
    EXPECT_EQ(text.find("ev_loop"), std::string::npos) << text;
}

TEST(FdioSensors, a_program_without_sensors_makes_no_reading)
{
    EXPECT_EQ(sensed_program(0), "0\n");
}
