// The transfer engine over its ways, with offsets, counts and flags from the input. Nothing leaves the block,
// a step moves no more than the buffer holds, and no descriptor is left over. Steps come with a processing
// step in between, without a position, from a socket that has nothing, and to one whose peer is gone.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fdio.h"
#include "log.h"

namespace {

size_t open_descriptors()
{
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

// One step: way and flags, count, and eight bytes of position.
struct Order {
    uint8_t way;
    uint8_t count;
    int64_t offset;
};

constexpr size_t kOrderBytes = 10;

// Lets a part of what was read go on, or refuses it.
int process(void*, ssize_t count, ssize_t* total)
{
    *total = count <= 0 ? 0 : count - count / 3;
    if (count <= 0) {
        return 0;
    }
    return count % 7 == 0 ? EAGAIN : count % 11 == 0 ? EPIPE : count % 13 == 0 ? EBUSY : 0;
}

// What stands behind the flags of a step: 0x40 with process(); 0x80 from the socket, or without a position
// where none is needed.
void choose_ends(const Order& order, transfer_spec* spec)
{
    const bool in_block = spec->mmem != nullptr;
    if ((order.way & 0x40) != 0) {
        spec->inproc = process;
    }
    if ((order.way & 0x80) == 0) {
        return;
    }
    if (in_block || (*spec->flags & FDIO_SENDFILE) != 0 || spec->inproc != nullptr) {
        spec->in_fd = spec->out_fd;
    } else {
        spec->offset = nullptr;
    }
}

void run_step(const Order& order, int file, int sock, char* block, size_t length)
{
    uint32_t flags = (order.way & 0x04) != 0 ? FDIO_VERBOSE : 0;
    flags |= (order.way & 0x08) != 0 ? FDIO_TRF_RWEQ : 0;
    flags |= (order.way & 0x10) != 0 ? FDIO_SENDFILE : 0;
    flags |= (order.way & 0x20) != 0 ? FDIO_SENDTO : 0;
    off_t offset = order.offset;
    const bool memory = (order.way & 0x01) != 0;
    const bool out = (order.way & 0x02) != 0;
    transfer_spec* spec = new_transfer_spec(file, sock, &offset, &flags, nullptr, 0);
    spec->mmem = memory ? block : nullptr;
    spec->mmlen = length;
    spec->mmem_out = out ? 1 : 0;
    choose_ends(order, spec);
    ssize_t moved = 0;
    const size_t count = order.count == 253 ? 100'000 : order.count; // more than the buffer holds
    const int rc = transfer(spec, count, order.count == 255 ? nullptr : &moved);
    const auto limit = static_cast<ssize_t>(get_trf_bufsize());
    if (moved > limit || moved < -1 || (rc != 0 && rc != -1)) {
        abort();
    }
    free(spec);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_log.fp = nullptr;
    (void)signal(SIGPIPE, SIG_IGN);
    const size_t before = open_descriptors();
    int ends[2];
    const int file = memfd_create("fuzz", 0);
    if (fdio_init(MIN_TRF_BUFSIZE) != 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0 ||
        write(file, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    auto* block = static_cast<char*>(calloc(1, size + 1));
    for (size_t at = 0; at + kOrderBytes <= size && at < 64 * kOrderBytes; at += kOrderBytes) {
        Order order = {data[at], data[at + 1], 0};
        memcpy(&order.offset, data + at + 2, sizeof order.offset);
        lseek(file, 0, SEEK_SET);
        if (order.count == 254) {
            shutdown(ends[1], SHUT_RDWR); // the peer goes
        }
        run_step(order, file, ends[0], block, size);
    }
    free(block);
    close(file);
    close(ends[0]);
    close(ends[1]);
    fdio_destroy();
    if (open_descriptors() != before) {
        abort();
    }
    return 0;
}
