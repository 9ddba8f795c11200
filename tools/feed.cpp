// HTTP by the library, JSON and server-sent events from what it brings.
#include "feed.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "command.h"
#include "loop.h"
#include "netops.h"
#include "webops.h"

namespace zentctl {

namespace {

using Json = nlohmann::json;

constexpr int kTimeoutMs = 10'000;
constexpr size_t kHeadMax = 16384;
constexpr size_t kLineMax = 1 << 20;
constexpr const char* kCure = "start zentmon, or name its address: http://ADDRESS:PORT";

// "http://HOST:PORT/PATH" in its parts.
struct Url {
    std::string server; // "HOST:PORT" or "HOST"
    std::string host;
    std::string port;
    std::string path; // with its first slash, without a last one
};

Url split_url(const std::string& text)
{
    constexpr std::string_view scheme = "http://";
    if (!text.starts_with(scheme) || text.size() == scheme.size()) {
        throw UsageError(text + " is no URL that starts with http://");
    }
    Url url;
    const std::string rest = text.substr(scheme.size());
    const size_t slash = std::min(rest.find('/'), rest.size());
    url.server = rest.substr(0, slash);
    url.path = rest.substr(slash);
    while (url.path.ends_with('/')) {
        url.path.pop_back();
    }
    const size_t colon = url.server.rfind(':');
    const bool has_port = colon != std::string::npos && url.server.find(']', colon) == std::string::npos;
    url.host = url.server.substr(0, has_port ? colon : url.server.size());
    url.port = has_port ? url.server.substr(colon + 1) : "";
    return url;
}

// A member of an object, or the other value where it is missing or of another type.
template <class Value>
Value member(const Json& object, const char* name, Value otherwise)
{
    const auto found = object.find(name);
    try {
        return found == object.end() || found->is_null() ? otherwise : found->get<Value>();
    } catch (const Json::exception&) {
        return otherwise;
    }
}

[[noreturn]] void refuse(const std::string& url, int code, const std::string& body)
{
    const Json answer = Json::parse(body, nullptr, false);
    const std::string reason = answer.is_object() ? member<std::string>(answer, "error", "") : "";
    throw CannotLook("refused",
                     url + " answers " + std::to_string(code) + (reason.empty() ? "" : ": " + reason));
}

} // namespace

HttpGet::HttpGet(const std::string& url, const std::string& target)
{
    try {
        open(url, target);
    } catch (...) {
        usock_close(fd_, &context_);
        throw;
    }
}

HttpGet::~HttpGet()
{
    usock_close(fd_, &context_);
}

void HttpGet::open(const std::string& url, const std::string& target)
{
    const Url parts = split_url(url);
    context_.inbound = true;
    context_.skip_http = true;
    context_.timeout_ms = kTimeoutMs;
    errno = 0;
    fd_ = usock_open(("http://" + parts.server + "/").c_str(), &context_);
    if (fd_ < 0) {
        throw CannotLook("unreachable",
                         url + ": no connection" + (errno != 0 ? std::string(": ") + strerror(errno) : ""),
                         kCure);
    }
    const std::string path = parts.path + target;
    http_request request = {RQTYPE_GET, RQFLAG_HTTP10_GET,  path.c_str(),
                            "zentctl",  parts.host.c_str(), parts.port.c_str()};
    std::string head(kHeadMax, '\0');
    http_resp_ctx answer = NULL_http_ctx;
    const auto on_pipe = signal(SIGPIPE, SIG_IGN); // a server that is gone already is told
    int rc = send_http_request(fd_, &request);
    (void)signal(SIGPIPE, on_pipe);
    const int64_t end = Loop::now_ms() + kTimeoutMs;
    do {
        rc = rc == 0 || rc == EAGAIN ? recv_http_response(fd_, head.data(), head.size(), &answer) : rc;
    } while (rc == EAGAIN && Loop::now_ms() < end);
    if (rc == 0) {
        begun_ =
            head.substr(static_cast<size_t>(answer.tail), static_cast<size_t>(answer.total - answer.tail));
    }
    const int code = answer.code;
    reset_resp_ctx(&answer);
    if (rc != 0) {
        throw CannotLook("unreachable", url + ": no answer of an HTTP server", kCure);
    }
    if (code != HTTP_OK_CODE) {
        std::string body;
        while (body.size() < kHeadMax && read(body)) {
        }
        refuse(url, code, body);
    }
}

bool HttpGet::read(std::string& body)
{
    if (!begun_.empty()) {
        body += begun_;
        begun_.clear();
        return true;
    }
    char block[65536];
    const ssize_t n = recv(fd_, block, sizeof block, 0);
    if (n > 0) {
        body.append(block, static_cast<size_t>(n));
    }
    return n > 0 || (n < 0 && errno == EAGAIN && is_non_blocking(fd_) > 0);
}

void HttpGet::stop_blocking() const
{
    set_non_blocking(fd_);
}

std::string percent_encoded(std::string_view text)
{
    constexpr const char* digits = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (isalnum(byte) != 0 || strchr("-._~", byte) != nullptr) {
            result += c;
        } else {
            result += std::string("%") + digits[byte >> 4] + digits[byte & 15];
        }
    }
    return result;
}

