// The file server, asked by curl and by raw clients.
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "paths.h"
#include "tempdir.h"
#include "udp.h"

using support::ChildResult;
using support::free_port;
using support::Process;
using support::run_program;
using support::TempDir;

namespace {

const std::string kProgram = support::build_path("examples/file_server");

// A server on a port of its own over a directory with some files.
class FileServer : public testing::Test {
  protected:
    void SetUp() override
    {
        dir_.make_dir("root");
        dir_.make_dir("root/sub");
        dir_.write("secret", "outside");
        dir_.write("root/small.txt", "hello, world\n");
        dir_.write("root/empty", "");
        for (unsigned i = 0; big_.size() < 5000000; ++i) {
            big_ += std::to_string(i * 2654435761U) + ";";
        }
        dir_.write("root/sub/big file", big_);
        port_ = free_port(SOCK_STREAM);
        server_ = Process({kProgram, "-S", "-p", dir_.path("pid"), "-l", dir_.path("log"), "127.0.0.1",
                           std::to_string(port_), dir_.path("root")});
        ASSERT_TRUE(support::wait_until([&] {
            return dir_.read("log").find("serving") != std::string::npos;
        })) << server_.err();
    }

    ChildResult curl(std::vector<std::string> options, const std::string& path) const
    {
        options.insert(options.begin(), {"curl", "-s", "--path-as-is", "--noproxy", "*"});
        options.push_back("http://127.0.0.1:" + std::to_string(port_) + path);
        return run_program(options);
    }

    int connected() const
    {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in addr = support::loopback(port_);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
        return fd;
    }

    static std::string all_of(int fd)
    {
        std::string text;
        char block[65536];
        for (ssize_t n = 0; (n = read(fd, block, sizeof block)) > 0;) {
            text.append(block, static_cast<size_t>(n));
        }
        close(fd);
        return text;
    }

    TempDir dir_;
    std::string big_;
    int port_ = 0;
    Process server_;
};

} // namespace

TEST_F(FileServer, curl_gets_files)
{
    EXPECT_EQ(curl({}, "/small.txt").out, "hello, world\n");
    EXPECT_TRUE(curl({}, "/sub/big%20file").out == big_);
    const ChildResult empty = curl({"-i"}, "/empty");
    EXPECT_NE(empty.out.find("HTTP/1.1 200 OK\r\n"), std::string::npos) << empty.out;
    EXPECT_NE(empty.out.find("Content-Length: 0\r\n"), std::string::npos) << empty.out;
}

TEST_F(FileServer, head_has_the_length_and_no_body)
{
    const ChildResult head = curl({"-I"}, "/small.txt");
    EXPECT_EQ(head.exit_code, 0);
    EXPECT_NE(head.out.find("Content-Length: 13\r\n"), std::string::npos) << head.out;
    EXPECT_EQ(head.out.find("hello"), std::string::npos);
}

TEST_F(FileServer, refusals_have_their_codes)
{
    const std::vector<std::string> code = {"-o", "/dev/null", "-w", "%{http_code}"};
    EXPECT_EQ(curl(code, "/none").out, "404");
    EXPECT_EQ(curl(code, "/sub").out, "404");
    EXPECT_EQ(curl(code, "/").out, "404");
    EXPECT_EQ(curl(code, "/../secret").out, "403");
    EXPECT_EQ(curl(code, "/%2E%2E/secret").out, "403");
    std::vector<std::string> post = code;
    post.insert(post.end(), {"-X", "POST"});
    EXPECT_EQ(curl(post, "/small.txt").out, "400");
}

TEST_F(FileServer, a_slow_and_half_closing_client_is_served)
{
    const int fd = connected();
    for (const char c : std::string("GET /small.txt HTTP/1.0\r\n\r\n")) {
        ASSERT_EQ(write(fd, &c, 1), 1);
    }
    shutdown(fd, SHUT_WR);
    const std::string text = all_of(fd);
    EXPECT_NE(text.find("\r\n\r\nhello, world\n"), std::string::npos) << text;
}

TEST_F(FileServer, clients_that_go_away_harm_nobody)
{
    for (int i = 0; i < 20; ++i) {
        const int fd = connected();
        const std::string request = "GET /sub/big%20file HTTP/1.1\r\n\r\n";
        ASSERT_GT(write(fd, request.data(), request.size() - static_cast<size_t>(i % 3)), 0);
        close(fd);
    }
    const int endless = connected();
    const std::string head(8192, 'x');
    EXPECT_GT(send(endless, head.data(), head.size(), MSG_NOSIGNAL), 0);
    all_of(endless);
    EXPECT_EQ(curl({}, "/small.txt").out, "hello, world\n");
}

TEST_F(FileServer, ends_cleanly_with_its_sensors)
{
    EXPECT_EQ(dir_.read("pid"), std::to_string(server_.pid()));
    EXPECT_EQ(curl({}, "/small.txt").out, "hello, world\n");
    server_.kill(SIGTERM);
    const ChildResult result = server_.wait();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_FALSE(dir_.has("pid"));
    for (const char* name : {"ev_loop", "ev_read", "ev_idle", "data_in", "data_out", "requests"}) {
        EXPECT_NE(result.out.find("P-Sensor [" + std::string(name) + "]"), std::string::npos) << result.out;
    }
}
