// The text forms of an event.
#include "event.h"

#include <charconv>
#include <cstdio>
#include <sys/random.h>
#include <unistd.h>

namespace zentmon {

namespace {

std::string random_boot_id()
{
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof number)) {
        number = static_cast<uint64_t>(time(nullptr)) << 22 ^ static_cast<uint64_t>(getpid()); // early boot
    }
    char text[17];
    snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
    return text;
}

template <typename Number>
void append_number(std::string& out, Number number)
{
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, number).ptr;
    out.append(text, end);
}

} // namespace

const char* event_name(EventKind kind)
{
    switch (kind) {
    case EventKind::join: return "join";
    case EventKind::leave: return "leave";
    default: return "expire";
    }
}

const std::string& boot_id()
{
    static const std::string id = random_boot_id();
    return id;
}

std::string event_id(uint64_t seq)
{
    std::string id = boot_id();
    id += '-';
    append_number(id, seq);
    return id;
}

void append_group(std::string& out, uint32_t group)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        append_number(out, group >> shift & 0xff);
        if (shift > 0) {
            out += '.';
        }
    }
}

void append_time(std::string& out, int64_t time_ms)
{
    append_number(out, time_ms / 1000);
    const int64_t fraction = time_ms % 1000;
    out += '.';
    out += static_cast<char>('0' + fraction / 100);
    out += static_cast<char>('0' + fraction / 10 % 10);
    out += static_cast<char>('0' + fraction % 10);
}

void append_quoted(std::string& out, const std::string& text)
{
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        } else {
            out += c;
        }
    }
    out += '"';
}

void append_json(std::string& out, const Event& event)
{
    out += "{\"id\":\"";
    out += boot_id();
    out += '-';
    append_number(out, event.seq);
    out += "\",\"time\":";
    append_time(out, event.time_ms);
    out += ",\"event\":\"";
    out += event_name(event.kind);
    out += "\",\"agent\":";
    append_quoted(out, event.who->agent);
    out += ",\"address\":";
    append_quoted(out, event.who->address);
    out += ",\"listener\":";
    append_quoted(out, event.who->listener);
    out += ",\"group\":\"";
    append_group(out, event.group);
    out += "\"}";
}

} // namespace zentmon
