// URL texts: parse and split, extract, percent decoding; against http_parser and uriparser.
#include <cstring>
#include <iterator>
#include <string>

#include <benchmark/benchmark.h>
#include <http_parser.h>
#include <uriparser/Uri.h>

#include "uri.h"

namespace {

constexpr char kUrl[] = "http://video.example.net:8080/live/channel-17/index.m3u8?token=0123456789&start=12";
constexpr size_t kUrlSize = sizeof kUrl - 1;

// What a box of this family is asked for.
constexpr const char* kMixed[] = {
    "http://video.example.net:8080/live/channel-17/index.m3u8?token=0123456789&start=12",
    "http://10.0.0.7/a",
    "udp://224.0.2.1:5056",
    "udp://10.1.1.1@239.255.12.42:1234/",
    "rtp://239.10.20.30:5004/?pkt=7",
    "http://[2001:db8::17]:8080/segments/000001.ts",
    "tcp://recorder.example.net:9000/store",
    "http://cdn.example.org/vod/films/a-rather-long-name/1080p/segment-0042.ts?session=8f14e45fceea167a",
};

// 62 characters, eight of them escapes.
constexpr char kEncoded[] = "name%20of%20the%20channel%3A%20one%2Ftwo+and+three%26four%3D04";
static_assert(sizeof kEncoded - 1 == 62);

struct HostPort {
    char addr[1025];
    char port[32];
};

void parse_ours(benchmark::State& state)
{
    struct uri_layout layout;
    HostPort to;
    char path[URI_PATH_MAX];
    for (auto _ : state) {
        uri_parse(kUrl, &layout);
        uri_get_path(&layout, path, sizeof path);
        benchmark::DoNotOptimize(
            uri_path_addrport(path, sizeof path, to.addr, sizeof to.addr, to.port, sizeof to.port));
        benchmark::ClobberMemory();
    }
}

void parse_http_parser(benchmark::State& state)
{
    http_parser_url url;
    for (auto _ : state) {
        http_parser_url_init(&url);
        benchmark::DoNotOptimize(http_parser_parse_url(kUrl, kUrlSize, 0, &url));
        benchmark::ClobberMemory();
    }
}

// An iteration takes all of them. Their lengths are known to the peer, which asks for them.
void mixed_ours(benchmark::State& state)
{
    struct uri_layout layout;
    HostPort to;
    char path[URI_PATH_MAX];
    for (auto _ : state) {
        for (const char* uri : kMixed) {
            uri_parse(uri, &layout);
            uri_get_path(&layout, path, sizeof path);
            benchmark::DoNotOptimize(
                uri_path_addrport(path, sizeof path, to.addr, sizeof to.addr, to.port, sizeof to.port));
            benchmark::ClobberMemory();
        }
    }
}

void mixed_http_parser(benchmark::State& state)
{
    http_parser_url url;
    size_t lengths[std::size(kMixed)];
    for (size_t i = 0; i < std::size(kMixed); ++i) {
        lengths[i] = strlen(kMixed[i]);
    }
    for (auto _ : state) {
        for (size_t i = 0; i < std::size(kMixed); ++i) {
            http_parser_url_init(&url);
            benchmark::DoNotOptimize(http_parser_parse_url(kMixed[i], lengths[i], 0, &url));
            benchmark::ClobberMemory();
        }
    }
}

void parse_uriparser(benchmark::State& state)
{
    for (auto _ : state) {
        UriUriA uri;
        const char* error = nullptr;
        benchmark::DoNotOptimize(uriParseSingleUriA(&uri, kUrl, &error));
        uriFreeUriMembersA(&uri);
    }
}

void extract_ours(benchmark::State& state)
{
    char scheme[URI_SCHEME_MAX];
    char authority[URI_AUTH_MAX];
    char path[URI_PATH_MAX];
    char query[URI_QUERY_MAX];
    for (auto _ : state) {
        benchmark::DoNotOptimize(uri_extract(kUrl, scheme, authority, path, query));
        benchmark::ClobberMemory();
    }
}

void copy(char* dest, size_t size, const char* from, size_t length)
{
    length = length < size ? length : size - 1;
    memcpy(dest, from, length);
    dest[length] = '\0';
}

void extract_http_parser(benchmark::State& state)
{
    char scheme[URI_SCHEME_MAX];
    char host[URI_AUTH_MAX];
    char path[URI_PATH_MAX];
    char query[URI_QUERY_MAX];
    for (auto _ : state) {
        http_parser_url url;
        http_parser_url_init(&url);
        benchmark::DoNotOptimize(http_parser_parse_url(kUrl, kUrlSize, 0, &url));
        const auto field = [&url](int name, char* dest, size_t size) {
            copy(dest, size, kUrl + url.field_data[name].off, url.field_data[name].len);
        };
        field(UF_SCHEMA, scheme, sizeof scheme);
        field(UF_HOST, host, sizeof host);
        field(UF_PATH, path, sizeof path);
        field(UF_QUERY, query, sizeof query);
        benchmark::ClobberMemory();
    }
}

void extract_uriparser(benchmark::State& state)
{
    char scheme[URI_SCHEME_MAX];
    char host[URI_AUTH_MAX];
    char query[URI_QUERY_MAX];
    for (auto _ : state) {
        UriUriA uri;
        const char* error = nullptr;
        benchmark::DoNotOptimize(uriParseSingleUriA(&uri, kUrl, &error));
        const auto range = [](const UriTextRangeA& text, char* dest, size_t size) {
            copy(dest, size, text.first, static_cast<size_t>(text.afterLast - text.first));
        };
        range(uri.scheme, scheme, sizeof scheme);
        range(uri.hostText, host, sizeof host);
        range(uri.query, query, sizeof query);
        benchmark::ClobberMemory();
        uriFreeUriMembersA(&uri);
    }
}

void decode_ours(benchmark::State& state)
{
    char text[sizeof kEncoded];
    for (auto _ : state) {
        memcpy(text, kEncoded, sizeof kEncoded);
        benchmark::DoNotOptimize(uri_decode(text, sizeof text));
        benchmark::ClobberMemory();
    }
}

void decode_uriparser(benchmark::State& state)
{
    char text[sizeof kEncoded];
    for (auto _ : state) {
        memcpy(text, kEncoded, sizeof kEncoded);
        benchmark::DoNotOptimize(uriUnescapeInPlaceExA(text, URI_TRUE, URI_BR_DONT_TOUCH));
        benchmark::ClobberMemory();
    }
}

BENCHMARK(parse_ours)->Name("parse_split/ours");
BENCHMARK(parse_http_parser)->Name("parse_split/http_parser");
BENCHMARK(parse_uriparser)->Name("parse_split/uriparser");
BENCHMARK(mixed_ours)->Name("parse_split_mixed/ours");
BENCHMARK(mixed_http_parser)->Name("parse_split_mixed/http_parser");
BENCHMARK(extract_ours)->Name("extract/ours");
BENCHMARK(extract_http_parser)->Name("extract/http_parser");
BENCHMARK(extract_uriparser)->Name("extract/uriparser");
BENCHMARK(decode_ours)->Name("decode_62/ours");
BENCHMARK(decode_uriparser)->Name("decode_62/uriparser");

} // namespace

BENCHMARK_MAIN();
