// The transfer engine, step by step and on real descriptors.
#include "fdio.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <netinet/in.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "asserted.h"
#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "logcap.h"
#include "oom.h"
#include "psensor.h"
#include "text.h"

using support::ChildResult;
using support::expect_abort;
using support::expect_assertion;
using support::FailAllocation;
using support::FdGuard;
using support::Lines;
using support::run_in_child;
using support::SocketPair;

namespace {

constexpr u_int32_t kOptions = 0xffff;

int memory_file(const std::string& text)
{
    const int fd = memfd_create("test", MFD_CLOEXEC);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(lseek(fd, 0, SEEK_SET), 0);
    return fd;
}

std::string content(int fd)
{
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
}

std::string drained(int fd)
{
    std::string text(1 << 16, '\0');
    const ssize_t n = recv(fd, text.data(), text.size(), MSG_DONTWAIT);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

// A spec with its offset and flag word, and the buffer of the module.
class Rig {
  public:
    Rig(int in, int out, u_int32_t options, bool with_offset = true, off_t from = 0)
        : flags(options),
          offset(from),
          spec(new_transfer_spec(in, out, with_offset ? &offset : nullptr, &flags, nullptr, 0))
    {
    }

    ~Rig() { free(spec); }

    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    int step(size_t count)
    {
        moved = -999;
        errno = ENOTTY;
        rc = transfer(spec, count, &moved);
        err = errno;
        return rc;
    }

    u_int32_t results() const { return flags & ~kOptions; }

    u_int32_t flags;
    off_t offset;
    transfer_spec* spec;
    int rc = 0;
    ssize_t moved = 0;
    int err = 0;
};

// Expects how the last step of a rig ended.
#define EXPECT_STEP(rig, result, bytes, bits, error)                                                         \
    do {                                                                                                     \
        EXPECT_EQ((rig).rc, (result));                                                                       \
        EXPECT_EQ((rig).moved, (bytes));                                                                     \
        EXPECT_EQ((rig).results(), static_cast<u_int32_t>(bits));                                            \
        EXPECT_EQ((rig).err, (error));                                                                       \
    } while (0)

// A pair whose tested end does not block, and whose peer may go.
struct Pair : SocketPair {
    explicit Pair(int type = SOCK_STREAM) : SocketPair(type)
    {
        fcntl(ours, F_SETFL, O_NONBLOCK);
        signal(SIGPIPE, SIG_IGN);
    }

    void fill() const
    {
        const std::string data(1 << 16, 'f');
        while (write(ours, data.data(), data.size()) > 0) {
        }
    }
};

class FdioTransfer : public support::GuardedTest {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(fdio_init(MIN_TRF_BUFSIZE), 0);
        log.clear();
    }

    void TearDown() override { fdio_destroy(); }
};

// What an inproc function was given, and what it answers.
struct {
    void* address;
    ssize_t count;
    ssize_t total;
    int result;
    int calls;
} g_inproc;

int inproc(void* address, ssize_t count, ssize_t* total)
{
    g_inproc.address = address;
    g_inproc.count = count;
    ++g_inproc.calls;
    *total = g_inproc.total;
    return g_inproc.result;
}

} // namespace

class FdioBuffer : public support::GuardedTest {};

TEST_F(FdioBuffer, minus_one_gives_the_default_size)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(fdio_init(-1), 0);
    EXPECT_EQ(get_trf_bufsize(), 2097152U);
    EXPECT_EQ(log.lines(), Lines{"(DBG)  set_trf_bufsize: FDIO internal buffer size = 2097152 bytes."});
    fdio_destroy();
    EXPECT_EQ(get_trf_bufsize(), 0U);
}

TEST_F(FdioBuffer, other_sizes_below_one_do_nothing)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(fdio_init(0), 0);
    EXPECT_EQ(fdio_init(-2), 0);
    EXPECT_EQ(get_trf_bufsize(), 0U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FdioBuffer, without_a_buffer_a_transfer_is_an_assertion)
{
    expect_assertion("transfer", [] {
        fdio_init(0);
        Rig rig(0, 1, 0);
        return rig.step(1);
    });
    expect_assertion("transfer", [] {
        Rig rig(0, 1, FDIO_SENDFILE);
        return rig.step(1);
    });
}

