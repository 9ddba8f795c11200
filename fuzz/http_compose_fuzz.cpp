// Composing: heads of responses, escaped texts and playlist items, in buffers of any size; requests and
// responses as they go over a socket. Two bytes of size, one of choices, then texts that end in zero bytes.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
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

// What send puts on a socket, if it says that it did; the peer may be gone.
template <class Send>
std::string sent(bool has_peer, Send send)
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    if (!has_peer) {
        close(ends[1]);
    }
    const bool done = send(ends[0]) == 0;
    close(ends[0]);
    std::string text(8192, 0);
    const ssize_t n = has_peer ? read(ends[1], text.data(), text.size()) : 0;
    require(n >= 0 && (n > 0) == done);
    text.resize(static_cast<size_t>(n));
    if (has_peer) {
        close(ends[1]);
    }
    return text;
}

// A request that was sent: its line, a Host line, and one end.
void check_request(const std::string& text, const std::string& version, const char* host)
{
    if (text.empty()) {
        return;
    }
    constexpr size_t longest = 2047; // loses its last character, which is kept
    require(text.starts_with("GET /") && (text.ends_with("no-cache\r\n\r\n") || text.size() == longest));
    const size_t line = text.find(" HTTP/" + version + "\r\nHost: ");
    require(line != std::string::npos && (host == nullptr || text.find(host, line) != std::string::npos));
}

void on_the_wire(const struct http_response& r, const std::string (&texts)[6], unsigned choice)
{
    const bool has_peer = (choice & 8) == 0;
    const std::string expected = model(r, 4096);
    const std::string response = sent(has_peer, [&r](int fd) { return send_http_response(fd, &r); });
    require(response == (has_peer ? expected : ""));
    for (const unsigned code : {200U, 302U, 400U, 403U, 404U, 408U, 500U, choice * 4}) {
        const struct http_response* canned = match_http_response(static_cast<int>(code));
        require(canned == nullptr || canned->code == static_cast<int>(code));
    }
    const bool old = (choice & 16) != 0;
    check_request(
        sent(has_peer, [&](int fd) { return send_http_get(fd, texts[5].c_str(), texts[0].c_str(), old); }),
        old ? "1.0" : "1.1", nullptr);
    const char* host = (choice & 32) != 0 ? nullptr : texts[1].c_str();
    const char* port = (choice & 64) != 0 ? nullptr : texts[2].c_str();
    struct http_request request = {
        (choice & 128) != 0 ? RQTYPE_HEAD : RQTYPE_GET, 0, texts[3].c_str(), texts[0].c_str(), host, port};
    request.flags |= old ? uint32_t{RQFLAG_HTTP10_GET} : 0U;
    request.flags |= (choice & 2) != 0 ? uint32_t{RQFLAG_KEEPALIVE} : 0U;
    check_request(sent(has_peer, [&request](int fd) { return send_http_request(fd, &request); }),
                  old ? "1.0" : "1.1", host != nullptr && *host != 0 ? nullptr : LOCALHOST_ADDR);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_mod_ll[MLL_COMMON] = MIN_level;
    g_mod_ll[MLL_SYSWRAP] = MIN_level;
    (void)signal(SIGPIPE, SIG_IGN);
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
    on_the_wire(r, texts, choice);
    return 0;
}
