// All operations of uri on texts and sizes of any kind. The first byte is a size, the second a bound; what
// follows is the text. Every buffer is a heap block of its exact size.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log.h"
#include "uri.h"

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

bool inside(const char* place, const std::string& text)
{
    return place >= text.c_str() && place <= text.c_str() + text.size();
}

void segment(const char* start, size_t length, const std::string& text)
{
    require((start == nullptr) == (length == 0));
    require(start == nullptr || (inside(start, text) && inside(start + length, text)));
}

void parse(const std::string& text)
{
    struct uri_layout layout;
    const int rc = uri_parse(text.c_str(), &layout);
    require(rc == uri_parse(text.c_str(), nullptr));
    if (rc == 0) {
        segment(layout.scheme, layout.s_len, text);
        segment(layout.authority, layout.a_len, text);
        segment(layout.path, layout.p_len, text);
        segment(layout.query, layout.q_len, text);
    }
    auto block = std::make_unique<char[]>(URI_SCHEME_MAX + URI_AUTH_MAX + URI_PATH_MAX + URI_QUERY_MAX);
    char* scheme = block.get();
    char* authority = scheme + URI_SCHEME_MAX;
    char* path = authority + URI_AUTH_MAX;
    char* query = path + URI_PATH_MAX;
    const int kind = uri_extract(text.c_str(), scheme, authority, path, query);
    require(kind == URI_BAD || (kind == uri_scheme_kind(scheme) && strlen(path) == layout.p_len));
    const int without = uri_extract(text.c_str(), nullptr, nullptr, nullptr, nullptr);
    require(kind == URI_BAD || without == kind);
}

// One segment in a buffer of any size: whole or not at all.
void get(const std::string& text, size_t size)
{
    struct uri_layout layout = {};
    uri_parse(text.c_str(), &layout);
    auto buf = std::make_unique<char[]>(size);
    const char* path = uri_get_path(&layout, buf.get(), size);
    require((path != nullptr) == (layout.p_len > 0 && layout.p_len < size));
    require(path == nullptr ||
            text.compare(static_cast<size_t>(layout.path - text.c_str()), layout.p_len, path) == 0);
}

void addrport(const std::string& text, size_t size, size_t bound)
{
    auto addr = std::make_unique<char[]>(size);
    auto port = std::make_unique<char[]>(size);
    const char* tail = uri_path_addrport(text.c_str(), bound, addr.get(), size, port.get(), size);
    require(tail == nullptr || inside(tail, text));
    const char* alone = uri_path_addrport(text.c_str(), bound, nullptr, 0, nullptr, 0);
    require(tail == nullptr || alone == tail);
}

void endpoints(const std::string& text, size_t size, size_t bound)
{
    auto src = std::make_unique<char[]>(size);
    auto dst = std::make_unique<char[]>(bound);
    uri_extract_endpts(text.c_str(), src.get(), size, dst.get(), bound);
    const char* at = text.c_str();
    const char* seg = nullptr;
    size_t length = 0;
    while (uri_xseg(at, "//", &seg, &length) != nullptr) {
        require(inside(seg, text) && inside(seg + length, text) && seg + length > at);
        at = seg + length;
    }
}

// The bytes as they are, zero bytes included, in a buffer of their size and in a larger one.
void coding(const uint8_t* data, size_t size, size_t more)
{
    for (const size_t bound : {size, size + more}) {
        std::vector<char> buf(bound);
        std::copy(data, data + size, buf.begin());
        require(uri_encode(buf.data(), bound) == buf.data());
        require(bound == 0 || memchr(buf.data(), 0, bound) != nullptr);
        std::fill(buf.begin(), buf.end(), '\0');
        std::copy(data, data + size, buf.begin());
        const char* decoded = uri_decode(buf.data(), bound);
        require(decoded == nullptr || bound == 0 || memchr(buf.data(), 0, bound) != nullptr);
    }
}

void query(const std::string& text)
{
    std::vector<char> block(text.begin(), text.end());
    block.push_back('\0');
    skht_t table = 0;
    const int rc = uri_query_parse(block.data(), &table);
    require((table != 0) == (rc == 0 && !text.empty()));
    if (table != 0) {
        require(skht_count(table) > 0 && skht_count(table) <= 128);
        skht_destroy(table, free);
    }
    const int judged = uri_query_parse(block.data(), nullptr);
    require(rc == judged || rc == EBUSY || judged == EBUSY);
}

void others(const std::string& text, size_t size)
{
    auto alias = std::make_unique<char[]>(size);
    const char* rest = nullptr;
    require(uri_split_alias(text.c_str(), alias.get(), size, &rest) == 0);
    require(rest == nullptr || inside(rest, text));
    auto buf = std::make_unique<char[]>(size);
    const char* whole = uri_ensure_schema("udp://", text.c_str(), buf.get(), size);
    require(whole == nullptr || whole == text.c_str() || strlen(whole) == text.size() + 6);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_mod_ll[MLL_COMMON] = MIN_level;
    if (size < 2) {
        return 0;
    }
    const size_t buflen = data[0];
    const size_t bound = data[1];
    const std::string text(reinterpret_cast<const char*>(data) + 2,
                           strnlen(reinterpret_cast<const char*>(data) + 2, size - 2));
    parse(text);
    get(text, buflen);
    addrport(text, buflen, bound);
    endpoints(text, buflen, bound);
    coding(data + 2, size - 2, buflen);
    query(text);
    others(text, buflen);
    return 0;
}
