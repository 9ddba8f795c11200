// Heads of requests: a const text that must come back whole, and the endpoints of its path in buffers between
// canaries. The first byte is the size of the buffers, what follows is the request.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "log.h"
#include "stream_input.h"
#include "webops.h"

namespace {

void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// A zeroed buffer between two stretches of known bytes.
class Framed {
  public:
    explicit Framed(size_t size) : size_(size), bytes_(size + 2 * kCanary, '\x5a')
    {
        std::fill_n(bytes_.begin() + kCanary, size, '\0');
    }

    Framed(const Framed&) = delete;
    Framed& operator=(const Framed&) = delete;

    ~Framed()
    {
        const std::string canary(kCanary, '\x5a');
        require(memcmp(bytes_.data(), canary.data(), kCanary) == 0);
        require(memcmp(bytes_.data() + kCanary + size_, canary.data(), kCanary) == 0);
    }

    char* data() { return bytes_.data() + kCanary; }

    bool is_text() const { return memchr(bytes_.data() + kCanary, 0, size_) != nullptr; }

  private:
    static constexpr size_t kCanary = 16;

    size_t size_;
    std::vector<char> bytes_;
};

void parse_head(const std::string& request, size_t size)
{
    auto text = std::make_unique<char[]>(request.size() + 1);
    memcpy(text.get(), request.c_str(), request.size() + 1);
    struct http_header hdr;
    Framed url(size);
    if (parse_http_header(text.get(), request.size(), &hdr, url.data(), size) == 0) {
        Framed full(size);
        mk_full_url(&hdr, full.data(), size);
        require(memchr(hdr.host, 0, sizeof hdr.host) != nullptr);
        require(memchr(hdr.user_agent, 0, sizeof hdr.user_agent) != nullptr);
        require(hdr.uri.path == nullptr ||
                (hdr.uri.path >= text.get() && hdr.uri.path + hdr.uri.p_len <= text.get() + request.size()));
    }
    Framed path(size);
    Framed query(size + 1);
    extract_http_request_path_query(text.get(), request.size(), path.data(), size, query.data(), size);
    require(memcmp(text.get(), request.c_str(), request.size() + 1) == 0);
}

void parse_urq(const std::string& request, size_t size)
{
    auto http = std::make_unique<char[]>(request.size() + 1);
    memcpy(http.get(), request.c_str(), request.size() + 1);
    Framed src(size);
    Framed dst(size);
    struct http_header hdr;
    is_ping_request(http.get());
    const int rc = web_parse_urq(http.get(), request.size(), src.data(), dst.data(), size,
                                 size % 3 != 0 ? &hdr : nullptr);
    require(rc == 0 || rc == RC_FAVICON || rc == RC_PING || rc == 7 || rc == -7 || rc == 22 || rc == -1);
    require(rc != 0 || size == 0 || (src.is_text() && dst.is_text()));
}

bool within(const char* segment, size_t length, const char* from, const char* end)
{
    return segment >= from && segment + length <= end;
}

// The strict reading: what is taken, put together again, is the text.
void read_strictly(const std::string& request)
{
    auto text = std::make_unique<char[]>(request.size());
    memcpy(text.get(), request.data(), request.size());
    const char* at = text.get();
    const char* const end = at + request.size();
    struct web_request_line line;
    if (web_read_request_line(&at, end, &line) == 0) {
        const std::string again = std::string(line.method, line.method_len) + " " +
                                  std::string(line.target, line.target_len) + " HTTP/1." +
                                  std::to_string(line.minor) + "\r\n";
        require(again == std::string_view(text.get(), static_cast<size_t>(at - text.get())) &&
                line.method_len > 0 && line.target_len > 0);
    } else {
        require(at == text.get());
    }
    struct web_field field;
    const char* from = at;
    int rc = 0;
    while ((rc = web_read_field(&at, end, &field)) == 0) {
        require(within(field.name, field.name_len, from, at) &&
                within(field.value, field.value_len, from, at));
        require(field.name == from && field.name_len > 0 && field.name[field.name_len] == ':');
        require(std::string(field.value, field.value_len).find_first_of("\r\n") == std::string::npos);
        from = at;
    }
    require(rc == 1 ? at == from + 2 && memcmp(from, "\r\n", 2) == 0 : rc == -1 && at == from);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    fuzz::hide_log(data[0] % 2 != 0);
    const std::string request(reinterpret_cast<const char*>(data) + 1, size - 1);
    parse_head(request, data[0]);
    parse_urq(request, data[0]);
    read_strictly(request);
    return 0;
}
