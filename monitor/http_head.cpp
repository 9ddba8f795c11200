// The head of a request: its end, its line, its fields, the rules for Host, its query.
#include "http_head.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <strings.h>

#include "webops.h"

namespace zentmon {

namespace {

constexpr size_t kParametersMax = 32;
constexpr size_t kAddressText = 64; // longer than any literal of an address

bool same_word(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool is_port(std::string_view text)
{
    return text.size() <= 5 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool is_literal(int family, std::string_view text)
{
    char buffer[kAddressText];
    unsigned char address[16];
    if (text.size() >= sizeof buffer) {
        return false;
    }
    memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return inet_pton(family, buffer, address) == 1;
}

bool is_host_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_';
}

bool is_known_name(std::string_view name, const std::vector<std::string>& hosts)
{
    if (name.ends_with('.')) {
        name.remove_suffix(1);
    }
    return same_word(name, "localhost") ||
           std::any_of(hosts.begin(), hosts.end(),
                       [name](const std::string& host) { return same_word(name, host); });
}

// The fields that matter here, as they were counted in a head.
struct Fields {
    int hosts = 0;
    std::string_view host;
    bool body = false;
    bool close = false;
    bool keep_alive = false;
    std::string_view last_event_id;
};

// Whether a comma-separated value holds a word.
bool lists(std::string_view value, std::string_view word)
{
    while (!value.empty()) {
        const size_t comma = value.find(',');
        std::string_view item = value.substr(0, comma);
        value.remove_prefix(comma == std::string_view::npos ? value.size() : comma + 1);
        while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) {
            item.remove_prefix(1);
        }
        while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) {
            item.remove_suffix(1);
        }
        if (same_word(item, word)) {
            return true;
        }
    }
    return false;
}

void take_field(std::string_view name, std::string_view value, Fields& fields)
{
    if (same_word(name, "Host")) {
        ++fields.hosts;
        fields.host = value;
    } else if (same_word(name, "Content-Length")) {
        fields.body = fields.body || value != "0";
    } else if (same_word(name, "Transfer-Encoding")) {
        fields.body = true;
    } else if (same_word(name, "Connection")) {
        fields.close = fields.close || lists(value, "close");
        fields.keep_alive = fields.keep_alive || lists(value, "keep-alive");
    } else if (same_word(name, "Last-Event-ID")) {
        fields.last_event_id = value;
    }
}

// 0; -1 where a field is none.
int read_fields(const char* at, const char* end, Fields& fields)
{
    web_field field;
    int rc = 0;
    while ((rc = web_read_field(&at, end, &field)) == 0) {
        take_field({field.name, field.name_len}, {field.value, field.value_len}, fields);
    }
    return rc == 1 && at == end ? 0 : -1;
}

// Takes "http://HOST/path" apart, which a proxy may send; the target's host then counts.
bool split_target(std::string_view target, Request& request, Fields& fields)
{
    constexpr std::string_view scheme = "http://";
    if (target.size() >= scheme.size() && same_word(target.substr(0, scheme.size()), scheme)) {
        target.remove_prefix(scheme.size());
        const size_t slash = std::min(target.find_first_of("/?"), target.size());
        fields.host = target.substr(0, slash);
        target.remove_prefix(slash);
        if (target.empty() || target.front() == '?') {
            return false;
        }
    }
    if (target.empty() || target.front() != '/' || target.find('#') != std::string_view::npos) {
        return false;
    }
    const size_t mark = target.find('?');
    request.path = target.substr(0, mark);
    request.query = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    return true;
}

int judge_host(const Request& request, const Fields& fields, const std::vector<std::string>& hosts)
{
    if (fields.hosts > 1 || (fields.hosts == 0 && !request.http10)) {
        return 400;
    }
    if (fields.host.empty() && fields.hosts == 0) {
        return 0; // HTTP/1.0 owes none, and no browser speaks it
    }
    const std::optional<bool> ours = host_is_ours(fields.host, hosts);
    if (!ours) {
        return 400;
    }
    return *ours ? 0 : 421;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const int lower = c | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<std::string> decode(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
        if (high < 0 || low < 0 || (high == 0 && low == 0)) {
            return std::nullopt;
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

} // namespace

HeadEnd find_head_end(std::string_view data, size_t from)
{
    HeadEnd end;
    for (size_t at = data.find('\n', from); at != std::string_view::npos; at = data.find('\n', at + 1)) {
        if (at == 0 || data[at - 1] != '\r') {
            end.broken = true;
            return end;
        }
        if (at >= 3 && data[at - 2] == '\n') {
            end.length = at + 1;
            return end;
        }
    }
    return end;
}

std::optional<bool> host_is_ours(std::string_view value, const std::vector<std::string>& hosts)
{
    if (value.starts_with('[')) {
        const size_t bracket = value.find(']');
        if (bracket == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view port = value.substr(bracket + 1);
        const bool whole = port.empty() || (port.front() == ':' && is_port(port.substr(1)));
        return whole && is_literal(AF_INET6, value.substr(1, bracket - 1)) ? std::optional(true)
                                                                           : std::nullopt;
    }
    const size_t colon = value.find(':');
    const std::string_view name = value.substr(0, colon);
    if ((colon != std::string_view::npos && !is_port(value.substr(colon + 1))) ||
        !std::all_of(name.begin(), name.end(), is_host_char)) {
        return std::nullopt;
    }
    return is_literal(AF_INET, name) || is_known_name(name, hosts);
}

Request read_request(std::string_view head, const std::vector<std::string>& hosts)
{
    Request request;
    Fields fields;
    web_request_line line;
    const char* at = head.data();
    const char* end = head.data() + head.size();
    if (web_read_request_line(&at, end, &line) != 0 || read_fields(at, end, fields) != 0) {
        request.status = 400;
        return request;
    }
    const std::string_view method(line.method, line.method_len);
    request.http10 = line.minor == 0;
    request.head_only = method == "HEAD";
    request.last_event_id = fields.last_event_id;
    request.keep_alive = !fields.close && (!request.http10 || fields.keep_alive);
    const bool served = request.head_only || method == "GET";
    if (served && !split_target({line.target, line.target_len}, request, fields)) {
        request.status = 400;
        return request;
    }
    request.status = judge_host(request, fields, hosts);
    if (request.status == 0 && !served) {
        request.status = 405;
    } else if (request.status == 0 && fields.body) {
        request.status = 400; // GET and HEAD bring none, and what follows would not be known for a request
    }
    return request;
}

std::optional<Query> Query::parse(std::string_view text)
{
    Query query;
    while (!text.empty()) {
        const size_t end = text.find('&');
        const std::string_view item = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (item.empty()) {
            continue;
        }
        const size_t equals = item.find('=');
        std::optional<std::string> key = decode(item.substr(0, equals));
        std::optional<std::string> value =
            decode(equals == std::string_view::npos ? std::string_view() : item.substr(equals + 1));
        if (!key || !value || query.pairs_.size() == kParametersMax) {
            return std::nullopt;
        }
        query.pairs_.emplace_back(std::move(*key), std::move(*value));
    }
    return query;
}

std::optional<std::string_view> Query::get(std::string_view key) const
{
    for (const auto& [name, value] : pairs_) {
        if (name == key) {
            return value;
        }
    }
    return std::nullopt;
}

bool Query::only(std::initializer_list<std::string_view> keys) const
{
    return std::all_of(pairs_.begin(), pairs_.end(), [keys](const auto& pair) {
        return std::find(keys.begin(), keys.end(), pair.first) != keys.end();
    });
}

} // namespace zentmon
