// The event loop against libuv, libevent, libev and a bare epoll loop: the dispatch of descriptors that are
// all ready, and a token that goes round a ring of pipes. An iteration is one turn of the loop; all are
// level-triggered.
#include <cstdlib>
#include <memory>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <ev.h>
#include <uv.h>

// libev and libevent give the same names to different numbers.
constexpr int kEvRead = EV_READ;

#include <event2/event.h>

#include "rqs.h"

namespace {

// What is done when a descriptor is ready; the record that each library is given with it.
struct Source {
    n32_tag tag = {{'b', 'c', 'h', 0}};
    int fd = -1;
    int next = -1; // where the token goes; -1: the descriptor stays ready
    uint64_t calls = 0;
};

void must(bool holds)
{
    if (!holds) {
        abort();
    }
}

inline void on_ready(Source* source)
{
    ++source->calls;
    if (source->next >= 0) {
        char token = 0;
        must(read(source->fd, &token, 1) == 1 && write(source->next, &token, 1) == 1);
    }
}

using Sources = std::vector<Source>;

benchmark::State* g_state = nullptr;
int g_warm = 0;

// Whether the engine is to turn again. The first turns do not count: some engines find out by them how many
// events to ask for.
bool turn_again()
{
    if (g_warm > 0) {
        --g_warm;
        return true;
    }
    return g_state->KeepRunning();
}

// Each engine registers the sources, turns while it is told to, and takes itself down.

struct Ours {
    static void run(Sources& sources)
    {
        rqs_config cfg = {};
        cfg.cb.read = [](int, int, void* udata, void*) {
            on_ready(static_cast<Source*>(udata));
            return 0;
        };
        cfg.cb.write = cfg.cb.error = [](int, int, void*, void*) { return 1; };
        cfg.cb.on_idle = [] { return turn_again() ? 0 : 100; };
        must(rqs_init(&cfg) == 0);
        for (Source& s : sources) {
            must(rqs_add_reader(s.fd, &s) == 0);
        }
        must(rqs_event_loop() == 100);
        rqs_destroy();
    }
};

struct RawEpoll {
    static void run(Sources& sources)
    {
        const int fd = epoll_create1(0);
        for (Source& s : sources) {
            epoll_event ev = {};
            ev.events = EPOLLIN;
            ev.data.ptr = &s;
            must(epoll_ctl(fd, EPOLL_CTL_ADD, s.fd, &ev) == 0);
        }
        std::vector<epoll_event> events(sources.size());
        void (*volatile callback)(Source*) = on_ready; // as in all the others, not inlined
        while (turn_again()) {
            const int count = epoll_wait(fd, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i) {
                callback(static_cast<Source*>(events[static_cast<size_t>(i)].data.ptr));
            }
        }
        close(fd);
    }
};

struct Libuv {
    static void run(Sources& sources)
    {
        uv_loop_t loop;
        must(uv_loop_init(&loop) == 0);
        std::vector<uv_poll_t> polls(sources.size());
        for (size_t i = 0; i < sources.size(); ++i) {
            polls[i].data = &sources[i];
            must(uv_poll_init(&loop, &polls[i], sources[i].fd) == 0);
            must(uv_poll_start(&polls[i], UV_READABLE, [](uv_poll_t* poll, int, int) {
                     on_ready(static_cast<Source*>(poll->data));
                 }) == 0);
        }
        uv_check_t turn;
        uv_check_init(&loop, &turn);
        uv_check_start(&turn, [](uv_check_t* check) {
            if (!turn_again()) {
                uv_stop(check->loop);
            }
        });
        uv_run(&loop, UV_RUN_DEFAULT);
        for (uv_poll_t& poll : polls) {
            uv_close(reinterpret_cast<uv_handle_t*>(&poll), nullptr);
        }
        uv_close(reinterpret_cast<uv_handle_t*>(&turn), nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        must(uv_loop_close(&loop) == 0);
    }
};

struct Libev {
    static void run(Sources& sources)
    {
        struct ev_loop* loop = ev_loop_new(EVBACKEND_EPOLL);
        std::vector<ev_io> watchers(sources.size());
        for (size_t i = 0; i < sources.size(); ++i) {
            ev_io_init(&watchers[i],
                       ([](struct ev_loop*, ev_io* io, int) { on_ready(static_cast<Source*>(io->data)); }),
                       sources[i].fd, kEvRead);
            watchers[i].data = &sources[i];
            ev_io_start(loop, &watchers[i]);
        }
        ev_check turn;
        ev_check_init(&turn, ([](struct ev_loop* at, ev_check*, int) {
            if (!turn_again()) {
                ev_break(at, EVBREAK_ALL);
            }
        }));
        ev_set_priority(&turn, EV_MINPRI);
        ev_check_start(loop, &turn);
        ev_run(loop, 0);
        ev_loop_destroy(loop);
    }
};

struct Libevent {
    static void run(Sources& sources)
    {
        event_base* base = event_base_new();
        std::vector<event*> events;
        for (Source& s : sources) {
            events.push_back(event_new(
                base, s.fd, EV_READ | EV_PERSIST,
                [](evutil_socket_t, short, void* udata) { on_ready(static_cast<Source*>(udata)); }, &s));
            must(event_add(events.back(), nullptr) == 0);
        }
        while (turn_again()) {
            event_base_loop(base, EVLOOP_ONCE);
        }
        for (event* e : events) {
            event_free(e);
        }
        event_base_free(base);
    }
};

uint64_t total_calls(const Sources& sources)
{
    uint64_t calls = 0;
    for (const Source& s : sources) {
        calls += s.calls;
    }
    return calls;
}

// Runs the engine, and holds the calls against the turns: count calls in each.
template <class Engine>
void run(benchmark::State& state, Sources& sources, size_t count)
{
    g_state = &state;
    g_warm = 20;
    Engine::run(sources);
    must(total_calls(sources) >= static_cast<size_t>(state.iterations()) * count);
}

// All descriptors are ready in each turn, and nothing is read from them.
template <class Engine>
void dispatch(benchmark::State& state)
{
    Sources sources(static_cast<size_t>(state.range(0)));
    for (Source& s : sources) {
        s.fd = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
        must(s.fd >= 0);
    }
    run<Engine>(state, sources, sources.size());
    for (const Source& s : sources) {
        close(s.fd);
    }
}

// A token goes from pipe to pipe; in each turn one descriptor of all is ready.
template <class Engine>
void ring(benchmark::State& state)
{
    Sources sources(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < sources.size(); ++i) {
        int fds[2];
        must(pipe(fds) == 0);
        sources[i].fd = fds[0];
        sources[(i + sources.size() - 1) % sources.size()].next = fds[1];
    }
    must(write(sources[0].next, "t", 1) == 1);
    run<Engine>(state, sources, 1);
    for (const Source& s : sources) {
        close(s.fd);
        close(s.next);
    }
}

BENCHMARK(dispatch<Ours>)->Name("Dispatch/ours")->Arg(10)->Arg(1000);
BENCHMARK(dispatch<RawEpoll>)->Name("Dispatch/epoll")->Arg(10)->Arg(1000);
BENCHMARK(dispatch<Libuv>)->Name("Dispatch/libuv")->Arg(10)->Arg(1000);
BENCHMARK(dispatch<Libev>)->Name("Dispatch/libev")->Arg(10)->Arg(1000);
BENCHMARK(dispatch<Libevent>)->Name("Dispatch/libevent")->Arg(10)->Arg(1000);

BENCHMARK(ring<Ours>)->Name("Ring/ours")->Arg(100);
BENCHMARK(ring<RawEpoll>)->Name("Ring/epoll")->Arg(100);
BENCHMARK(ring<Libuv>)->Name("Ring/libuv")->Arg(100);
BENCHMARK(ring<Libev>)->Name("Ring/libev")->Arg(100);
BENCHMARK(ring<Libevent>)->Name("Ring/libevent")->Arg(100);

} // namespace

BENCHMARK_MAIN();
