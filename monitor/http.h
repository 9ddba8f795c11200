// The HTTP server on the event loop: listeners, clients, their limits. What is answered comes from an
// HttpHandler; bodies are drawn in pieces as a client takes them, so that none costs the others time or
// memory.
#ifndef ZENTMON_HTTP_H
#define ZENTMON_HTTP_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "config.h"
#include "counters.h"
#include "http_head.h"
#include "loop.h"

namespace zentmon {

// A body in pieces. A piece should be about 64 KiB and take no more than a millisecond or two.
class Body {
  public:
    enum class Step {
        more, // goes on; an empty piece means that there is work to do yet
        idle, // nothing to send now: asked again at each flush
        last  // that was all
    };

    virtual ~Body() = default;

    // Appends the next piece.
    virtual Step next(std::string& out) = 0;
};

struct Reply {
    int code = 200;
    const char* type = "application/json";
    std::string text;           // the body, unless there is one in pieces
    std::string_view asset;     // or a body of static storage
    std::unique_ptr<Body> body; // or one in pieces
    const char* fields = "";    // further lines of the head, each with its line end
    bool stream = false;        // server-sent events: idles, and lasts until the client goes
    std::shared_ptr<void> hold; // let go when all is sent, or the client has gone
    bool deferred = false;      // answered later, by HttpServer::complete
};

// {"error": text}
Reply error_reply(int code, std::string_view text);

// Names a client for as long as the process lives.
using ClientId = uint64_t;

class HttpHandler {
  public:
    virtual ~HttpHandler() = default;
    virtual Reply answer(const Request& request, ClientId client) = 0;
};

struct HttpLimits {
    size_t clients = 256;
    size_t lingering = 64;     // more, that have had their answer and have only to read it
    int64_t head_ms = 10'000;  // for a whole head, and for the next one on a kept connection
    int64_t stall_ms = 30'000; // without a byte taken while there is something to send
    int64_t linger_ms = 2'000; // for the peer to read the last answer
};

class HttpServer {
  public:
    HttpServer(HttpHandler& handler, std::vector<std::string> hosts, Counters& counters,
               const HttpLimits& limits = {});
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Listens on an address: 0, or -1 with errno and a line.
    int listen(const Endpoint& at);

    // Takes over a listening stream socket: 0, or -1 with a line; the descriptor is closed with the server.
    int adopt(int fd);

    // Where the last of the listeners is.
    struct sockaddr_storage address() const;

    // --host anew.
    void set_hosts(std::vector<std::string> hosts);

    // The answer to a request that was deferred; nothing happens where the client has gone.
    void complete(ClientId client, Reply reply);

    // Asks idle bodies again: there is news.
    void flush();

    size_t clients() const { return clients_.size(); }

  private:
    class Client;
    class Listener;
    friend class Client;
    friend class Listener;

    void add_client(int fd);
    bool make_room();
    void warn_full();
    void remove(Client* client);
    void sweep();
    void clear_gone();
    void count();
    void pause_accepting();

    HttpHandler& handler_;
    std::vector<std::string> hosts_;
    Counters& counters_;
    HttpLimits limits_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::vector<std::unique_ptr<Client>> clients_;
    std::vector<std::unique_ptr<Client>> gone_; // closed; freed when none of their calls is under way
    ClientId last_id_ = 0;
    int64_t last_warned_ms_ = 0;
    std::string scratch_; // a piece before it becomes a chunk
    Timer sweep_;
    Timer resume_;
    Timer clear_;
};

} // namespace zentmon

#endif
