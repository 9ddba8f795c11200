// Heads of requests and responses read against http_parser, and, where they are found, picohttpparser and
// llhttp; heads of responses composed against snprintf and fmt.
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <fmt/core.h>
#include <fmt/format.h>
#include <http_parser.h>

#ifdef HAVE_PICOHTTPPARSER
#include <picohttpparser.h>
#endif

#include "http_taken.h"
#include "log.h"
#include "webops.h"

namespace {

const std::string kPlayer =
    "GET /udp/224.0.2.1:5056/ HTTP/1.1\r\nHost: box:8080\r\nUser-Agent: Player/3.0.18\r\n"
    "Range: bytes=0-\r\nConnection: close\r\n\r\n";

const std::string kBrowser =
    "GET /src/http%3A%2F%2Fh%2Fa/dst/b?x=1 HTTP/1.1\r\nHost: box.example.net:8080\r\nConnection: keep-alive\r\n"
    "Upgrade-Insecure-Requests: 1\r\nUser-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36\r\nAccept: "
    "text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8\r\n"
    "Accept-Encoding: gzip, deflate\r\nAccept-Language: en-US,en;q=0.9\r\nCookie: session=0123456789abcdef\r\n\r\n";

const std::string kResponse =
    "HTTP/1.1 302 Moved Temporarily\r\nServer: nginx/1.22.1\r\nDate: Sat, 01 Aug 2026 "
    "12:00:00 GMT\r\nContent-Type: text/html\r\nContent-Length: 145\r\nLocation: "
    "http://127.0.0.1/new\r\nConnection: close\r\n\r\n";

void request_ours(benchmark::State& state, const std::string& text)
{
    struct http_header hdr;
    for (auto _ : state) {
        benchmark::DoNotOptimize(parse_http_header(text.c_str(), text.size(), &hdr, nullptr, 0));
        benchmark::ClobberMemory();
    }
}

// What a user of http_parser writes to know target, host and agent.
struct Wanted {
    const char* field;
    size_t field_len;
    const char* target;
    const char* host;
    const char* agent;
};

http_parser_settings wanted_settings()
{
    http_parser_settings settings;
    http_parser_settings_init(&settings);
    settings.on_url = [](http_parser* p, const char* at, size_t) {
        static_cast<Wanted*>(p->data)->target = at;
        return 0;
    };
    settings.on_header_field = [](http_parser* p, const char* at, size_t length) {
        static_cast<Wanted*>(p->data)->field = at;
        static_cast<Wanted*>(p->data)->field_len = length;
        return 0;
    };
    settings.on_header_value = [](http_parser* p, const char* at, size_t) {
        auto* wanted = static_cast<Wanted*>(p->data);
        if (wanted->field_len == 4 && strncasecmp(wanted->field, "Host", 4) == 0) {
            wanted->host = at;
        } else if (wanted->field_len == 10 && strncasecmp(wanted->field, "User-Agent", 10) == 0) {
            wanted->agent = at;
        }
        return 0;
    };
    return settings;
}

void head_http_parser(benchmark::State& state, http_parser_type type, const std::string& text)
{
    const http_parser_settings settings = wanted_settings();
    for (auto _ : state) {
        http_parser parser;
        Wanted wanted = {};
        http_parser_init(&parser, type);
        parser.data = &wanted;
        benchmark::DoNotOptimize(http_parser_execute(&parser, &settings, text.data(), text.size()));
        benchmark::DoNotOptimize(wanted);
    }
}

#ifdef HAVE_PICOHTTPPARSER
void request_picohttpparser(benchmark::State& state, const std::string& text)
{
    Taken taken;
    for (auto _ : state) {
        const char* method = nullptr;
        const char* target = nullptr;
        size_t method_len = 0;
        size_t target_len = 0;
        int minor = 0;
        phr_header headers[32];
        size_t count = std::size(headers);
        benchmark::DoNotOptimize(phr_parse_request(text.data(), text.size(), &method, &method_len, &target,
                                                   &target_len, &minor, headers, &count, 0));
        taken.target(target, target_len);
        for (size_t i = 0; i < count; ++i) {
            taken.field(headers[i].name, headers[i].name_len, headers[i].value, headers[i].value_len);
        }
        benchmark::DoNotOptimize(taken);
        benchmark::ClobberMemory();
    }
}
#endif

#ifdef HAVE_LLHTTP
void request_llhttp(benchmark::State& state, const std::string& text)
{
    Taken taken;
    for (auto _ : state) {
        if (!take_by_llhttp(text.data(), text.size(), taken)) {
            state.SkipWithError("refused");
        }
        benchmark::DoNotOptimize(taken);
        benchmark::ClobberMemory();
    }
}
#endif

// The same pair of sockets for both: a write and a read are part of each round.
struct Wire {
    int fds[2];

