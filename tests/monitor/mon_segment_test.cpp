// Real agents on real segments: two namespaces, in each a host by the kernel's own IGMP and an agent that
// watches it; one zentmon in a third. What it shows is what the hosts' kernels say.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent_run.h"
#include "paths.h"
#include "privns.h"
#include "tempdir.h"
#include "udp.h"
#include "wait.h"

using namespace support;

namespace {

constexpr std::chrono::seconds kLong{150};
// A browser starts and walks through the table, on a loaded machine too; within the time that a test may
// take.
constexpr std::chrono::seconds kBrowserLimit{300};

// A namespace "n1" or "n2" with the host's interface "host", the agent's "tap" at the other end of the wire,
// and "r" towards the receiver, 10.9.N.1.
class Segment {
  public:
    explicit Segment(int number) : name_("n" + std::to_string(number)), number_(std::to_string(number))
    {
        must_run("ip netns add " + name_);
        must_run("ip link add m" + number_ + " type veth peer name r netns " + name_);
        must_run("ip addr add 10.9." + number_ + ".1/24 dev m" + number_);
        must_run("ip link set m" + number_ + " up");
        inside("ip link set lo up");
        inside("ip addr add 10.9." + number_ + ".2/24 dev r");
        inside("ip link set r up");
        await_link("m" + number_);
        in([] { await_link("r"); });
        inside("sysctl -qw net.ipv4.igmp_max_memberships=5000");
        add_wire("host", "tap", "10.1." + number_);
    }

    ~Segment()
    {
        run_program({"ip", "link", "del", "m" + number_}); // a namespace takes its time to go
        run_program({"ip", "netns", "del", name_});
    }

    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    void inside(const std::string& command) const { must_run("ip netns exec " + name_ + " " + command); }

    void add_wire(const std::string& host, const std::string& agent, const std::string& address) const
    {
        inside("ip link add " + host + " type veth peer name " + agent);
        inside("sysctl -qw net.ipv4.conf." + host + ".force_igmp_version=2");
        inside("sysctl -qw net.ipv4.conf." + host + ".igmpv2_unsolicited_report_interval=50");
        inside("ip addr add " + address + ".1/24 dev " + host);
        inside("ip addr add 10.10" + address.substr(3) + ".1/24 dev " + agent); // the agent wants one
        inside("ip link set " + host + " up");
        inside("ip link set " + agent + " up");
        in([&] {
            await_link(host);
            await_link(agent);
        });
    }

    // An agent that reports to the receiver, when it captures. Without the feature exact it may tell of a
    // group again that it has told of, which is what a restarted one does.
    Process agent(const std::string& log, const std::string& interface = "tap") const
    {
        unlink(log.c_str());
        Process process({"ip", "netns", "exec", name_, "env", "ZENT_FEATURES=exact,immediate", zent_path(),
                         "-T", "-i", interface, "-R", "10.9." + number_ + ".1:4554", "-g", "239.0.0.0", "-l",
                         log, "-L", "info"});
        EXPECT_TRUE(wait_for_file(log, "is running as")) << process.err(); // and captures
        return process;
    }

    // Runs a function in the namespace.
    template <typename Body>
    void in(Body body) const
    {
        const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        const int there = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(setns(there, CLONE_NEWNET), 0);
        body();
        ASSERT_EQ(setns(own, CLONE_NEWNET), 0);
        close(own);
        close(there);
    }

    // The groups from 239.0.0.0 on that the host's kernel says it has joined.
    std::set<std::string> joined() const
    {
        std::set<std::string> groups;
        in([&] {
            std::ifstream igmp("/proc/self/net/igmp");
            for (std::string line; std::getline(igmp, line);) {
                unsigned address = 0;
                if (line[0] == '\t' && sscanf(line.c_str(), "%8x", &address) == 1 &&
                    (address & 0xff) == 239) {
                    char text[INET_ADDRSTRLEN];
                    groups.insert(inet_ntop(AF_INET, &address, text, sizeof text));
                }
            }
        });
        return groups;
    }

  private:
    std::string name_;
    std::string number_;
};

// A host in a segment: a socket that is a member of groups.
class Host {
  public:
    explicit Host(const Segment& segment, std::string interface = "host") : interface_(std::move(interface))
    {
        segment.in([&] {
            fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            index_ = static_cast<int>(if_nametoindex(interface_.c_str()));
        });
    }

    ~Host() { close(fd_); }

    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void join(const std::string& group) { change(IP_ADD_MEMBERSHIP, group); }

    void leave(const std::string& group) { change(IP_DROP_MEMBERSHIP, group); }

