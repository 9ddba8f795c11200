// Opening a non-blocking socket for datagrams to an address and port: open_socket against the same calls
// written out by hand.
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "netops.h"

namespace {

constexpr char kAddr[] = "127.0.0.1";
constexpr char kPort[] = "9";

void ours(benchmark::State& state)
{
    for (auto _ : state) {
        socket_spec spec = {};
        spec.socktype = SOCK_DGRAM;
        spec.writer = 1;
        spec.non_blocking = 1;
        const int fd = open_socket(kAddr, kPort, nullptr, &spec, nullptr, nullptr);
        if (fd < 0) {
            state.SkipWithError("open_socket failed");
            break;
        }
        benchmark::DoNotOptimize(spec);
        close(fd);
    }
}

void by_hand(benchmark::State& state)
{
    for (auto _ : state) {
        addrinfo hints = {};
        hints.ai_socktype = SOCK_DGRAM;
        addrinfo* found = nullptr;
        if (getaddrinfo(kAddr, kPort, &hints, &found) != 0) {
            state.SkipWithError("getaddrinfo failed");
            break;
        }
        const int fd = socket(found->ai_family, found->ai_socktype, found->ai_protocol);
        const int flags = fcntl(fd, F_GETFL);
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
        sockaddr_storage to = {};
        memcpy(&to, found->ai_addr, found->ai_addrlen);
        benchmark::DoNotOptimize(to);
        freeaddrinfo(found);
        close(fd);
    }
}

} // namespace

BENCHMARK(ours)->Name("open_udp_writer/ours");
BENCHMARK(by_hand)->Name("open_udp_writer/by_hand");
BENCHMARK_MAIN();
