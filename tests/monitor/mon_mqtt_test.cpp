// --mqtt against a real broker: mosquitto(8) with persistence, seen by mosquitto_sub(1).
#include "mqtt.h"
#include "sinks_support.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <map>
#include <mosquitto.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child.h"
#include "fds.h"
#include "tempdir.h"
#include "udp.h"
#include "wrap.h"

using namespace sinks;
using nlohmann::json;

namespace {

// What the next message meets in place of success, once: MOSQ_ERR_ERRNO where it could not be written at once
// (libmosquitto keeps it, and may write it later), anything else where it is not taken.
std::atomic<int> g_next_publish = MOSQ_ERR_SUCCESS;

} // namespace

WRAPPED(int, mosquitto_publish,
        (struct mosquitto * link, int* id, const char* topic, int length, const void* payload, int qos,
         bool retain));

int __wrap_mosquitto_publish(struct mosquitto* link, int* id, const char* topic, int length,
                             const void* payload, int qos, bool retain)
{
    const int planned = g_next_publish.exchange(MOSQ_ERR_SUCCESS);
    if (planned != MOSQ_ERR_SUCCESS && planned != MOSQ_ERR_ERRNO) {
        return planned;
    }
    const int code = __real_mosquitto_publish(link, id, topic, length, payload, qos, retain);
    return planned != MOSQ_ERR_SUCCESS ? planned : code;
}

namespace {

const char* const kBroker = "/usr/sbin/mosquitto";

} // namespace

class MonMqtt : public SinkTest {
  protected:
    void SetUp() override
    {
        if (access(kBroker, X_OK) != 0 || access("/usr/bin/mosquitto_sub", X_OK) != 0) {
            GTEST_SKIP() << "mosquitto and mosquitto-clients are not installed";
        }
        port = support::free_port(SOCK_STREAM);
        dir.make_dir("data");
        start_broker();
    }

    void TearDown() override
    {
        if (mqtt) {
            mqtt->stop();
        }
    }

    void start_broker(const std::string& more = "allow_anonymous true\n")
    {
        dir.write("conf", "listener " + std::to_string(port) +
                              " 127.0.0.1\nuser root\npersistence true\n"
                              "persistence_location " +
                              dir.path("data") + "/\nautosave_interval 1\n" + more);
        broker.emplace(std::vector<std::string>{kBroker, "-c", dir.path("conf")});
        ASSERT_TRUE(broker->wait_for_err("running") || broker->wait_for_out("running")) << broker->err();
    }

    void stop_broker()
    {
        // It saves what is retained. One signal is not enough: right behind its word that it runs, it forgets
        // what has come.
        EXPECT_TRUE(support::wait_until([this] {
            broker->kill(SIGTERM);
            siginfo_t ended = {};
            return waitid(P_PID, static_cast<id_t>(broker->pid()), &ended, WEXITED | WNOHANG | WNOWAIT) ==
                       0 &&
                   ended.si_pid != 0;
        }));
        broker->wait();
    }

    MqttOptions options()
    {
        MqttOptions o;
        o.host = "localhost"; // a name that is looked up
        o.port = port;
        o.instance = "one";
        o.quiet_ms = 200;
        o.first_retry_ms = 50;
        return o;
    }

    void begin(const MqttOptions& o)
    {
        mqtt.emplace(o, notices, state);
        state.add_sink(&*mqtt);
        ASSERT_EQ(mqtt->start(), 0);
    }

    bool connected()
    {
        return run_until([this] {
            mqtt->publish_counters(counters);
            return counters.mqtt_connected;
        });
    }

    std::vector<std::string> client(const std::string& program) const
    {
        std::vector<std::string> argv = {"/usr/bin/" + program, "-h", "127.0.0.1", "-p",
                                         std::to_string(port)};
        argv.insert(argv.end(), credentials.begin(), credentials.end());
        return argv;
    }

    // Topics that the broker retains, without the prefix, and what they say. The one that is asked for last
    // comes last.
    std::map<std::string, std::string> retained()
    {
        publish("end", "of all");
        std::vector<std::string> argv = client("mosquitto_sub");
        argv.insert(argv.end(), {"-t", "zent/#", "-t", "end", "-v"});
        support::Process listener(argv);
        EXPECT_TRUE(listener.wait_for_out("end of all\n"));
        std::map<std::string, std::string> topics;
        std::istringstream lines(listener.out());
        for (std::string text; std::getline(lines, text) && text != "end of all";) {
            const size_t blank = text.find(' ');
            topics[text.substr(5, blank - 5)] = text.substr(blank + 1);
        }
        return topics;
    }

    std::vector<std::string> names(const std::map<std::string, std::string>& topics)
    {
        std::vector<std::string> keys;
        for (const auto& [topic, text] : topics) {
            keys.push_back(topic);
        }
        return keys;
    }