  private:
    void change(int option, const std::string& group) const
    {
        ip_mreqn request = {};
        request.imr_multiaddr.s_addr = inet_addr(group.c_str());
        request.imr_ifindex = index_;
        ASSERT_EQ(setsockopt(fd_, IPPROTO_IP, option, &request, sizeof request), 0) << strerror(errno);
    }

    std::string interface_;
    int fd_ = -1;
    int index_ = 0;
};

class MonSegment : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        missing() = netns_missing();
        if (missing().empty()) {
            missing() = enter_private_namespaces();
        }
        if (missing().empty() &&
            (unshare(CLONE_NEWNET) != 0 || mount("none", "/run", "tmpfs", 0, nullptr) != 0)) {
            missing() = strerror(errno);
        }
        if (missing().empty()) {
            must_run("ip link set lo up");
        }
    }

    void SetUp() override
    {
        if (!missing().empty()) {
            GTEST_SKIP() << "skipped: " << missing();
        }
        one_ = std::make_unique<Segment>(1);
    }

    void start(std::vector<std::string> more = {})
    {
        http_ = free_port(SOCK_STREAM);
        more.insert(more.begin(),
                    {build_path("zentmon"), "--listen", "0.0.0.0:4554=lab", "--name", "10.9.1.2=one",
                     "--name", "10.9.2.2=two", "--http", "127.0.0.1:" + std::to_string(http_)});
        zentmon_ = Process(more);
        ASSERT_TRUE(zentmon_.wait_for_err("Entering event loop")) << zentmon_.err();
    }

    nlohmann::json get(const std::string& path) const
    {
        const ChildResult result =
            run_program({"curl", "-s", "http://127.0.0.1:" + std::to_string(http_) + path});
        return nlohmann::json::parse(result.out, nullptr, false);
    }

    // The groups of an agent that are shown as joined.
    std::set<std::string> shown(const std::string& agent, const std::string& state = "joined") const
    {
        std::set<std::string> groups;
        const nlohmann::json answer = get("/groups.json?agent=" + agent + "&limit=100000");
        if (!answer.is_object()) {
            return groups;
        }
        for (const auto& row : answer["groups"]) {
            if (row["agent"] == agent && row["state"] == state) {
                groups.insert(row["group"].get<std::string>());
            }
        }
        return groups;
    }

    // The rows of /groups.json as "GROUP AGENT".
    std::set<std::string> rows() const
    {
        std::set<std::string> rows;
        const nlohmann::json answer = get("/groups.json");
        for (const auto& row : answer["groups"]) {
            rows.insert(row["group"].get<std::string>() + " " + row["agent"].get<std::string>());
        }
        return rows;
    }

    // Those that a browser draws. Nothing where there is none, or where it would cost more than it finds.
    std::optional<std::set<std::string>> drawn_rows() const
    {
#ifdef __SANITIZE_ADDRESS__
        return std::nullopt;
#endif
        const ChildResult result = run_program({source_path("tests/monitor/page/drawn_rows.py"),
                                                "http://127.0.0.1:" + std::to_string(http_) + "/"},
                                               kBrowserLimit);
        if (result.exit_code == 77) {
            return std::nullopt;
        }
        EXPECT_EQ(result.exit_code, 0) << result.err;
        std::istringstream lines(result.out);
        std::set<std::string> rows;
        for (std::string line; std::getline(lines, line);) {
            rows.insert(line);
        }
        return rows;
    }

    nlohmann::json agent(const std::string& name) const
    {
        const nlohmann::json answer = get("/agents.json");
        for (const auto& row : answer["agents"]) {
            if (row["agent"] == name) {
                return row;
            }
        }
        return {};
    }

    static std::string& missing()
    {
        static std::string text;
        return text;
    }

    TempDir dir_;
    std::unique_ptr<Segment> one_;
    Process zentmon_;
    int http_ = 0;
};

std::string group(int number)
{
    return "239.1." + std::to_string(number / 250) + "." + std::to_string(number % 250);
}

} // namespace

