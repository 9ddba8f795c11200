// Descriptor I/O over the bare calls, a disabled sensor, and a file to a stream socket: through the transfer
// buffer and by sendfile, against the loops that one would write instead. The time is that of the sending
// thread's processor.
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "fdio.h"
#include "psensor.h"

namespace {

constexpr size_t kFileSize = size_t{64} << 20;

// A file in the page cache, and a TCP connection on loopback whose other end takes all.
class Ends {
  public:
    Ends() : file(memfd_create("bench", MFD_CLOEXEC))
    {
        const std::vector<char> block(1 << 20, 'x');
        for (size_t at = 0; at < kFileSize; at += block.size()) {
            if (write(file, block.data(), block.size()) < 0) {
                abort();
            }
        }
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof addr;
        auto* sa = reinterpret_cast<sockaddr*>(&addr);
        peer = socket(AF_INET, SOCK_STREAM, 0);
        if (bind(listener, sa, length) != 0 || listen(listener, 1) != 0 ||
            getsockname(listener, sa, &length) != 0 || connect(peer, sa, length) != 0) {
            abort();
        }
        drain_ = std::thread([fd = accept(listener, nullptr, nullptr)] {
            std::vector<char> sink(1 << 20);
            while (recv(fd, sink.data(), sink.size(), MSG_TRUNC) > 0) {
            }
            close(fd);
        });
        close(listener);
    }

    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    ~Ends()
    {
        close(peer);
        drain_.join();
        close(file);
    }

    int file;
    int peer = -1;

  private:
    std::thread drain_;
};

void file_by_transfer(benchmark::State& state, uint32_t options)
{
    const Ends ends;
    fdio_init(-1);
    off_t offset = 0;
    uint32_t flags = options;
    transfer_spec* spec = new_transfer_spec(ends.file, ends.peer, &offset, &flags, nullptr, 0);
    for (auto _ : state) {
        ssize_t moved = 1;
        for (offset = 0; moved > 0 && offset < static_cast<off_t>(kFileSize);) {
            transfer(spec, kFileSize - static_cast<size_t>(offset), &moved);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
    free(spec);
    fdio_destroy();
}

// A read and write loop over a buffer of the same size that begins misalign bytes into a page.
void file_by_loop(benchmark::State& state, size_t misalign)
{
    const Ends ends;
    auto* block = static_cast<char*>(aligned_alloc(4096, DEFAULT_TRF_BUFSIZE + 4096));
    char* buf = block + misalign;
    for (auto _ : state) {
        for (off_t offset = 0; offset < static_cast<off_t>(kFileSize);) {
            const ssize_t n = pread(ends.file, buf, DEFAULT_TRF_BUFSIZE, offset);
            const ssize_t sent = n > 0 ? write(ends.peer, buf, static_cast<size_t>(n)) : -1;
            if (sent <= 0) {
                abort();
            }
            offset += sent;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
    free(block);
}

void file_by_sendfile(benchmark::State& state)
{
    const Ends ends;
    for (auto _ : state) {
        for (off_t offset = 0; offset < static_cast<off_t>(kFileSize);) {
            if (sendfile(ends.peer, ends.file, &offset, kFileSize - static_cast<size_t>(offset)) <= 0) {
                abort();
            }
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

// One byte to the null device, or from the zero device.
template <class Call>
void small_io(benchmark::State& state, const char* device, Call call)
{
    const int fd = open(device, O_RDWR | O_CLOEXEC);
    char byte = 'x';
    for (auto _ : state) {
        benchmark::DoNotOptimize(call(fd, &byte));
    }
    close(fd);
}

void sensor_disabled(benchmark::State& state)
{
    psensors_init(nullptr, 0);
    for (auto _ : state) {
        psensor_start(PRF_APP);
        benchmark::ClobberMemory();
        psensor_stop(PRF_APP);
    }
}

void sensor_none(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::ClobberMemory();
    }
}

} // namespace

int main(int argc, char** argv)
{
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("Nwrite/ours", [](benchmark::State& state) {
        small_io(state, "/dev/null", [](int fd, char* b) { return nwrite(fd, b, 1, 0); });
    });
    RegisterBenchmark("Nwrite/bare", [](benchmark::State& state) {
        small_io(state, "/dev/null", [](int fd, char* b) { return write(fd, b, 1); });
    });
    RegisterBenchmark("Nread/ours", [](benchmark::State& state) {
        small_io(state, "/dev/zero", [](int fd, char* b) { return nread(fd, b, 1, 0); });
    });
    RegisterBenchmark("Nread/bare", [](benchmark::State& state) {
        small_io(state, "/dev/zero", [](int fd, char* b) { return read(fd, b, 1); });
    });
    RegisterBenchmark("SensorOff/ours", sensor_disabled);
    RegisterBenchmark("SensorOff/nothing", sensor_none);
    RegisterBenchmark("FileBuffer/ours", [](benchmark::State& state) { file_by_transfer(state, 0); });
    RegisterBenchmark("FileBuffer/aligned_loop", [](benchmark::State& state) { file_by_loop(state, 0); });
    RegisterBenchmark("FileBuffer/malloc_loop", [](benchmark::State& state) { file_by_loop(state, 16); });
    RegisterBenchmark("FileSendfile/ours",
                      [](benchmark::State& state) { file_by_transfer(state, FDIO_SENDFILE); });
    RegisterBenchmark("FileSendfile/bare", file_by_sendfile);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