    // Runs the loop until the broker retains these topics and no others.
    bool retains(const std::vector<std::string>& topics)
    {
        return run_until([&] { return names(retained()) == topics; });
    }

    void publish(const std::string& topic, const std::string& text)
    {
        std::vector<std::string> argv = client("mosquitto_pub");
        argv.insert(argv.end(), {"-t", topic, "-m", text, "-r", "-q", "1"});
        EXPECT_EQ(support::run_program(argv).exit_code, 0);
    }

    void join(uint32_t number, const std::string& address = "10.0.0.1")
    {
        line(LineKind::join, group(number), address);
    }

    void leave(uint32_t number, const std::string& address = "10.0.0.1")
    {
        line(LineKind::leave, group(number), address);
    }

    support::TempDir dir;
    uint16_t port = 0;
    std::vector<std::string> credentials; // of the programs that look
    std::optional<support::Process> broker;
    std::optional<Mqtt> mqtt;
};

TEST_F(MonMqtt, joined_groups_are_retained_and_emptied_when_they_are_left)
{
    join(1); // before the connection
    begin(options());
    ASSERT_TRUE(retains({"one/$status", "one/10.0.0.1/239.0.0.1"}));
    join(2, "10.0.0.2");
    ASSERT_TRUE(retains({"one/$status", "one/10.0.0.1/239.0.0.1", "one/10.0.0.2/239.0.0.2"}));
    auto topics = retained();
    EXPECT_EQ(topics["one/$status"], "online");
    const json text = json::parse(topics["one/10.0.0.2/239.0.0.2"]);
    EXPECT_EQ(text["agent"], "10.0.0.2");
    EXPECT_EQ(text["address"], "10.0.0.2");
    EXPECT_EQ(text["listener"], "lan");
    EXPECT_GT(text["since"].get<double>(), 1.7e9);
    leave(1);
    EXPECT_TRUE(retains({"one/$status", "one/10.0.0.2/239.0.0.2"}));
}

TEST_F(MonMqtt, each_event_goes_out_once_as_the_event_object)
{
    begin(options());
    ASSERT_TRUE(connected());
    std::vector<std::string> argv = client("mosquitto_sub");
    argv.insert(argv.end(), {"-t", "zent/one/$events", "-t", "zent/$probe"});
    support::Process listener(argv);
    // A subscription stands when what is published to it arrives.
    ASSERT_TRUE(run_until([&] {
        auto probe = client("mosquitto_pub");
        probe.insert(probe.end(), {"-t", "zent/$probe", "-m", "probe"});
        support::run_program(probe);
        return listener.out().find("probe") != std::string::npos;
    }));
    std::string expected;

    struct Note : Sink {
        explicit Note(std::string& out) : text(out) {}

        void on_event(const Event& event) override
        {
            append_json(text, event);
            text += '\n';
        }

        std::string& text;
    } note(expected);

    state.add_sink(&note);
    ASSERT_TRUE(run_until_logged("connected as zentmon-one"));
    run_until([] { return true; }); // the connection is known in the loop
    join(1);
    leave(1);
    EXPECT_TRUE(run_until([&] {
        const std::string& out = listener.out();
        const size_t at = out.find('{');
        return at != std::string::npos && out.substr(at).find(expected) == 0;
    })) << listener.out();
}

