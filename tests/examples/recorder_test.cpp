// The recorder, run as its users run it.
#include <csignal>
#include <sstream>
#include <string>
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
using support::UdpSender;

namespace {

const std::string kProgram = support::build_path("examples/recorder");

std::vector<std::string> command(std::vector<std::string> options, int port, const std::string& file)
{
    options.insert(options.begin(), kProgram);
    options.insert(options.end(), {"127.0.0.1", std::to_string(port), file});
    return options;
}

bool wait_for_text(const TempDir& dir, const std::string& name, const std::string& text)
{
    return support::wait_until([&] { return dir.read(name).find(text) != std::string::npos; });
}

// What stands at the start of the recorded file, which is longer than its data while it is being written.
bool wait_for_data(const TempDir& dir, const std::string& data)
{
    return support::wait_until([&] { return dir.read("rec", data.size()) == data; });
}

struct IndexLine {
    long offset;
    size_t count;
    size_t length;
    double first;
    double last;
};

std::vector<IndexLine> index_of(const TempDir& dir)
{
    std::vector<IndexLine> lines;
    std::istringstream in(dir.read("rec.idx"));
    for (IndexLine line{}; in >> line.offset >> line.count >> line.length >> line.first >> line.last;) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace

TEST(Recorder, writes_datagrams_and_their_index_until_it_is_ended)
{
    TempDir dir;
    dir.write("log", "of an earlier run\n");
    const int port = free_port(SOCK_DGRAM);
    Process recorder(
        command({"-p", dir.path("pid"), "-l", dir.path("log"), "-m", "1"}, port, dir.path("rec")));
    ASSERT_TRUE(wait_for_text(dir, "log", "recording")) << recorder.err();
    EXPECT_EQ(dir.read("pid"), std::to_string(recorder.pid()));

    const UdpSender sender(port);
    std::string expected;
    for (const auto& [length, fill] : std::vector<std::pair<size_t, char>>{
             {1316, 'a'}, {1316, 'b'}, {1316, 'c'}, {700, 'd'}, {1, 'e'}, {0, ' '}, {1, 'f'}}) {
        const std::string data(length, fill);
        ASSERT_TRUE(sender.send(data));
        expected += data;
    }
    ASSERT_TRUE(wait_for_data(dir, expected));
    recorder.kill(SIGTERM);
    const ChildResult result = recorder.wait();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, ""); // no sensors
    EXPECT_EQ(dir.read("rec"), expected);
    EXPECT_FALSE(dir.has("pid"));
    EXPECT_NE(dir.read("log").find("QUIT-SIG(15)"), std::string::npos);
    EXPECT_NE(dir.read("log").find("4650 bytes recorded"), std::string::npos);
    EXPECT_EQ(dir.read("log").find("earlier"), std::string::npos); // the old log was moved aside

    const std::vector<IndexLine> lines = index_of(dir);
    ASSERT_EQ(lines.size(), 3U) << dir.read("rec.idx");
    EXPECT_EQ(lines[0].offset, 0);
    EXPECT_EQ(lines[0].count, 3U);
    EXPECT_EQ(lines[0].length, 1316U);
    EXPECT_EQ(lines[1].offset, 3948);
    EXPECT_EQ(lines[1].length, 700U);
    EXPECT_EQ(lines[2].offset, 4648);
    EXPECT_EQ(lines[2].count, 2U);
    EXPECT_LE(lines[0].first, lines[2].last);
}

TEST(Recorder, records_a_transport_stream)
{
    TempDir dir;
    const int port = free_port(SOCK_DGRAM);
    Process recorder(command({}, port, dir.path("rec")));
    ASSERT_TRUE(recorder.wait_for_err("recording"));
    std::string datagram;
    for (int i = 0; i < 7; ++i) {
        datagram += "\x47\x1f\xff\x10" + std::string(184, '\xff');
    }
    const UdpSender sender(port);
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(sender.send(datagram));
        expected += datagram;
    }
    ASSERT_TRUE(wait_for_data(dir, expected)) << recorder.err();
    recorder.kill(SIGINT);
    EXPECT_EQ(recorder.wait().exit_code, 0);
    EXPECT_EQ(dir.read("rec"), expected);
    ASSERT_EQ(index_of(dir).size(), 2U);
    EXPECT_EQ(index_of(dir)[0].length, 188U);
    EXPECT_EQ(index_of(dir)[1].count, 19U);
}

TEST(Recorder, ends_when_the_file_is_full)
{
    TempDir dir;
    const int port = free_port(SOCK_DGRAM);
    Process recorder(command({"-m", "1"}, port, dir.path("rec")));
    ASSERT_TRUE(recorder.wait_for_err("recording"));
    const UdpSender sender(port);
    const std::string data(50000, 'x');
    EXPECT_TRUE(support::wait_until([&] {
        sender.send(data);
        return recorder.err().find("bytes recorded") != std::string::npos;
    }));
    EXPECT_EQ(recorder.wait().exit_code, 0);
    EXPECT_EQ(dir.read("rec").size(), 1000000U); // the next one might not have found room
}

TEST(Recorder, prints_its_sensors)
{
    TempDir dir;
    const int port = free_port(SOCK_DGRAM);
    Process recorder(command({"-S"}, port, dir.path("rec")));
    ASSERT_TRUE(recorder.wait_for_err("recording"));
    ASSERT_TRUE(UdpSender(port).send("abc"));
    ASSERT_TRUE(wait_for_data(dir, "abc"));
    recorder.kill(SIGQUIT);
    const ChildResult result = recorder.wait();
    EXPECT_EQ(result.exit_code, 0);
    for (const char* name : {"ev_loop", "ev_read", "ev_idle", "data_in"}) {
        EXPECT_NE(result.out.find("P-Sensor [" + std::string(name) + "]\n== time:\t"), std::string::npos)
            << name << "\n"
            << result.out;
    }
    EXPECT_EQ(result.out.find("data_out"), std::string::npos);
}

TEST(Recorder, a_second_instance_is_refused)
{
    TempDir dir;
    const int port = free_port(SOCK_DGRAM);
    Process recorder(command({"-p", dir.path("pid")}, port, dir.path("rec")));
    ASSERT_TRUE(recorder.wait_for_err("recording"));
    const ChildResult second = run_program(command({"-p", dir.path("pid")}, port, dir.path("rec2")));
    EXPECT_EQ(second.exit_code, 1);
    EXPECT_NE(second.err.find("is locked"), std::string::npos) << second.err;
    EXPECT_EQ(dir.read("pid"), std::to_string(recorder.pid()));
    EXPECT_FALSE(dir.has("rec2"));
}

TEST(Recorder, refuses_a_command_line_that_it_does_not_know)
{
    EXPECT_EQ(run_program({kProgram}).exit_code, 2);
    EXPECT_EQ(run_program({kProgram, "-x", "127.0.0.1", "9", "f"}).exit_code, 2);
    EXPECT_EQ(run_program({kProgram, "127.0.0.1", "no-port", "/nonexistent/f"}).exit_code, 1);
}