GroupTable parse_groups(const std::string& body)
{
    const Json answer = Json::parse(body, nullptr, false);
    if (!answer.is_object() || !answer.contains("groups") || !answer["groups"].is_array()) {
        throw CannotLook("bad-answer", "the answer is no table of groups", "the URL of a zentmon");
    }
    GroupTable table;
    table.now = member(answer, "now", 0.0);
    for (const Json& row : answer["groups"]) {
        if (row.is_object()) {
            table.rows.push_back(
                {member<std::string>(row, "group", "?"), member<std::string>(row, "agent", "?"),
                 member<std::string>(row, "address", ""), member<std::string>(row, "listener", ""),
                 member<std::string>(row, "state", ""), member(row, "since", 0.0), member(row, "last", 0.0),
                 member(row, "joins", 0L), member(row, "leaves", 0L)});
        }
    }
    return table;
}

std::optional<EventRow> parse_event(const std::string& data)
{
    const Json event = Json::parse(data, nullptr, false);
    if (!event.is_object() || !event.contains("event")) {
        return {};
    }
    return EventRow{member<std::string>(event, "id", ""),
                    member<std::string>(event, "event", "?"),
                    member<std::string>(event, "group", "?"),
                    member<std::string>(event, "agent", "?"),
                    member<std::string>(event, "address", ""),
                    member<std::string>(event, "listener", ""),
                    member(event, "time", 0.0)};
}

std::vector<Sent> EventReader::take(std::string_view bytes)
{
    std::vector<Sent> whole;
    rest_ += bytes;
    size_t from = 0;
    for (size_t end = 0; (end = rest_.find('\n', from)) != std::string::npos; from = end + 1) {
        const size_t length = end - from - (end > from && rest_[end - 1] == '\r' ? 1 : 0);
        line(std::string_view(rest_).substr(from, length), whole);
    }
    rest_.erase(0, from);
    if (rest_.size() > kLineMax) {
        throw CannotLook("bad-answer", "a line without end in the stream of events", "the URL of a zentmon");
    }
    return whole;
}

void EventReader::line(std::string_view text, std::vector<Sent>& whole)
{
    if (text.empty()) {
        if (has_data_) {
            whole.push_back(std::move(current_));
        }
        current_ = {};
        has_data_ = false;
        return;
    }
    const size_t colon = std::min(text.find(':'), text.size());
    const std::string_view field = text.substr(0, colon);
    std::string_view value = text.substr(std::min(colon + 1, text.size()));
    value.remove_prefix(value.starts_with(' ') ? 1 : 0);
    if (field == "event") {
        current_.type = value;
    } else if (field == "id") {
        current_.id = value;
    } else if (field == "data" && current_.data.size() < kLineMax) {
        current_.data += (has_data_ ? "\n" : "") + std::string(value);
        has_data_ = true;
    }
}

std::string time_text(double seconds)
{
    const auto whole = static_cast<time_t>(std::clamp(seconds, 0.0, 1e11));
    tm parts = {};
    char text[32] = "";
    if (localtime_r(&whole, &parts) == nullptr) {
        return std::to_string(whole);
    }
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

} // namespace zentctl