TEST_F(FdioBuffer, the_least_size_is_the_limit)
{
    EXPECT_EQ(set_trf_bufsize(65535), -1);
    EXPECT_EQ(get_trf_bufsize(), 0U);
    EXPECT_EQ(set_trf_bufsize(65536), 0);
    EXPECT_EQ(get_trf_bufsize(), 65536U);
    EXPECT_EQ(set_trf_bufsize(65536), 0);
    EXPECT_EQ(set_trf_bufsize(65535), -1);
    EXPECT_EQ(get_trf_bufsize(), 65536U); // the old buffer stays
    EXPECT_EQ(set_trf_bufsize(65537), 0);
    EXPECT_EQ(get_trf_bufsize(), 65537U);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  set_trf_bufsize: transfer buffer size cannot be less than 65536 bytes.",
                     "(WRN)  set_trf_bufsize: transfer buffer size remains 65536 bytes.",
                     "(ERR)  set_trf_bufsize: transfer buffer size cannot be less than 65536 bytes."}));
    fdio_destroy();
    log.clear();
    EXPECT_EQ(fdio_init(5), -1);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(FdioBuffer, kept_a_failed_resize_loses_the_old_buffer)
{
    // In a child, whose end hides the block that is lost on purpose.
    const ChildResult result = run_in_child([this] {
        log.clear();
        fdio_init(65536);
        {
            const FailAllocation failure(1);
            printf("%d;", set_trf_bufsize(100000));
        }
        printf("%zu;%s", get_trf_bufsize(), log.text().c_str());
        log.clear();
        const int same = set_trf_bufsize(65536);
        printf("%d;%s", same, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out.find("-1;65536;(ERR)  set_trf_bufsize: realloc(0x"), 0U) << result.out;
    EXPECT_NE(
        result.out.find(", 100000) ERROR(12): Cannot allocate memory\n"
                        "(ERR)  set_trf_bufsize: failed to allocate 100000 bytes for transfer buffer.\n"),
        std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("0;(WRN)  set_trf_bufsize: transfer buffer size remains 65536 bytes.\n"),
              std::string::npos)
        << result.out;
    expect_assertion("transfer", [] {
        fdio_init(65536);
        {
            const FailAllocation failure(1);
            set_trf_bufsize(100000);
        }
        Rig rig(0, 1, 0);
        return rig.step(1);
    });
}

TEST_F(FdioBuffer, an_absurd_size_fails_instead_of_wrapping)
{
    const FailAllocation failure(1); // no allocator gives that much; a sanitizer's would end the process
    EXPECT_EQ(set_trf_bufsize(std::numeric_limits<size_t>::max() - 100), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_EQ(log.lines().size(), 2U);
    fdio_destroy();
}

TEST_F(FdioBuffer, destroy_without_a_buffer_does_nothing)
{
    fdio_destroy();
    EXPECT_EQ(get_trf_bufsize(), 0U);
}

class FdioSpec : public support::GuardedTest {};

TEST_F(FdioSpec, holds_its_six_values_and_zeros)
{
    log.set_level(DEBUG_level);
    off_t offset = 0;
    u_int32_t flags = FDIO_VERBOSE;
    char aux = 0;
    transfer_spec* spec = new_transfer_spec(3, 4, &offset, &flags, &aux, 1);
    EXPECT_EQ(spec->in_fd, 3);
    EXPECT_EQ(spec->out_fd, 4);
    EXPECT_EQ(spec->offset, &offset);
    EXPECT_EQ(spec->flags, &flags);
    EXPECT_EQ(spec->aux, &aux);
    EXPECT_EQ(spec->aux_len, 1);
    EXPECT_EQ(spec->mmem, nullptr);
    EXPECT_EQ(spec->mmlen, 0U);
    EXPECT_EQ(spec->mmem_out, 0U);
    EXPECT_EQ(spec->inproc, nullptr);
    free(spec);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FdioSpec, tells_of_sendfile)
{
    log.set_level(INFO_level);
    u_int32_t flags = FDIO_SENDFILE;
    transfer_spec* spec = new_transfer_spec(3, 4, nullptr, &flags, nullptr, 0);
    char expected[128];
    snprintf(expected, sizeof expected, "(INF)  new_transfer_spec(%p): SENDFILE on for fd4<-fd3\n",
             static_cast<void*>(spec));
    EXPECT_EQ(log.text(), expected);
    free(spec);
}

TEST_F(FdioSpec, without_memory_the_process_ends)
{
    const std::string text = expect_abort("new_transfer_spec: calloc(1, ", [] {
        u_int32_t flags = 0;
        const FailAllocation failure(1);
        free(new_transfer_spec(3, 4, nullptr, &flags, nullptr, 0));
    });
    EXPECT_TRUE(support::asserted_in(text, "new_transfer_spec")) << text;
}

TEST_F(FdioTransfer, kept_three_steps_read_a_file_of_five_bytes_and_a_fourth_sees_its_end)
{
    const int in = memory_file("abcde");
    const int out = memory_file("");
    Rig rig(in, out, 0);
    rig.step(2);
    EXPECT_STEP(rig, 0, 2, 0, 0);
    rig.step(2);
    EXPECT_STEP(rig, 0, 2, 0, 0);
    rig.step(2);
    EXPECT_STEP(rig, 0, 1, 0, 0);
    EXPECT_EQ(rig.offset, 5);
    rig.step(2);
    EXPECT_STEP(rig, 0, 0, FDIO_EOF | FDIO_ERR_READ, 0);
    EXPECT_EQ(rig.offset, 5);
    EXPECT_EQ(content(out), "abcde");
    rig.offset = 4; // the result bits are of the last step alone
    rig.step(2);
    EXPECT_STEP(rig, 0, 1, 0, 0);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_count_of_zero_or_above_the_buffer_moves_a_buffer_full)
{
    const int in = memory_file(std::string(3UL * 65536, 'x'));
    const int out = memory_file("");
    Rig rig(in, out, 0, false);
    rig.step(0);
    EXPECT_STEP(rig, 0, 65536, 0, 0);
    rig.step(65537);
    EXPECT_STEP(rig, 0, 65536, 0, 0);
    rig.step(65535);
    EXPECT_STEP(rig, 0, 65535, 0, 0);
    EXPECT_EQ(content(out).size(), 3U * 65536 - 1);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, bytes_need_not_be_asked_for)
{
    const int in = memory_file("abc");
    const int out = memory_file("");
    Rig rig(in, out, 0);
    EXPECT_EQ(transfer(rig.spec, 2, nullptr), 0);
    EXPECT_EQ(rig.offset, 2);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_negative_offset_reads_as_a_stream)
{
    const int in = memory_file("abc");
    const int out = memory_file("");
    Rig rig(in, out, 0, true, -2);
    rig.step(2);
    EXPECT_STEP(rig, 0, 2, 0, 0);
    EXPECT_EQ(rig.offset, 0);
    EXPECT_EQ(lseek(in, 0, SEEK_CUR), 2);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_step_tells_what_it_did_at_debug_level)
{
    const int in = memory_file("abc");
    const int out = memory_file("");
    Rig rig(in, out, FDIO_TRF_RWEQ);
    log.set_level(DEBUG_level);
    rig.step(2);
    char expected[256];
    snprintf(expected, sizeof expected,
             "(DBG)  transfer_out: [%p] +2 -> fd%d\n(DBG)  transfer: %d->%d [r2/w2  2 bytes], flags=0x2\n",
             static_cast<void*>(rig.spec), out, in, out);
    EXPECT_EQ(log.text(), expected);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_failed_read_without_verbose_is_its_error)
{
    const int out = memory_file("");
    Pair pair;
    Rig rig(pair.ours, out, 0, false);
    rig.step(10); // nothing there
    EXPECT_STEP(rig, -1, 0, FDIO_ERR_READ, EAGAIN);
    EXPECT_EQ(log.text(), "");
    close(out);
}

TEST_F(FdioTransfer, a_failed_read_with_verbose_is_logged_and_forgiven_if_it_may_be_repeated)
{
    const int out = memory_file("");
    Pair pair;
    Rig rig(pair.ours, out, FDIO_VERBOSE, false);
    rig.step(10);
    EXPECT_STEP(rig, 0, 0, FDIO_ERR_READ, EAGAIN);
    ASSERT_EQ(log.lines().size(), 2U); // the checked call's line and the engine's
    EXPECT_EQ(log.lines()[1], "(ERR)  transfer (" + std::to_string(pair.ours) + "->" + std::to_string(out) +
                                  ", 10 bytes) read ERROR(11): Resource temporarily unavailable");
    close(out);
}

TEST_F(FdioTransfer, any_other_read_error_is_logged_and_fails)
{
    const int out = memory_file("");
    for (const bool with_offset : {true, false}) {
        Rig rig(-1, out, 0, with_offset);
        log.clear();
        rig.step(10);
        EXPECT_STEP(rig, -1, 0, FDIO_ERR_READ, EBADF);
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[1], "(ERR)  transfer (-1->" + std::to_string(out) +
                                      ", 10 bytes) read ERROR(9): Bad file descriptor");
        EXPECT_EQ(rig.offset, 0);
    }
    close(out);
}

TEST_F(FdioTransfer, a_broken_peer_is_an_error_without_verbose)
{
    const int in = memory_file("abc");
    Pair pair;
    pair.peer.reset();
    Rig rig(in, pair.ours, 0);
    rig.step(3);
    EXPECT_STEP(rig, -1, 0, FDIO_ERR_WRITE, EPIPE);
    EXPECT_EQ(rig.offset, 0);
    EXPECT_EQ(log.text(), "");
    close(in);
}

TEST_F(FdioTransfer, a_failed_write_is_no_mismatch)
{
    const int in = memory_file("abc");
    Pair pair;
    pair.peer.reset();
    Rig rig(in, pair.ours, FDIO_TRF_RWEQ);
    rig.step(3);
    EXPECT_STEP(rig, -1, 0, FDIO_ERR_WRITE, EPIPE);
    EXPECT_EQ(log.text().find("mismatch"), std::string::npos) << log.text();
    close(in);
}

TEST_F(FdioTransfer, a_datagram_for_a_broken_peer_raises_no_signal)
{
    const ChildResult result = run_in_child([] {
        const int in = memory_file("abc");
        Pair pair;
        pair.peer.reset();
        signal(SIGPIPE, SIG_DFL);
        Rig rig(in, pair.ours, FDIO_SENDTO);
        rig.step(3);
        return rig.rc == -1 && rig.err == EPIPE && rig.results() == FDIO_ERR_WRITE ? 0 : 1;
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exit_code, 0);
}

TEST_F(FdioTransfer, a_broken_peer_is_logged_and_forgiven_with_verbose)
{
    const int in = memory_file("abc");
    Pair pair;
    pair.peer.reset();
    Rig rig(in, pair.ours, FDIO_VERBOSE);
    rig.step(3);
    EXPECT_STEP(rig, 0, 0, FDIO_ERR_WRITE, EPIPE);
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[1], "(ERR)  transfer (" + std::to_string(in) + "->" + std::to_string(pair.ours) +
                                  ", 3 bytes) write ERROR(32): Broken pipe");
    close(in);
}

TEST_F(FdioTransfer, a_full_buffer_is_eagain_and_an_offset_keeps_the_data)
{
    const int in = memory_file("abc");
    Pair pair;
    pair.fill();
    Rig quiet(in, pair.ours, 0);
    quiet.step(3);
    EXPECT_STEP(quiet, -1, 0, FDIO_ERR_WRITE, EAGAIN);
    EXPECT_EQ(quiet.offset, 0);
    EXPECT_EQ(log.text(), "");
    Rig verbose(in, pair.ours, FDIO_VERBOSE);
    verbose.step(3);
    EXPECT_STEP(verbose, 0, 0, FDIO_ERR_WRITE, EAGAIN);
    Rig stream(in, pair.ours, 0, false); // without an offset the data is gone
    stream.step(3);
    EXPECT_STEP(stream, -1, 0, FDIO_ERR_WRITE, EAGAIN);
    EXPECT_EQ(lseek(in, 0, SEEK_CUR), 3);
    close(in);
}

TEST_F(FdioTransfer, any_other_write_error_is_logged_and_fails)
{
    const int in = memory_file("abc");
    Rig rig(in, -1, 0);
    rig.step(3);
    EXPECT_STEP(rig, -1, 0, FDIO_ERR_WRITE, EBADF);
    EXPECT_EQ(log.lines().size(), 2U);
    close(in);
}

TEST_F(FdioTransfer, a_short_write_is_no_error_and_moves_by_what_was_written)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const std::string half(fcntl(ends[1], F_GETPIPE_SZ) / 2, 'h');
    ASSERT_EQ(write(ends[1], half.data(), half.size()), static_cast<ssize_t>(half.size()));
    const int in = memory_file(std::string(65536, 'x'));
    for (const bool with_offset : {true, false}) {
        Rig rig(in, ends[1], FDIO_TRF_RWEQ, with_offset);
        log.clear();
        rig.step(0);
        EXPECT_GT(rig.moved, 0);
        EXPECT_LT(rig.moved, 65536);
        EXPECT_STEP(rig, 0, rig.moved, 0, 0);
        EXPECT_EQ(rig.offset, with_offset ? rig.moved : 0); // the rest of a stream is gone
        EXPECT_EQ(log.lines(),
                  Lines{"(ERR)  transfer: fd in/out=[" + std::to_string(in) + "/" + std::to_string(ends[1]) +
                        "] mismatch: read/write=[65536/" + std::to_string(rig.moved) + "]"});
        std::string rest(static_cast<size_t>(rig.moved), '\0');
        ASSERT_EQ(read(ends[0], rest.data(), rest.size()), rig.moved);
    }
    EXPECT_EQ(lseek(in, 0, SEEK_CUR), 65536);
    close(in);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(FdioTransfer, sendfile_moves_the_callers_count_and_the_position)
{
    const int in = memory_file(std::string(100000, 'x'));
    Pair pair;
    Rig rig(in, pair.ours, FDIO_SENDFILE);
    log.set_level(DEBUG_level);
    rig.step(70000); // more than the buffer holds
    EXPECT_STEP(rig, 0, 70000, 0, 0);
    EXPECT_EQ(rig.offset, 70000);
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[0], "(DBG)  transfer: using sendfile");
    close(in);
}

TEST_F(FdioTransfer, kept_sendfile_of_zero_bytes_reports_the_end)
{
    const int in = memory_file("abc");
    Pair pair;
    Rig rig(in, pair.ours, FDIO_SENDFILE);
    rig.step(0);
    EXPECT_STEP(rig, 0, 0, FDIO_EOF, 0);
    EXPECT_EQ(drained(pair.peer), "");
    rig.offset = 3;
    rig.step(5);
    EXPECT_STEP(rig, 0, 0, FDIO_EOF, 0);
    close(in);
}

TEST_F(FdioTransfer, kept_any_sendfile_failure_reads_as_the_end)
{
    const int in = memory_file("abc");
    Pair pair;
    pair.fill();
    Rig full(in, pair.ours, FDIO_SENDFILE);
    full.step(3);
    EXPECT_STEP(full, 0, 0, FDIO_EOF, 0);
    pair.peer.reset();
    Rig broken(in, pair.ours, FDIO_SENDFILE);
    broken.step(3);
    EXPECT_STEP(broken, 0, 0, FDIO_EOF, 0);
    Rig bad(-1, pair.ours, FDIO_SENDFILE);
    bad.step(3);
    EXPECT_STEP(bad, 0, 0, FDIO_EOF, 0);
    EXPECT_EQ(bad.offset, 0);
    EXPECT_NE(log.text().find("nsendfile: LNX sendfile("), std::string::npos) << log.text();
    close(in);
}

TEST_F(FdioTransfer, datagrams_go_to_the_address_of_the_spec)
{
    const int rx = socket(AF_INET, SOCK_DGRAM, 0);
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    ASSERT_EQ(bind(rx, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(getsockname(rx, reinterpret_cast<sockaddr*>(&addr), &length), 0);
    psensors_init(nullptr, 1);
    const int in = memory_file("first second");
    Rig rig(in, tx, FDIO_SENDTO);
    rig.spec->aux = &addr;
    rig.spec->aux_len = sizeof addr;
    rig.step(6);
    EXPECT_STEP(rig, 0, 6, 0, 0);
    rig.step(100);
    EXPECT_STEP(rig, 0, 6, 0, 0);
    char buf[64];
    EXPECT_EQ(std::string(buf, static_cast<size_t>(recv(rx, buf, sizeof buf, 0))), "first ");
    EXPECT_EQ(std::string(buf, static_cast<size_t>(recv(rx, buf, sizeof buf, 0))), "second");
    const timespec& tm = g_psensor[PRF_DATAOUT].sensor.accum.tm;
    EXPECT_TRUE(tm.tv_sec > 0 || tm.tv_nsec > 0);
    close(in);
    close(rx);
    close(tx);
}

TEST_F(FdioTransfer, a_datagram_that_is_too_long_fails_with_the_error_of_sendto)
{
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(9);
    const int in = memory_file(std::string(65536, 'x'));
    Rig rig(in, tx, FDIO_SENDTO);
    rig.spec->aux = &addr;
    rig.spec->aux_len = sizeof addr;
    rig.step(0);
    EXPECT_STEP(rig, -1, 0, FDIO_ERR_WRITE, EMSGSIZE);
    // No line of the checked call, only the engine's own.
    EXPECT_EQ(log.lines(), Lines{"(ERR)  transfer (" + std::to_string(in) + "->" + std::to_string(tx) +
                                 ", 0 bytes) write ERROR(90): Message too long"});
    close(in);
    close(tx);
}

TEST_F(FdioTransfer, memory_is_filled_from_a_descriptor)
{
    const int in = memory_file("abcdefgh");
    char block[6] = {'#', '#', '#', '#', '#', '#'};
    Rig rig(in, -1, 0, true, 1);
    rig.spec->mmem = block;
    rig.spec->mmlen = sizeof block;
    rig.step(3);
    EXPECT_STEP(rig, 0, 3, 0, 0);
    EXPECT_EQ(std::string(block, 6), "#abc##"); // a plain read, to the position in the block
    EXPECT_EQ(rig.offset, 4);
    rig.step(3); // two are left
    EXPECT_STEP(rig, 0, 2, 0, 0);
    char expected[256];
    snprintf(expected, sizeof expected,
             "(WRN)  mm_in: attempt to reach over the end of buffer: buf=%p, len=6, offset=4, "
             "count=3 - new_count=2\n",
             static_cast<void*>(block));
    EXPECT_EQ(log.text(), expected);
    EXPECT_EQ(std::string(block, 6), "#abcde");
    log.clear();
    rig.step(3); // none is left: the read count is 0, which is the end
    EXPECT_STEP(rig, 0, 0, FDIO_EOF, 0);
    EXPECT_EQ(log.lines().size(), 1U);
    close(in);
}

TEST_F(FdioTransfer, kept_memory_is_written_to_a_descriptor)
{
    const int out = memory_file("");
    char block[] = {'a', 'b', 'c', 'd', 'e'};
    Rig rig(-1, out, FDIO_SENDFILE); // memory wins
    rig.spec->mmem = block;
    rig.spec->mmlen = sizeof block;
    rig.spec->mmem_out = 1;
    rig.step(3);
    EXPECT_STEP(rig, 0, 3, 0, 0);
    rig.step(3);
    EXPECT_STEP(rig, 0, 2, 0, 0);
    EXPECT_EQ(content(out), "abcde");
    EXPECT_EQ(log.lines().size(), 1U);
    log.clear();
    rig.step(3); // at the end: nothing moves, but it is no end of stream
    EXPECT_STEP(rig, 0, 0, 0, 0);
    char expected[256];
    snprintf(expected, sizeof expected,
             "(WRN)  mm_out: attempt to reach over the end of buffer: buf=%p, len=5, offset=5, "
             "count=3 - new_count=0\n",
             static_cast<void*>(block));
    EXPECT_EQ(log.text(), expected);
    close(out);
}

TEST_F(FdioTransfer, a_count_to_the_very_end_of_the_block_needs_no_warning)
{
    for (const unsigned out : {0U, 1U}) {
        const int file = memory_file("abcd");
        char block[] = {'1', '2', '3', '4'};
        Rig rig(file, file, 0);
        rig.spec->mmem = block;
        rig.spec->mmlen = sizeof block;
        rig.spec->mmem_out = out & 1U;
        log.clear();
        rig.step(sizeof block);
        EXPECT_STEP(rig, 0, 4, 0, 0);
        EXPECT_EQ(log.text(), "");
        rig.offset = 3;
        EXPECT_EQ(lseek(file, 0, SEEK_SET), 0);
        rig.step(2); // one byte is left
        EXPECT_STEP(rig, 0, 1, 0, 0);
        ASSERT_EQ(log.lines().size(), 1U) << log.text();
        EXPECT_NE(log.text().find("offset=3, count=2 - new_count=1\n"), std::string::npos) << log.text();
        close(file);
    }
}

TEST_F(FdioTransfer, a_position_outside_the_block_moves_nothing)
{
    const int file = memory_file("abc");
    char block[4] = {};

    const struct {
        off_t position;
        const char* left;
    } kCases[] = {
        {6, "new_count=-2\n"}, {-1, "new_count=0\n"}, {std::numeric_limits<off_t>::min(), "new_count=0\n"}};

    for (const auto& [position, left] : kCases) {
        for (const unsigned out : {0U, 1U}) {
            Rig rig(file, file, 0, true, position);
            rig.spec->mmem = block;
            rig.spec->mmlen = sizeof block;
            rig.spec->mmem_out = out & 1U;
            log.clear();
            rig.step(2);
            EXPECT_STEP(rig, 0, 0, out != 0 ? 0 : FDIO_EOF, 0);
            EXPECT_EQ(rig.offset, position);
            EXPECT_NE(log.text().find(left), std::string::npos) << log.text();
        }
    }
    EXPECT_EQ(content(file), "abc");
    close(file);
}

TEST_F(FdioTransfer, kept_a_failed_step_moves_the_position_in_memory_back)
{
    char block[4] = {'a', 'b', 'c', 'd'};
    for (const unsigned out : {0U, 1U}) {
        Rig rig(-1, -1, 0, true, 1);
        rig.spec->mmem = block;
        rig.spec->mmlen = sizeof block;
        rig.spec->mmem_out = out & 1U;
        rig.step(2);
        EXPECT_STEP(rig, -1, -1, out != 0 ? FDIO_ERR_WRITE : FDIO_ERR_READ, EBADF);
        EXPECT_EQ(rig.offset, 0);
        rig.step(2);
        EXPECT_EQ(rig.offset, -1);
        rig.step(2); // before the block: a warning, and nothing else
        EXPECT_STEP(rig, 0, 0, out != 0 ? 0 : FDIO_EOF, 0);
        EXPECT_EQ(rig.offset, -1);
    }
}

TEST_F(FdioTransfer, memory_needs_an_offset)
{
    expect_assertion("memory_step", [] {
        char block[4];
        Rig rig(0, 1, 0, false);
        rig.spec->mmem = block;
        rig.spec->mmlen = sizeof block;
        return rig.step(1);
    });
}

TEST(FdioMemory, without_a_transfer_buffer_the_portion_is_nothing)
{
    FdGuard guard;
    const int in = memory_file("abc");
    char block[4] = {};
    Rig rig(in, -1, 0);
    rig.spec->mmem = block;
    rig.spec->mmlen = sizeof block;
    rig.step(2);
    EXPECT_STEP(rig, 0, 0, FDIO_EOF | FDIO_ERR_READ, 0);
    close(in);
    expect_assertion("transfer_out", [] {
        char source[4] = {};
        Rig out(-1, 1, 0);
        out.spec->mmem = source;
        out.spec->mmlen = sizeof source;
        out.spec->mmem_out = 1;
        return out.step(2);
    });
}

TEST_F(FdioTransfer, inproc_sees_the_block_and_sets_the_total)
{
    const int in = memory_file("abcdef");
    char block[8] = {};
    Rig rig(in, -1, FDIO_TRF_RWEQ, true, 2);
    rig.spec->mmem = block;
    rig.spec->mmlen = sizeof block;
    rig.spec->inproc = inproc;
    g_inproc = {nullptr, 0, 1, 0, 0};
    rig.step(4);
    EXPECT_STEP(rig, 0, 1, 0, 0);
    EXPECT_EQ(g_inproc.address, block + 2);
    EXPECT_EQ(g_inproc.count, 4);
    EXPECT_EQ(rig.offset, 3);
    EXPECT_EQ(log.lines(),
              Lines{"(ERR)  transfer: fd in/out=[" + std::to_string(in) + "/-1] mismatch: read/write=[4/1]"});
    close(in);
}

namespace {

// An inproc that ends the step with an error as if one side had failed with it.
u_int32_t* g_shared_flags = nullptr;
u_int32_t g_side = 0;
int g_error = 0;

int failing_side(void* address, ssize_t count, ssize_t* total)
{
    (void)address;
    (void)count;
    *total = 0;
    *g_shared_flags |= g_side;
    return g_error;
}

} // namespace

TEST_F(FdioTransfer, what_is_forgiven_depends_on_the_side_and_on_sendfile)
{
    const struct {
        u_int32_t options;
        u_int32_t side;
        int error;
        int rc;
        const char* word;
    } cases[] = {
        {FDIO_VERBOSE, FDIO_ERR_WRITE, EPIPE, 0, "write"},
        {FDIO_VERBOSE, FDIO_ERR_READ, EPIPE, -1, "read"},
        {FDIO_VERBOSE, FDIO_ERR_READ, EAGAIN, 0, "read"},
        {FDIO_VERBOSE, FDIO_ERR_WRITE, EAGAIN, 0, "write"},
        {FDIO_VERBOSE, 0, EAGAIN, 0, "???"},
        {FDIO_VERBOSE, FDIO_ERR_WRITE, EINTR, -1, "write"},
        {FDIO_VERBOSE, FDIO_ERR_WRITE, ECONNRESET, -1, "write"},
        {FDIO_SENDFILE, FDIO_ERR_WRITE, EBUSY, 0, "write"},
        {FDIO_SENDFILE, FDIO_ERR_READ, EBUSY, -1, "read"},
        {0, FDIO_ERR_WRITE, EBUSY, -1, "write"},
    };

    const int in = memory_file("abcdef");
    char block[8] = {};
    for (const auto& one : cases) {
        EXPECT_EQ(lseek(in, 0, SEEK_SET), 0);
        Rig rig(in, 9, one.options); // with a block, FDIO_SENDFILE changes nothing else
        rig.spec->mmem = block;
        rig.spec->mmlen = sizeof block;
        rig.spec->inproc = failing_side;
        g_shared_flags = &rig.flags;
        g_side = one.side;
        g_error = one.error;
        log.clear();
        rig.step(2);
        EXPECT_EQ(rig.rc, one.rc) << one.word << one.error;
        EXPECT_EQ(rig.results(), one.side);
        EXPECT_EQ(log.lines(), Lines{"(ERR)  transfer (" + std::to_string(in) + "->9, 2 bytes) " + one.word +
                                     " ERROR(" + std::to_string(one.error) + "): " + strerror(one.error)});
    }
    close(in);
}

TEST_F(FdioTransfer, an_error_at_the_end_of_the_stream_is_told_as_such)
{
    const int in = memory_file("abcdef");
    char block[8] = {};
    Rig rig(in, 9, 0);
    rig.spec->mmem = block;
    rig.spec->mmlen = sizeof block;
    rig.spec->inproc = failing_side;
    g_shared_flags = &rig.flags;
    g_side = FDIO_EOF | FDIO_ERR_READ;
    g_error = EIO;
    log.set_level(DEBUG_level);
    rig.step(2);
    EXPECT_EQ(rig.rc, -1);
    const std::string number = std::to_string(in);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 3U) << log.text();
    EXPECT_EQ(lines[0], "(DBG)  transfer [2 bytes] (9<-" + number + ") end of stream");
    EXPECT_EQ(lines[1],
              "(ERR)  transfer (" + number + "->9, 2 bytes) ??? ERROR(5): " + std::string(strerror(EIO)));
    close(in);
}

TEST_F(FdioTransfer, every_bit_above_the_options_is_cleared)
{
    const int in = memory_file("abcdef");
    const int out = memory_file("");
    Rig rig(in, out, 0xfffff800);
    rig.step(2);
    EXPECT_STEP(rig, 0, 2, 0, 0);
    EXPECT_EQ(rig.flags, 0xf800U);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_failed_inproc_ends_the_step_with_its_error)
{
    const int in = memory_file("abcdef");
    const int out = memory_file("");
    char block[8] = {};
    for (const bool memory : {true, false}) {
        for (const int error : {EINVAL, EAGAIN}) {
            Rig rig(in, out, 0);
            rig.spec->mmem = memory ? block : nullptr;
            rig.spec->mmlen = sizeof block;
            rig.spec->inproc = inproc;
            g_inproc = {nullptr, 0, 0, error, 0};
            log.clear();
            rig.step(2);
            EXPECT_EQ(rig.rc, -1);
            EXPECT_EQ(rig.moved, 0);
            EXPECT_EQ(g_inproc.calls, 1);
            EXPECT_EQ(rig.results(), 0U);
            if (error == EAGAIN) {
                EXPECT_EQ(rig.err, EAGAIN);
                EXPECT_EQ(log.text(), "");
            } else {
                EXPECT_EQ(log.lines(),
                          Lines{"(ERR)  transfer (" + std::to_string(in) + "->" + std::to_string(out) +
                                ", 2 bytes) ??? ERROR(22): Invalid argument"});
            }
        }
    }
    EXPECT_EQ(content(out), "");
    close(in);
    close(out);
}

TEST_F(FdioTransfer, kept_between_descriptors_inproc_does_not_see_the_data)
{
    const int in = memory_file("abcdef");
    const int out = memory_file("");
    Rig rig(in, out, 0, true, 1);
    rig.spec->inproc = inproc;
    g_inproc = {nullptr, 0, 2, 0, 0};
    rig.step(4);
    EXPECT_STEP(rig, 0, 2, 0, 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(g_inproc.address), 1U); // no block, plus the position
    EXPECT_EQ(g_inproc.count, 4);
    EXPECT_EQ(content(out), "bc");
    EXPECT_EQ(rig.offset, 3);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_total_that_the_buffer_cannot_hold_is_an_assertion)
{
    for (const ssize_t total :
         {ssize_t{65537}, ssize_t{-1}, ssize_t{0}, std::numeric_limits<ssize_t>::min()}) {
        g_inproc = {nullptr, 0, total, 0, 0};
        expect_abort(": Assertion", [] {
            Rig rig(memory_file("abc"), memory_file(""), 0);
            rig.spec->inproc = inproc;
            rig.step(2);
        });
    }
    const int whole = memory_file(std::string(65536, 'x'));
    const int in = memory_file("abc");
    const int out = memory_file("");
    EXPECT_EQ(Rig(whole, out, 0).step(65536), 0); // now each byte of the buffer has a value
    close(whole);
    Rig rig(in, out, 0);
    rig.spec->inproc = inproc;
    g_inproc = {nullptr, 0, 65536, 0, 0}; // all that it holds may go
    rig.step(2);
    EXPECT_STEP(rig, 0, 65536, 0, 0);
    close(in);
    close(out);
}

TEST_F(FdioTransfer, a_wild_total_in_memory_overflows_nothing)
{
    const int in = memory_file("abcdef");
    char block[8] = {};
    Rig rig(in, -1, 0, true, 2);
    rig.spec->mmem = block;
    rig.spec->mmlen = sizeof block;
    rig.spec->inproc = inproc;
    g_inproc = {nullptr, 0, std::numeric_limits<ssize_t>::max(), 0, 0};
    rig.step(2);
    EXPECT_EQ(rig.offset, std::numeric_limits<off_t>::min() + 1);
    rig.spec->inproc = nullptr;
    rig.step(2);
    EXPECT_STEP(rig, 0, 0, FDIO_EOF, 0);
    close(in);
}

TEST_F(FdioTransfer, inproc_between_descriptors_needs_an_offset)
{
    expect_assertion("buffer_step", [] {
        Rig rig(memory_file("abc"), memory_file(""), 0, false);
        rig.spec->inproc = inproc;
        return rig.step(2);
    });
}

namespace {

constexpr size_t kStormBytes = size_t{344} << 20;

volatile sig_atomic_t g_alarms = 0;

// A signal every 200 microseconds that ends blocked calls.
void start_storm()
{
    struct sigaction action {};

    action.sa_handler = [](int) { g_alarms = g_alarms + 1; };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

void end_storm()
{
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
}

uint64_t next_word(uint64_t& state)
{
    uint64_t z = (state += 0x9e3779b97f4a7c15);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

// A file in memory, mapped.
class Mapped {
  public:
    Mapped() : fd(memfd_create("storm", MFD_CLOEXEC))
    {
        EXPECT_EQ(ftruncate(fd, static_cast<off_t>(kStormBytes)), 0);
        words = static_cast<uint64_t*>(mmap(nullptr, kStormBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        EXPECT_NE(words, MAP_FAILED);
    }

    ~Mapped()
    {
        munmap(words, kStormBytes);
        close(fd);
    }

    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;

    int fd;
    uint64_t* words;
};

enum class Road { Buffer, Sendfile, Memory };

// Moves the whole file to a socket, and in another process from there to a second file; both under the storm.
void move_under_storm(Road road)
{
    FdGuard guard;
    Mapped source;
    const Mapped target;
    uint64_t state = 42;
    for (size_t i = 0; i < kStormBytes / sizeof(uint64_t); ++i) {
        source.words[i] = next_word(state);
    }
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const pid_t receiver = fork();
    if (receiver == 0) {
        close(ends[0]);
        start_storm();
        Rig rig(ends[1], target.fd, 0, false);
        while (rig.step(0) == 0 && (rig.results() & FDIO_EOF) == 0) {
        }
        _exit(rig.rc == 0 ? 0 : 1);
    }
    close(ends[1]);
    start_storm();
    Rig rig(source.fd, ends[0], road == Road::Sendfile ? FDIO_SENDFILE : 0);
    rig.spec->mmem = road == Road::Memory ? source.words : nullptr;
    rig.spec->mmlen = kStormBytes;
    rig.spec->mmem_out = 1;
    while (rig.offset < static_cast<off_t>(kStormBytes) &&
           rig.step(kStormBytes - static_cast<size_t>(rig.offset)) == 0 && rig.moved > 0) {
    }
    end_storm();
    close(ends[0]);
    EXPECT_EQ(rig.offset, static_cast<off_t>(kStormBytes));
    int status = -1;
    while (waitpid(receiver, &status, 0) != receiver && errno == EINTR) {
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(memcmp(source.words, target.words, kStormBytes), 0);
    EXPECT_GT(g_alarms, 0);
}

} // namespace

TEST_F(FdioTransfer, a_large_file_arrives_bit_identical_under_a_storm_of_signals)
{
    move_under_storm(Road::Buffer);
}

TEST_F(FdioTransfer, a_large_file_arrives_bit_identical_by_sendfile_under_a_storm_of_signals)
{
    move_under_storm(Road::Sendfile);
}

TEST_F(FdioTransfer, a_large_block_arrives_bit_identical_under_a_storm_of_signals)
{
    move_under_storm(Road::Memory);
}

TEST_F(FdioTransfer, a_block_is_filled_from_a_socket_piece_by_piece)
{
    Pair pair;
    std::string block(100000, '\0');
    std::string expected(100000, '\0');
    uint64_t state = 7;
    for (char& c : expected) {
        c = static_cast<char>(next_word(state));
    }
    Rig rig(pair.ours, -1, 0);
    rig.spec->mmem = block.data();
    rig.spec->mmlen = block.size();
    for (size_t sent = 0; sent < expected.size();) {
        const size_t piece = std::min<size_t>(1 + next_word(state) % 9000, expected.size() - sent);
        ASSERT_EQ(write(pair.peer, expected.data() + sent, piece), static_cast<ssize_t>(piece));
        sent += piece;
        rig.step(block.size() - static_cast<size_t>(rig.offset));
        ASSERT_EQ(rig.moved, static_cast<ssize_t>(piece));
    }
    EXPECT_EQ(block, expected);
}
