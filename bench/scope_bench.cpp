// The agent's scope: loading a list of 100 000 groups, and the question asked for each packet, against a
// std::unordered_set filled by hand from the same file.
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unistd.h>
#include <unordered_set>
#include <vector>

#include <benchmark/benchmark.h>

#include "log.h"
#include "zent.h"

namespace {

constexpr size_t kListed = 100'000;

int32_t group_at(size_t i)
{
    const std::string text = "239." + std::to_string(i / 10'000) + "." + std::to_string(i / 100 % 100) + "." +
                             std::to_string(i % 100);
    in_addr addr = {};
    inet_aton(text.c_str(), &addr);
    return static_cast<int32_t>(addr.s_addr);
}

// A list of so many groups, written once; removed with the process.
const std::string& list_path(size_t count)
{
    struct Files {
        std::string small;
        std::string large;

        ~Files()
        {
            unlink(small.c_str());
            unlink(large.c_str());
        }
    };

    static Files files;
    std::string& path = count == kListed ? files.large : files.small;
    if (path.empty()) {
        char name[] = "/tmp/scope-bench-XXXXXX";
        FILE* fp = fdopen(mkstemp(name), "w");
        for (size_t i = 0; i < count; ++i) {
            fprintf(fp, "%s\n", group_text(group_at(i)));
        }
        fclose(fp);
        path = name;
    }
    return path;
}

std::unordered_set<uint32_t> load_by_hand(const std::string& path)
{
    std::unordered_set<uint32_t> groups;
    FILE* fp = fopen(path.c_str(), "r");
    char line[64];
    while (fgets(line, sizeof line, fp) != nullptr) {
        in_addr addr = {};
        line[strcspn(line, "\r\n")] = 0;
        if (inet_aton(line, &addr) != 0) {
            groups.insert(addr.s_addr);
        }
    }
    fclose(fp);
    return groups;
}

// Groups of packets: half of them listed, in no order.
std::vector<int32_t> asked(size_t listed)
{
    std::vector<int32_t> groups;
    std::mt19937 random(3);
    for (size_t i = 0; i < 4096; ++i) {
        groups.push_back(group_at(random() % (2 * listed)));
    }
    return groups;
}

void load_ours(benchmark::State& state)
{
    g_mod_ll[MLL_COMMON] = ERR_level;
    for (auto _ : state) {
        load_group_list(list_path(kListed).c_str());
    }
}

void load_exact(benchmark::State& state)
{
    g_cfg.features.exact = true;
    load_ours(state);
    g_cfg.features.exact = false;
}

void load_set(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(load_by_hand(list_path(kListed)));
    }
}

void in_scope_ours(benchmark::State& state)
{
    g_mod_ll[MLL_COMMON] = ERR_level;
    load_group_list(list_path(512).c_str());
    const auto groups = asked(512);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(in_scope(groups[i++ % groups.size()]));
    }
}

void in_scope_set(benchmark::State& state)
{
    const auto listed = load_by_hand(list_path(512));
    const auto groups = asked(512);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(listed.count(static_cast<uint32_t>(groups[i++ % groups.size()])));
    }
}

void in_range_ours(benchmark::State& state)
{
    g_cfg.min_group = 0xef000000;
    g_cfg.max_group = 0xefffffff;
    const auto groups = asked(512);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(in_scope(groups[i++ % groups.size()]));
    }
    g_cfg = {};
}

BENCHMARK(load_ours)->Name("ListLoad100k/ours");
BENCHMARK(load_set)->Name("ListLoad100k/std_unordered_set");
BENCHMARK(load_exact)->Name("ListLoadExact100k/ours");
BENCHMARK(load_set)->Name("ListLoadExact100k/std_unordered_set");
BENCHMARK(in_scope_ours)->Name("InScopeList512/ours");
BENCHMARK(in_scope_set)->Name("InScopeList512/std_unordered_set");
BENCHMARK(in_range_ours)->Name("InScopeRange/ours");

} // namespace

BENCHMARK_MAIN();
