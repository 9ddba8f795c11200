// Composing: heads of responses, escaped texts and playlist items, in buffers of any size. Two bytes of size,
// one of choices, then texts that end in zero bytes.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log.h"
#include "webops.h"

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// The head as the description has it, by strings; empty where it does not fit.
std::string model(const struct http_response& r, size_t buflen)
{
    std::string head =
        "HTTP/1.1 " + std::to_string(r.code) + " " + r.reason + "\r\nServer: " + r.server + "\r\n";
    if (head.size() >= buflen) {
        return "";
    }
    std::vector<std::string> lines;
    const auto add = [&lines](const char* title, const char* value) {
        if (value != nullptr && *value != '\0') {
            lines.push_back(std::string(title) + value + "\r\n");
        }
    };
    add("Content-Type: ", r.content_type);
    add("Content-Length: ", r.content_length < 0 ? "" : std::to_string(r.content_length).c_str());
    add("Connection: ", r.connection);
    add("Location: ", r.location);
    for (const std::string& line : lines) {
        if (line.size() >= buflen - head.size()) {
            return "";
        }
        head += line.size() < 128 ? line : "";
    }
    if (r.code == 200 && *r.ok_suffix != '\0') {
        head += std::string(r.ok_suffix) + "\r\n";
    }
    return head.size() + 3 < buflen ? head + "\r\n" : "";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_mod_ll[MLL_COMMON] = MIN_level;
    if (size < 3) {
        return 0;
    }
    const size_t buflen = data[0] + data[1] * size_t{4};
    const unsigned choice = data[2];
    std::string texts[6];
    size_t at = 3;
    for (std::string& text : texts) {
        const char* start = reinterpret_cast<const char*>(data) + at;
        text.assign(start, strnlen(start, size - at));
        at = std::min(size, at + text.size() + 1);
    }
    const struct http_response r = {(choice & 1) != 0 ? 200 : 404,
                                    texts[0].c_str(),
                                    (choice & 2) != 0 ? static_cast<long>(size) : -1,
                                    texts[1].c_str(),
                                    texts[2].c_str(),
                                    (choice & 4) != 0 ? texts[3].c_str() : nullptr,
                                    texts[4].c_str(),
                                    texts[5].c_str()};
    auto buf = std::make_unique<char[]>(buflen);
    const ssize_t length = mk_http_response(&r, buf.get(), buflen);
    const std::string expected = model(r, buflen);
    require(length < 0 ? expected.empty()
                       : expected == buf.get() && expected.size() == static_cast<size_t>(length));

    auto dst = std::make_unique<char[]>(buflen);
    const int count = web_escape(texts[0].c_str(), dst.get(), buflen);
    require(count == -34 || count == web_escape(texts[0].c_str(), nullptr, 0));
    // The text behind the last escaped character may fill the buffer.
    const bool ends_escaped = texts[0].find_last_of(web_ESC) + 1 == texts[0].size();
    require(count <= 0 || !ends_escaped || memchr(dst.get(), 0, buflen) != nullptr);

    auto url = std::make_unique<char[]>(buflen);
    mk_hls_item_url(texts[1].c_str(), texts[2].c_str(), url.get(), buflen);
    return 0;
}
