// A line to a file, as a daemon writes it: time to the microsecond, process id, level, a number and a text;
// every line reaches the kernel. Against the bare write of a line of that length, spdlog and glog. And a call
// that the level suppresses, against one compare and spdlog.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <glog/logging.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace {

constexpr const char* kAddress = "239.255.10.20";

// A file without a name in the temporary directory: opened by one case, gone with it.
class Scratch {
  public:
    Scratch()
    {
        char name[] = "/tmp/morvane-bench-XXXXXX";
        const int fd = mkstemp(name);
        close(fd);
        path_ = name;
    }

    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    ~Scratch() { unlink(path_.c_str()); }

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

void line_ours(benchmark::State& state)
{
    const Scratch scratch;
    glog_init("bench");
    log_open(&g_log, scratch.path().c_str());
    log_set_pid(&g_log, getpid());
    log_set_modules(&g_log, NORM_level);
    int i = 0;
    for (auto _ : state) {
        log_norm("%s: joined group [%s], member %d\n", __func__, kAddress, ++i);
    }
    state.counters["bytes"] = static_cast<double>(g_log.total_out) / i;
    log_close(&g_log);
    g_log.fp = nullptr;
}

void line_bare_write(benchmark::State& state)
{
    const Scratch scratch;
    const int fd = open(scratch.path().c_str(), O_WRONLY | O_APPEND);
    const std::string line(97, 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    }
    close(fd);
}

void line_spdlog(benchmark::State& state)
{
    const Scratch scratch;
    auto logger = spdlog::basic_logger_st("file", scratch.path());
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%f CET %P  (%l)  %v");
    logger->flush_on(spdlog::level::trace);
    int i = 0;
    for (auto _ : state) {
        logger->info("{}: joined group [{}], member {}", __func__, kAddress, ++i);
    }
    spdlog::drop("file");
}

void line_glog(benchmark::State& state)
{
    static bool started = false;
    if (!started) {
        google::InitGoogleLogging("bench");
        started = true;
    }
    const Scratch scratch;
    FLAGS_logbufsecs = 0;
    google::SetLogDestination(google::GLOG_INFO, scratch.path().c_str());
    google::SetLogFilenameExtension(".glog");
    google::SetLogSymlink(google::GLOG_INFO, "");
    google::SetStderrLogging(google::GLOG_FATAL);
    int i = 0;
    for (auto _ : state) {
        LOG(INFO) << __func__ << ": joined group [" << kAddress << "], member " << ++i;
    }
    google::SetLogDestination(google::GLOG_INFO, "");
    const std::string remove = "rm -f " + scratch.path() + "*.glog*";
    if (system(remove.c_str()) != 0) {
        state.SkipWithError("cannot remove the file of glog");
    }
}

void suppressed_ours(benchmark::State& state)
{
    set_myloglevel(NORM_level);
    int i = 0;
    for (auto _ : state) {
        log_dbg("%s: joined group [%s], member %d\n", __func__, kAddress, i);
        benchmark::DoNotOptimize(++i);
    }
}

volatile int g_threshold = 0;

void suppressed_one_compare(benchmark::State& state)
{
    int i = 0;
    for (auto _ : state) {
        if (g_threshold >= DEBUG_level) {
            abort();
        }
        benchmark::DoNotOptimize(++i);
    }
}

void suppressed_spdlog(benchmark::State& state)
{
    const Scratch scratch;
    auto logger = spdlog::basic_logger_st("quiet", scratch.path());
    int i = 0;
    for (auto _ : state) {
        logger->debug("{}: joined group [{}], member {}", __func__, kAddress, i);
        benchmark::DoNotOptimize(++i);
    }
    spdlog::drop("quiet");
}

} // namespace

BENCHMARK(line_ours)->Name("LogLine/ours");
BENCHMARK(line_bare_write)->Name("LogLine/bare_write");
BENCHMARK(line_spdlog)->Name("LogLine/spdlog");
BENCHMARK(line_glog)->Name("LogLine/glog");
BENCHMARK(suppressed_ours)->Name("LogSuppressed/ours");
BENCHMARK(suppressed_one_compare)->Name("LogSuppressed/one_compare");
BENCHMARK(suppressed_spdlog)->Name("LogSuppressed/spdlog");

BENCHMARK_MAIN();