TEST_F(MonMqtt, a_clean_end_and_a_kill_both_say_offline)
{
    begin(options());
    ASSERT_TRUE(retains({"one/$status"}));
    mqtt->stop();
    EXPECT_EQ(retained()["one/$status"], "offline");

    const pid_t child = fork();
    if (child == 0) {
        Mqtt other(options(), notices, state);
        other.start();
        pause();
        _exit(0);
    }
    EXPECT_TRUE(run_until([&] { return retained()["one/$status"] == "online"; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(run_until([&] { return retained()["one/$status"] == "offline"; }));
}

TEST_F(MonMqtt, a_group_left_while_the_broker_is_away_is_not_retained_afterwards)
{
    begin(options());
    join(1);
    join(2);
    ASSERT_TRUE(retains({"one/$status", "one/10.0.0.1/239.0.0.1", "one/10.0.0.1/239.0.0.2"}));
    stop_broker();
    ASSERT_TRUE(run_until_logged("trying again"));
    mqtt->publish_counters(counters);
    const uint64_t before = counters.output_dropped[Output::mqtt];
    leave(1);
    join(3);
    mqtt->publish_counters(counters);
    EXPECT_EQ(counters.output_dropped[Output::mqtt], before + 2) << "nothing is queued, and that is counted";
    start_broker();
    EXPECT_TRUE(retains({"one/$status", "one/10.0.0.1/239.0.0.2", "one/10.0.0.1/239.0.0.3"}));
    EXPECT_EQ(retained()["one/$status"], "online");
}

TEST_F(MonMqtt, what_fails_while_a_message_goes_out_ends_the_connection_and_the_topics_come_right)
{
    begin(options());
    ASSERT_TRUE(connected());
    std::vector<std::string> topics = {"one/$status"};
    unsigned host = 0;
    for (const int code : {MOSQ_ERR_ERRNO, MOSQ_ERR_CONN_LOST, MOSQ_ERR_NO_CONN, MOSQ_ERR_NOMEM}) {
        g_next_publish = code;
        for (const unsigned end = host + 2; host < end;) { // the second one came no more, once
            topics.push_back("one/10.0.0.1/239.0.0." + std::to_string(++host));
            join(host);
            ASSERT_TRUE(retains(topics)) << code << ": " << log.text();
        }
        EXPECT_GE(times_logged("connection: lost: trying again"), host / 2) << code;
        ASSERT_TRUE(connected());
    }
}

TEST_F(MonMqtt, a_message_that_is_refused_for_itself_is_left_out_and_the_next_goes_out)
{
    begin(options());
    ASSERT_TRUE(connected());
    g_next_publish = MOSQ_ERR_PAYLOAD_SIZE;
    join(1);
    ASSERT_TRUE(run_until([] { return g_next_publish == MOSQ_ERR_SUCCESS; }));
    join(2);
    EXPECT_TRUE(retains({"one/$status", "one/10.0.0.1/239.0.0.2"}));
    EXPECT_EQ(times_logged("trying again"), 0u) << log.text();
}

TEST_F(MonMqtt, only_the_own_groups_that_are_not_held_are_emptied)
{
    publish("zent/one/10.0.0.9/239.0.0.9", "{}");
    publish("zent/one/10.0.0.1/239.0.0.1", "{\"since\":1}"); // held, but untrue
    publish("zent/one/10.0.0.1/notes", "mine");              // no group
    publish("zent/two/10.0.0.9/239.0.0.9", "{}");            // another instance
    join(1);
    begin(options());
    EXPECT_TRUE(
        retains({"one/$status", "one/10.0.0.1/239.0.0.1", "one/10.0.0.1/notes", "two/10.0.0.9/239.0.0.9"}));
    EXPECT_TRUE(run_until(
        [&] { return json::parse(retained().at("one/10.0.0.1/239.0.0.1")).value("since", 0.0) > 1.7e9; }));
}

TEST_F(MonMqtt, after_a_rename_the_topics_have_the_new_names_and_the_old_ones_are_empty)
{
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        join(1, address);
        join(2, address);
    }
    state.rename({{"10.0.0.1", "hall"}, {"10.0.0.2", "roof"}});
    begin(options());
    ASSERT_TRUE(
        retains({"one/$status", "one/10.0.0.3/239.0.0.1", "one/10.0.0.3/239.0.0.2", "one/hall/239.0.0.1",
                 "one/hall/239.0.0.2", "one/roof/239.0.0.1", "one/roof/239.0.0.2"}));
    leave(2, "10.0.0.2");
    // Two change places, a third one gets a name, and a line comes before the broker has been told.
    state.rename({{"10.0.0.1", "roof"}, {"10.0.0.2", "hall"}, {"10.0.0.3", "door"}});
    join(3, "10.0.0.3");
    ASSERT_TRUE(retains({"one/$status", "one/door/239.0.0.1", "one/door/239.0.0.2", "one/door/239.0.0.3",
                         "one/hall/239.0.0.1", "one/roof/239.0.0.1", "one/roof/239.0.0.2"}));
    const auto topics = retained();
    EXPECT_EQ(json::parse(topics.at("one/hall/239.0.0.1"))["address"], "10.0.0.2");
    EXPECT_EQ(json::parse(topics.at("one/roof/239.0.0.1"))["address"], "10.0.0.1");
    leave(1, "10.0.0.1");
    EXPECT_TRUE(retains({"one/$status", "one/door/239.0.0.1", "one/door/239.0.0.2", "one/door/239.0.0.3",
                         "one/hall/239.0.0.1", "one/roof/239.0.0.2"}));
}

TEST_F(MonMqtt, thousands_of_groups_are_published_and_a_second_connection_publishes_none_of_them_again)
{
    constexpr uint32_t kGroups = 3000;
    for (uint32_t i = 0; i < kGroups; ++i) {
        join(i);
    }
    MqttOptions o = options();
    o.quiet_ms = 5000; // on a busy machine the broker pauses in the midst of what it tells
    begin(o);
    ASSERT_TRUE(run_until([&] { return retained().size() == kGroups + 1; }));
    stop_broker();
    ASSERT_TRUE(run_until_logged("trying again"));
    start_broker();
    ASSERT_TRUE(run_until([&] { return times_logged("connected as zentmon-one") == 2; }));
    // Whoever listens from now on sees no group published, and then the next event.
    std::vector<std::string> argv = client("mosquitto_sub");
    argv.insert(argv.end(), {"-t", "zent/one/+/+", "-R", "-v"});
    support::Process listener(argv);
    ASSERT_TRUE(run_until([&] {
        publish("zent/one/probe/x", "probe");
        return listener.out().find("probe") != std::string::npos;
    }));
    run_until([] { return false; }, std::chrono::milliseconds(500));
    join(kGroups);
    ASSERT_TRUE(run_until([&] { return listener.out().find(" {") != std::string::npos; }));
    const std::string& out = listener.out();
    EXPECT_EQ(std::count(out.begin(), out.end(), '{'), 1) << out.substr(0, 500);
}

TEST_F(MonMqtt, more_events_than_the_queue_holds_are_dropped_and_the_topics_come_right)
{
    MqttOptions o = options();
    o.queue = 10;
    begin(o);
    ASSERT_TRUE(retains({"one/$status"}));
    for (uint32_t round = 0; round < 5; ++round) {
        for (uint32_t i = 0; i < 200; ++i) {
            join(i);
        }
        for (uint32_t i = 1; i < 200; ++i) {
            leave(i);
        }
    }
    mqtt->publish_counters(counters);
    EXPECT_GT(counters.output_dropped[Output::mqtt], 0u);
    EXPECT_TRUE(retains({"one/$status", "one/10.0.0.1/239.0.0.0"}));
}

TEST_F(MonMqtt, a_user_without_the_right_password_is_told_and_tried_again)
{
    stop_broker();
    ASSERT_EQ(support::run_program(
                  {"/usr/bin/mosquitto_passwd", "-b", "-c", dir.path("users"), "zentmon", "secret"})
                  .exit_code,
              0);
    start_broker("allow_anonymous false\npassword_file " + dir.path("users") + "\n");
    dir.write("password", "wrong\n");
    MqttOptions o = options();
    o.user = "zentmon";
    o.password_file = dir.path("password");
    begin(o);
    ASSERT_TRUE(run_until_logged("refused: Connection Refused: not authorised"));
    dir.write("password", "secret\n");
    ASSERT_TRUE(run_until_logged("connected as zentmon-one"));
    credentials = {"-u", "zentmon", "-P", "secret"};
    EXPECT_EQ(retained()["one/$status"], "online");
    EXPECT_EQ(times_logged("secret") + times_logged("wrong"), 0u) << "no password in the log";
}

TEST_F(MonMqtt, tls_with_the_right_authority_connects_and_with_another_does_not)
{
    stop_broker();
    const auto certificate = [this](const std::string& name) {
        return support::run_program({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                     "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=localhost",
                                     "-addext", "subjectAltName=DNS:localhost", "-keyout",
                                     dir.path(name + ".key"), "-out", dir.path(name + ".pem"), "-days", "2"})
            .exit_code;
    };
    ASSERT_EQ(certificate("right"), 0);
    ASSERT_EQ(certificate("other"), 0);
    start_broker("allow_anonymous true\ncertfile " + dir.path("right.pem") + "\nkeyfile " +
                 dir.path("right.key") + "\n");
    MqttOptions o = options();
    o.tls = true;
    o.ca = dir.path("other.pem");
    begin(o);
    ASSERT_TRUE(run_until_logged("trying again"));
    mqtt->publish_counters(counters);
    EXPECT_FALSE(counters.mqtt_connected);
    mqtt->stop();

    State fresh({}, counters);
    o.ca = dir.path("right.pem");
    Mqtt trusted(o, notices, fresh);
    ASSERT_EQ(trusted.start(), 0);
    EXPECT_TRUE(run_until_logged("connected as zentmon-one"));
    trusted.stop();
}

TEST_F(MonMqtt, an_end_while_the_broker_is_away_is_quick_and_quiet)
{
    stop_broker();
    begin(options());
    ASSERT_TRUE(run_until_logged("Connection refused: trying again"));
    join(1);
    mqtt->stop(20'000);
}

TEST_F(MonMqtt, attempts_that_fail_for_one_reason_are_told_once)
{
    stop_broker();
    const support::Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    ASSERT_EQ(setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    const sockaddr_in here = support::loopback(port);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&here), sizeof here), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    begin(options());
    int attempts = 0;
    ASSERT_TRUE(run_until([&] {
        const support::Fd attempt(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        attempts += attempt >= 0 ? 1 : 0;
        return attempts == 5;
    }));
    EXPECT_EQ(times_logged("trying again"), 1u) << log.text();
}