    Wire()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
            abort();
        }
    }

    ~Wire()
    {
        close(fds[0]);
        close(fds[1]);
    }

    void say(const std::string& text) const
    {
        if (write(fds[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            abort();
        }
    }
};

void response_ours(benchmark::State& state)
{
    const Wire wire;
    char buf[1024];
    for (auto _ : state) {
        wire.say(kResponse);
        struct http_resp_ctx ctx = NULL_http_ctx;
        if (recv_http_response(wire.fds[0], buf, sizeof buf, &ctx) != 0) {
            state.SkipWithError("refused");
        }
        reset_resp_ctx(&ctx);
    }
}

void response_http_parser(benchmark::State& state)
{
    const Wire wire;
    const http_parser_settings settings = wanted_settings();
    char buf[1024];
    for (auto _ : state) {
        wire.say(kResponse);
        const ssize_t n = read(wire.fds[0], buf, sizeof buf);
        http_parser parser;
        Wanted wanted = {};
        http_parser_init(&parser, HTTP_RESPONSE);
        parser.data = &wanted;
        benchmark::DoNotOptimize(http_parser_execute(&parser, &settings, buf, static_cast<size_t>(n)));
    }
}

const struct http_response kAnswer = {
    200, "video/mp2t", 123456789, "OK", "morvane/1.0", "close", "Cache-Control: no-cache", nullptr};

void compose_ours(benchmark::State& state)
{
    char buf[4096];
    for (auto _ : state) {
        benchmark::DoNotOptimize(mk_http_response(&kAnswer, buf, sizeof buf));
        benchmark::ClobberMemory();
    }
}

void compose_snprintf(benchmark::State& state)
{
    char buf[4096];
    const struct http_response* r = &kAnswer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(snprintf(
            buf, sizeof buf,
            "HTTP/1.1 %d %s\r\nServer: %s\r\nContent-Type: %s\r\nContent-Length: %ld\r\nConnection: "
            "%s\r\n%s\r\n\r\n",
            r->code, r->reason, r->server, r->content_type, r->content_length, r->connection, r->ok_suffix));
        benchmark::ClobberMemory();
    }
}

void compose_fmt(benchmark::State& state)
{
    char buf[4096];
    const struct http_response* r = &kAnswer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(fmt::format_to_n(buf, sizeof buf,
                                                  "HTTP/1.1 {} {}\r\nServer: {}\r\nContent-Type: {}\r\n"
                                                  "Content-Length: {}\r\nConnection: {}\r\n{}\r\n\r\n",
                                                  r->code, r->reason, r->server, r->content_type,
                                                  r->content_length, r->connection, r->ok_suffix));
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(request_ours, player, kPlayer)->Name("request_player/ours");
BENCHMARK_CAPTURE(head_http_parser, player, HTTP_REQUEST, kPlayer)->Name("request_player/http_parser");
#ifdef HAVE_PICOHTTPPARSER
BENCHMARK_CAPTURE(request_picohttpparser, player, kPlayer)->Name("request_player/picohttpparser");
BENCHMARK_CAPTURE(request_picohttpparser, browser, kBrowser)->Name("request_browser/picohttpparser");
#endif
#ifdef HAVE_LLHTTP
BENCHMARK_CAPTURE(request_llhttp, player, kPlayer)->Name("request_player/llhttp");
BENCHMARK_CAPTURE(request_llhttp, browser, kBrowser)->Name("request_browser/llhttp");
#endif
BENCHMARK_CAPTURE(request_ours, browser, kBrowser)->Name("request_browser/ours");
BENCHMARK_CAPTURE(head_http_parser, browser, HTTP_REQUEST, kBrowser)->Name("request_browser/http_parser");
BENCHMARK(response_ours)->Name("response_over_socket/ours");
BENCHMARK(response_http_parser)->Name("response_over_socket/http_parser");
BENCHMARK(compose_ours)->Name("compose/ours");
BENCHMARK(compose_snprintf)->Name("compose/snprintf");
BENCHMARK(compose_fmt)->Name("compose/fmt");

} // namespace

BENCHMARK_MAIN();