TEST_F(MonSegment, a_thousand_groups_of_two_hosts_are_what_their_kernels_say_and_what_the_page_draws)
{
    const Segment two(2);
    start();
    const Process agent_one = one_->agent(dir_.path("one.log"));
    const Process agent_two = two.agent(dir_.path("two.log"));
    Host host_one(*one_);
    Host host_two(two);
    host_one.join(group(0));
    host_two.join(group(250));
    // The kernel keeps few datagrams until it knows the receiver's link address: from now on it does.
    EXPECT_TRUE(wait_until([&] { return shown("one").size() == 1 && shown("two").size() == 1; }, kLong));
    for (int i = 1; i < 500; ++i) {
        host_one.join(group(i));
        host_two.join(group(i + 250));
    }
    EXPECT_TRUE(
        wait_until([&] { return shown("one") == one_->joined() && shown("two") == two.joined(); }, kLong));
    EXPECT_EQ(shown("one").size(), 500u);
    EXPECT_EQ(get("/groups.json?limit=1")["total"], 1000);
    for (int i = 0; i < 500; i += 2) {
        host_one.leave(group(i));
        host_two.leave(group(i + 250));
    }
    EXPECT_TRUE(
        wait_until([&] { return shown("one") == one_->joined() && shown("two") == two.joined(); }, kLong));
    EXPECT_EQ(shown("one").size(), 250u);
    const auto drawn = drawn_rows();
    if (drawn) {
        std::set<std::string> of_kernels;
        for (const std::string& joined : one_->joined()) {
            of_kernels.insert(joined + " one");
        }
        for (const std::string& joined : two.joined()) {
            of_kernels.insert(joined + " two");
        }
        EXPECT_EQ(*drawn, of_kernels);
        EXPECT_EQ(*drawn, rows());
    }
    for (int i = 1; i < 500; i += 2) {
        host_one.leave(group(i));
        host_two.leave(group(i + 250));
    }
    EXPECT_TRUE(wait_until([&] { return get("/groups.json")["total"] == 0; }, kLong));
    EXPECT_TRUE(one_->joined().empty());
}

TEST_F(MonSegment, two_agents_of_one_host_with_one_target_are_one_agent_with_two_flows)
{
    one_->add_wire("host2", "tap2", "10.2.1");
    start();
    const Process first = one_->agent(dir_.path("first.log"), "tap");
    const Process second = one_->agent(dir_.path("second.log"), "tap2");
    Host host(*one_, "host");
    Host other(*one_, "host2");
    // One after the other, so that they take turns.
    host.join("239.1.1.1");
    ASSERT_TRUE(wait_until([&] { return shown("one").size() == 1; }, kLong));
    other.join("239.1.1.2");
    ASSERT_TRUE(wait_until([&] { return shown("one").count("239.1.1.2") == 1; }, kLong));
    EXPECT_EQ(shown("one", "stale"), (std::set<std::string>{"239.1.1.1"}));
    host.join("239.1.1.3");
    ASSERT_TRUE(wait_until([&] { return shown("one").size() == 3; }, kLong));
    EXPECT_EQ(shown("one"), one_->joined());
    EXPECT_EQ(agent("one")["flows"], 2);
    EXPECT_TRUE(zentmon_.wait_for_err("give each its own --listen PORT=NAME"));
    // Both have one group: it is left when the second one leaves it.
    other.join("239.1.1.1");
    ASSERT_TRUE(wait_until([&] { return agent("one")["joins"] == 4; }, kLong));
    host.leave("239.1.1.1");
    ASSERT_TRUE(wait_until([&] { return agent("one")["leaves"] == 1; }, kLong));
    EXPECT_EQ(shown("one").count("239.1.1.1"), 1u);
    other.leave("239.1.1.1");
    EXPECT_TRUE(wait_until([&] { return shown("one") == one_->joined(); }, kLong));
}

TEST_F(MonSegment, an_agent_that_is_started_anew_while_stale_ends_with_what_is_joined)
{
    start({"--stale", "15"});
    Host host(*one_);
    Process agent_one = one_->agent(dir_.path("log"));
    host.join("239.1.1.1");
    host.join("239.1.1.2");
    ASSERT_TRUE(wait_until([&] { return shown("one").size() == 2; }, kLong));
    agent_one = Process();
    host.leave("239.1.1.1"); // nobody watches
    agent_one = one_->agent(dir_.path("log"));
    host.join("239.1.1.3");
    ASSERT_TRUE(wait_until([&] { return shown("one").count("239.1.1.3") == 1; }, kLong));
    agent_one = Process();
    agent_one = one_->agent(dir_.path("log"));
    // Its reports of all that is joined, as to a querier.
    for (const char* g : {"239.1.1.2", "239.1.1.3"}) {
        host.leave(g);
        host.join(g);
    }
    EXPECT_TRUE(wait_until([&] { return shown("one") == one_->joined(); }, kLong));
    EXPECT_EQ(shown("one"), (std::set<std::string>{"239.1.1.2", "239.1.1.3"}));
    EXPECT_TRUE(wait_until([&] { return shown("one", "stale").empty(); }, kLong)); // 239.1.1.1 has expired
    EXPECT_EQ(shown("one"), one_->joined());
    EXPECT_GE(agent("one")["restarts"], 1);
}
