// Timers against libuv's and libevent's, with 10,000 of them pending: one is moved to another time, one is
// started and stopped again, and all of them become due at once. An iteration is one timer's turn.
#include <cstdlib>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <uv.h>

#include "rqs.h"
#include "tmr.h"

namespace {

constexpr size_t kTimers = 10'000;

uint64_t g_ran = 0;

void must(bool holds)
{
    if (!holds) {
        abort();
    }
}

// Spans in milliseconds, so far away that none becomes due while moves and starts are measured.
const std::vector<long>& spans()
{
    static const std::vector<long> all = [] {
        std::mt19937 random(1);
        std::vector<long> list(4096);
        for (long& span : list) {
            span = 1'000'000 + static_cast<long>(random() % 1'000'000);
        }
        return list;
    }();
    return all;
}

long span_at(size_t n)
{
    return spans()[n % spans().size()];
}

// Which timer is moved next: neither in the order of the heap nor of memory.
size_t pick(size_t n)
{
    return n * 7919 % kTimers;
}

struct Ours {
    std::vector<tmr> timers = std::vector<tmr>(kTimers + 1, tmr NULL_tmr);

    static timespec span(long ms) { return {ms / 1000, ms % 1000 * 1'000'000}; }

    void start(size_t i, long ms)
    {
        const timespec after = span(ms);
        must(tmr_add(
                 &timers[i], &after, nullptr, [](tmr*, void*) { ++g_ran; }, nullptr) == 0);
    }

    void move(size_t i, long ms)
    {
        const timespec after = span(ms);
        must(tmr_change(&timers[i], &after) == 0);
    }

    void stop(size_t i) { must(tmr_cancel(&timers[i]) == 0); }

    void run_due() { tmr_time_out(); }

    ~Ours() { tmr_reset(); }
};

struct Libuv {
    uv_loop_t loop;
    std::vector<uv_timer_t> timers = std::vector<uv_timer_t>(kTimers + 1);

    Libuv()
    {
        must(uv_loop_init(&loop) == 0);
        for (uv_timer_t& t : timers) {
            must(uv_timer_init(&loop, &t) == 0);
        }
    }

    void start(size_t i, long ms)
    {
        must(uv_timer_start(
                 &timers[i], [](uv_timer_t*) { ++g_ran; }, static_cast<uint64_t>(ms), 0) == 0);
    }

    void move(size_t i, long ms) { start(i, ms); }

    void stop(size_t i) { must(uv_timer_stop(&timers[i]) == 0); }

    void run_due() { uv_run(&loop, UV_RUN_NOWAIT); }

    ~Libuv()
    {
        for (uv_timer_t& t : timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
        }
        uv_run(&loop, UV_RUN_DEFAULT);
        must(uv_loop_close(&loop) == 0);
    }
};

struct Libevent {
    event_base* base = event_base_new();
    std::vector<event> timers = std::vector<event>(kTimers + 1);

    Libevent()
    {
        must(base != nullptr);
        for (event& t : timers) {
            must(event_assign(
                     &t, base, -1, 0, [](evutil_socket_t, short, void*) { ++g_ran; }, nullptr) == 0);
        }
    }

    void start(size_t i, long ms)
    {
        const timeval after = {ms / 1000, ms % 1000 * 1000};
        must(event_add(&timers[i], &after) == 0);
    }

    void move(size_t i, long ms) { start(i, ms); }

    void stop(size_t i) { must(event_del(&timers[i]) == 0); }

    void run_due() { event_base_loop(base, EVLOOP_NONBLOCK); }

    ~Libevent()
    {
        for (event& t : timers) {
            event_del(&t);
        }
        event_base_free(base);
    }
};

template <class Engine>
void fill(Engine& engine)
{
    for (size_t i = 0; i < kTimers; ++i) {
        engine.start(i, span_at(i));
    }
}

template <class Engine>
void move_one(benchmark::State& state)
{
    Engine engine;
    fill(engine);
    size_t n = 0;
    for (auto _ : state) {
        engine.move(pick(n), span_at(n));
        ++n;
    }
}

template <class Engine>
void start_and_stop(benchmark::State& state)
{
    Engine engine;
    fill(engine);
    size_t n = 0;
    for (auto _ : state) {
        engine.start(kTimers, span_at(n));
        engine.stop(kTimers);
        ++n;
    }
}

template <class Engine>
void become_due(benchmark::State& state)
{
    Engine engine;
    for (size_t n = 0; state.KeepRunningBatch(kTimers); ++n) {
        g_ran = 0;
        for (size_t i = 0; i < kTimers; ++i) {
            engine.start(i, 0);
        }
        engine.run_due();
        must(g_ran == kTimers);
    }
}

} // namespace

BENCHMARK(move_one<Ours>)->Name("move_10000/ours");
BENCHMARK(move_one<Libuv>)->Name("move_10000/libuv");
BENCHMARK(move_one<Libevent>)->Name("move_10000/libevent");
BENCHMARK(start_and_stop<Ours>)->Name("start_stop_10000/ours");
BENCHMARK(start_and_stop<Libuv>)->Name("start_stop_10000/libuv");
BENCHMARK(start_and_stop<Libevent>)->Name("start_stop_10000/libevent");
BENCHMARK(become_due<Ours>)->Name("due_10000/ours");
BENCHMARK(become_due<Libuv>)->Name("due_10000/libuv");
BENCHMARK(become_due<Libevent>)->Name("due_10000/libevent");

BENCHMARK_MAIN();
