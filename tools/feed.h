// What a zentmon says over HTTP: its table of groups and its stream of events.
#ifndef ZENTCTL_FEED_H
#define ZENTCTL_FEED_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wopen.h"

namespace zentctl {

inline constexpr const char* kDefaultUrl = "http://127.0.0.1:8580";

// One GET by HTTP/1.0, so that the body comes as it is and ends with the connection.
class HttpGet {
  public:
    // Connects, sends, and reads the head. target: path and query, appended to the URL's own path. Throws
    // CannotLook: "unreachable", or "refused" for another code than 200, with the server's own words.
    HttpGet(const std::string& url, const std::string& target);
    HttpGet(const HttpGet&) = delete;
    HttpGet& operator=(const HttpGet&) = delete;
    ~HttpGet();

    int fd() const { return fd_; }

    // Appends what is there, waiting for it if the socket blocks. False at the end of the body or for an
    // error.
    bool read(std::string& body);

    void stop_blocking() const;

  private:
    void open(const std::string& url, const std::string& target);

    usock_ctx context_ = {};
    int fd_ = -1;
    std::string begun_; // of the body, that came with the head
};

// A text for the query of a URL.
std::string percent_encoded(std::string_view text);

struct GroupRow {
    std::string group;
    std::string agent;
    std::string address;
    std::string listener;
    std::string state;
    double since = 0; // Unix seconds
    double last = 0;
    long joins = 0;
    long leaves = 0;
};

struct GroupTable {
    double now = 0;
    std::vector<GroupRow> rows;
};

// The body of /groups.json. Throws CannotLook "bad-answer".
GroupTable parse_groups(const std::string& body);

struct EventRow {
    std::string id;
    std::string event; // "join", "leave", "expire"
    std::string group;
    std::string agent;
    std::string address;
    std::string listener;
    double time = 0;
};

// The data of one event; nothing if it is none.
std::optional<EventRow> parse_event(const std::string& data);

// One message of a stream of server-sent events.
struct Sent {
    std::string type; // empty for a plain message
    std::string id;
    std::string data;
};

// Takes the bytes of a stream apart.
class EventReader {
  public:
    // The messages that are whole with these bytes. Throws CannotLook "bad-answer" for a line without end.
    std::vector<Sent> take(std::string_view bytes);

  private:
    void line(std::string_view text, std::vector<Sent>& whole);

    std::string rest_;
    Sent current_;
    bool has_data_ = false;
};

// Local date and time of Unix seconds.
std::string time_text(double seconds);

} // namespace zentctl

#endif
