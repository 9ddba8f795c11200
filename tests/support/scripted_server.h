// A TCP server on loopback that takes one client, reads its request and answers with a given text.
#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "wait.h"

namespace support {

class ScriptedServer {
  public:
    // The response goes out when the empty line of the request is there and before_response has come back.
    // The connection stays open until the end of the object, or hang_up.
    explicit ScriptedServer(std::string response, uint16_t port = 0,
                            std::function<void()> before_response = {})
        : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 4), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread(
            [this, response = std::move(response), before_response] { serve(response, before_response); });
    }

    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    ~ScriptedServer()
    {
        shutdown(listener_, SHUT_RDWR);
        if (client_ >= 0) {
            shutdown(client_, SHUT_RDWR);
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        hang_up();
        close(listener_);
    }

    uint16_t port() const { return port_; }

    // "127.0.0.1:PORT"
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    // What the client has sent, once it has been answered.
    const std::string& request()
    {
        if (thread_.joinable()) {
            thread_.join();
        }
        return request_;
    }

    // Whether the client has closed, once it has been answered.
    bool client_is_gone()
    {
        char byte;
        request();
        return recv(client_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    }

    // Sends more, once the client has been answered.
    void send_more(const std::string& text)
    {
        request();
        EXPECT_EQ(send(client_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    void hang_up()
    {
        request();
        const int fd = client_.exchange(-1);
        if (fd >= 0) {
            close(fd);
        }
    }

  private:
    void serve(const std::string& response, const std::function<void()>& before_response)
    {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        client_ = fd;
        char block[4096];
        while (request_.find("\r\n\r\n") == std::string::npos) {
            const ssize_t n = recv(fd, block, sizeof block, 0);
            if (n <= 0) {
                return;
            }
            request_.append(block, static_cast<size_t>(n));
        }
        if (before_response) {
            before_response();
        }
        send(fd, response.data(), response.size(), MSG_NOSIGNAL);
    }

    int listener_;
    std::atomic<int> client_ = -1;
    uint16_t port_ = 0;
    std::string request_;
    std::thread thread_;
};

} // namespace support

#endif
