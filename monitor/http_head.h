// The head of an HTTP request: read strictly (webops.h), judged by the rules for Host, taken apart.
#ifndef ZENTMON_HTTP_HEAD_H
#define ZENTMON_HTTP_HEAD_H

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zentmon {

// A whole head, and with it the request: no body is taken.
constexpr size_t kHeadMax = 8192;

// What a request asks for. The texts point into the head.
struct Request {
    int status = 0;          // 0, or the status code with which it is refused: 400, 405, 421
    bool head_only = false;  // HEAD
    bool http10 = false;     // HTTP/1.0: no chunks
    bool keep_alive = false; // the connection may serve another request
    std::string_view path;   // with its leading slash, as it was sent
    std::string_view query;  // behind the '?', as it was sent
    std::string_view last_event_id;
};

// Where the head ends in what was read so far.
struct HeadEnd {
    size_t length = 0;   // of the head with its empty line; 0: not there yet
    bool broken = false; // a line feed without its carriage return: no head at all
};

// Looks at the bytes from `from` on, what came before was looked at already.
HeadEnd find_head_end(std::string_view data, size_t from);

// Reads a whole head. `hosts` are the names (in lower case) that Host may have besides "localhost" and the
// literals of IP addresses: a page of a stranger's site that has its name point here is refused (421).
Request read_request(std::string_view head, const std::vector<std::string>& hosts);

// Whether a Host value, its port ignored, is one of ours; nothing where it is no host at all.
std::optional<bool> host_is_ours(std::string_view value, const std::vector<std::string>& hosts);

// The parameters of a query, decoded.
class Query {
  public:
    // Nothing for a '%' without two digits, a zero byte, or more than 32 parameters.
    static std::optional<Query> parse(std::string_view text);

    // The value; nothing where the parameter is absent. The first one counts.
    std::optional<std::string_view> get(std::string_view key) const;

    // Whether all its keys are among these.
    bool only(std::initializer_list<std::string_view> keys) const;

    const std::vector<std::pair<std::string, std::string>>& pairs() const { return pairs_; }

  private:
    std::vector<std::pair<std::string, std::string>> pairs_;
};

} // namespace zentmon

#endif
