// What is counted, for /metrics and the status line: plain numbers since the start, written by the thread of
// the loop alone.
#ifndef ZENTMON_COUNTERS_H
#define ZENTMON_COUNTERS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace zentmon {

// Why a line is a bad line.
enum class BadLine : uint8_t {
    empty,       // nothing between two line feeds
    word,        // begins with neither "JOIN" nor "LEAVE" and one blank
    scheme,      // no "UDP://" behind it
    address,     // no dotted decimal without leading zeros
    group,       // not in 224.0.0.0/4
    trailing,    // something behind the address
    truncated,   // the piece at which a datagram of more than 9,000 bytes was cut
    kinds_count_ // how many there are
};

// The label of a reason in /metrics: "empty", "word", ... Static text.
const char* bad_line_name(BadLine reason);

// What a limit refused.
enum class Limit : uint8_t { agents, flows, groups, kinds_count_ };

const char* limit_name(Limit what);

// The sinks that drop rather than wait, for zentmon_output_dropped_total{sink}.
enum class Output : uint8_t {
    json,    // standard output
    forward, // --forward
    exec,    // the queue of --exec
    mqtt,    // events for the broker
    log,     // log lines
    kinds_count_
};

const char* output_name(Output sink);

// An array with one place for each kind of an enumeration.
template <typename Kind>
struct PerKind {
    std::array<uint64_t, static_cast<size_t>(Kind::kinds_count_)> of{};

    uint64_t& operator[](Kind kind) { return of[static_cast<size_t>(kind)]; }

    uint64_t operator[](Kind kind) const { return of[static_cast<size_t>(kind)]; }
};

// Of one socket that takes lines.
struct ListenerCounters {
    std::string name;
    uint64_t datagrams = 0;
    uint64_t dropped = 0; // by the kernel, since its buffer was full
};

struct Counters {
    // intake
    std::deque<ListenerCounters> listeners; // in the order of the settings; places do not move
    PerKind<BadLine> bad_lines;
    uint64_t empty_datagrams = 0;
    uint64_t denied = 0;
    PerKind<Limit> limit_dropped;

    // events by EventKind: join, leave, expire
    std::array<uint64_t, 3> events{};

    // HTTP: answers by status code (index code - 100), and clients at this moment
    std::array<uint64_t, 500> http_requests{};
    uint64_t http_plain_clients = 0;
    uint64_t http_stream_clients = 0;

    // history
    bool history_configured = false;
    bool history_up = false;
    uint64_t history_queue = 0;
    uint64_t history_lost = 0;

    // hooks, by how a run ended
    uint64_t hook_ok = 0;
    uint64_t hook_failed = 0;
    uint64_t hook_killed = 0;
    uint64_t hook_not_started = 0;

    // MQTT
    bool mqtt_configured = false;
    bool mqtt_connected = false;

    PerKind<Output> output_dropped;
};

} // namespace zentmon

#endif
