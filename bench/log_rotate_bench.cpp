// Many lines into a file, plain and rotating by size (16 MiB, four old files), every line reaching the
// kernel: against spdlog's sinks flushing every line, and the bare write. One iteration is one line.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr size_t kSize = size_t{16} << 20;
constexpr size_t kFiles = 4;

class ScratchDir {
  public:
    ScratchDir()
    {
        char name[] = "/tmp/morvane-bench-XXXXXX";
        path_ = mkdtemp(name);
    }

    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    ~ScratchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::string log() const { return path_ + "/log"; }

  private:
    std::string path_;
};

template <bool kRotating>
void ours(benchmark::State& state)
{
    const ScratchDir dir;
    glog_init("bench");
    g_log = {};
    log_open(&g_log, dir.log().c_str());
    log_set_pid(&g_log, getpid());
    if (kRotating) {
        log_set_rota(&g_log, kSize, kFiles);
    }
    long i = 0;
    for (auto _ : state) {
        log_norm("%s: joined group [%s], member %ld\n", __func__, "239.255.10.20", ++i);
    }
    state.SetItemsProcessed(state.iterations());
    log_close(&g_log);
}

template <bool kRotating>
void by_spdlog(benchmark::State& state)
{
    const ScratchDir dir;
    auto logger = kRotating ? spdlog::rotating_logger_st("log", dir.log(), kSize, kFiles)
                            : spdlog::basic_logger_st("log", dir.log());
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%f CET %P  (%l)  %v");
    logger->flush_on(spdlog::level::trace);
    long i = 0;
    for (auto _ : state) {
        logger->info("{}: joined group [{}], member {}", __func__, "239.255.10.20", ++i);
    }
    state.SetItemsProcessed(state.iterations());
    spdlog::drop("log");
}

template <bool kRotating>
void bare_write(benchmark::State& state)
{
    const ScratchDir dir;
    const std::string line(97, 'x');
    const std::string old = dir.log() + ".old";
    int fd = open(dir.log().c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    size_t total = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
        total += line.size();
        if (kRotating && total >= kSize) {
            close(fd);
            benchmark::DoNotOptimize(rename(dir.log().c_str(), old.c_str()));
            fd = open(dir.log().c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
            total = 0;
        }
    }
    state.SetItemsProcessed(state.iterations());
    close(fd);
}

} // namespace

BENCHMARK(ours<false>)->Name("LogFile/ours");
BENCHMARK(by_spdlog<false>)->Name("LogFile/spdlog");
BENCHMARK(bare_write<false>)->Name("LogFile/bare_write");
BENCHMARK(ours<true>)->Name("LogRotating/ours");
BENCHMARK(by_spdlog<true>)->Name("LogRotating/spdlog");
BENCHMARK(bare_write<true>)->Name("LogRotating/bare_write");

BENCHMARK_MAIN();
