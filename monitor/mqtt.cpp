// The broker's side of what is joined.
#include "mqtt.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mosquitto.h>
#include <mutex>
#include <poll.h>
#include <vector>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr size_t kUnsent = 1000; // messages that libmosquitto has at most
constexpr int kKeepaliveS = 30;
constexpr int64_t kConnectMs = 10'000; // for a connection to stand
constexpr int64_t kOfflineMs = 2000;   // for the last word
constexpr int kLongestRetry = 30;      // times the first
constexpr int64_t kPauseMs = 20;       // between looks at what a slow broker has taken
constexpr const char* kOnline = "online";
constexpr const char* kOffline = "offline";

int64_t monotonic_ms()
{
    return now().mono_ms;
}

std::string payload_of(int64_t since_ms, const AgentName& who)
{
    std::string text = "{\"since\":";
    append_time(text, since_ms);
    text += ",\"agent\":";
    append_quoted(text, who.agent);
    text += ",\"address\":";
    append_quoted(text, who.address);
    text += ",\"listener\":";
    append_quoted(text, who.listener);
    text += '}';
    return text;
}

std::string suffix_of(const std::string& agent, uint32_t group)
{
    std::string text = agent + '/';
    append_group(text, group);
    return text;
}

// "AGENT/GROUP" of this suffix. False for what is none of ours.
bool read_suffix(const std::string& suffix, std::string& agent, uint32_t& group)
{
    const size_t slash = suffix.find('/');
    if (slash == std::string::npos) {
        return false;
    }
    agent = suffix.substr(0, slash);
    in_addr address = {};
    if (inet_pton(AF_INET, suffix.c_str() + slash + 1, &address) != 1) {
        return false;
    }
    group = ntohl(address.s_addr);
    return group >> 28 == 0xe;
}

// Whether libmosquitto refused a message for what it is, and so has not kept it.
bool is_about_the_message(int code)
{
    switch (code) {
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_OVERSIZE_PACKET: return true;
    default: return false;
    }
}

} // namespace

struct Mqtt::Shared {
    explicit Shared(MqttOptions o)
        : options(std::move(o)), base(options.prefix + '/' + options.instance + '/')
    {
    }

    // To the link: an event, or a message of the reconciliation.
    struct Order {
        enum Kind : uint8_t { happened, set, clear, subscribe, unsubscribe };

        Kind kind;
        Event event;         // of happened
        std::string suffix;  // of set and clear: "AGENT/GROUP"
        std::string payload; // of set
    };

    // From the link.
    struct Report {
        enum Kind : uint8_t { connected, gone, subscribed, retained };

        Kind kind;
        uint64_t epoch;
        std::string suffix;
        std::string payload;
    };

    const MqttOptions options;
    const std::string base; // "PREFIX/INSTANCE/"
    Bell to_link;
    Bell to_loop;
    std::atomic<bool> connected{false};

    std::mutex mutex;
    std::deque<Order> orders; // of the connection `epoch`
    uint64_t epoch = 0;       // counts connections
    std::vector<Report> reports;
    bool stopping = false;
};

// ---- the thread -------------------------------------------------------------------------------

class Mqtt::Link {
  public:
    Link(Shared& shared, Notices& notices) : shared_(shared), notices_(notices) {}

    void run();

  private:
    using Order = Shared::Order;
    using Report = Shared::Report;

    bool is_stopping();
    bool connect();
    bool set_up();
    bool give_credentials();
    bool set_up_tls();
    bool fail(const char* what, const char* why);
    void serve();
    bool turn(int64_t wait_ms);
    bool take_orders();
    void obey(const Order& order);
    void publish(const std::string& topic, const std::string& payload, int qos, bool retain);
    void check(int code);
    void greet();
    void say_goodbye();
    void close();
    void pause();
    void report(Report::Kind kind, std::string suffix = {}, std::string payload = {});

    void on_connack(int code);
    void on_message(const mosquitto_message& message);

    Shared& shared_;
    Notices& notices_;
    struct mosquitto* mosq_ = nullptr;
    bool connected_ = false; // the broker has accepted us
    bool lost_ = false;      // the connection is over
    size_t unsent_ = 0;      // messages given to libmosquitto and not yet done
    uint64_t epoch_ = 0;
    int64_t retry_ms_ = 0;
    std::string told_; // the last reason that was told
};

void Mqtt::Link::run()
{
    retry_ms_ = shared_.options.first_retry_ms;
    while (!is_stopping()) {
        connected_ = lost_ = false;
        unsent_ = 0;
        if (connect()) {
            serve();
        }
        close();
        pause();
    }
}

bool Mqtt::Link::is_stopping()
{
    const std::lock_guard lock(shared_.mutex);
    return shared_.stopping;
}

// A new handle for each connection: libmosquitto keeps unacknowledged messages for the next one, and those
// may be untrue by then.
bool Mqtt::Link::connect()
{
    const std::string id = "zentmon-" + shared_.options.instance;
    mosq_ = mosquitto_new(id.c_str(), true, this);
    if (mosq_ == nullptr) {
        return fail("mosquitto_new", strerror(errno));
    }
    if (!set_up()) {
        return false;
    }
    const int code =
        mosquitto_connect_async(mosq_, shared_.options.host.c_str(), shared_.options.port, kKeepaliveS);
    if (code != MOSQ_ERR_SUCCESS) {
        return fail("no connection", code == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(code));
    }
    const int64_t limit = monotonic_ms() + kConnectMs;
    while (!connected_ && !lost_ && !is_stopping()) {
        const int64_t left = limit - monotonic_ms();
        if (left <= 0) {
            return fail("no connection", "no answer");
        }
        if (!turn(left)) {
            break;
        }
    }
    return connected_ ||
           (!lost_ && is_stopping() ? false : fail("no connection", "the connection was closed"));
}

bool Mqtt::Link::set_up()
{
    mosquitto_connect_callback_set(
        mosq_, [](struct mosquitto*, void* self, int code) { static_cast<Link*>(self)->on_connack(code); });
    mosquitto_disconnect_callback_set(
        mosq_, [](struct mosquitto*, void* self, int) { static_cast<Link*>(self)->lost_ = true; });
    mosquitto_publish_callback_set(
        mosq_, [](struct mosquitto*, void* self, int) { --static_cast<Link*>(self)->unsent_; });
    mosquitto_subscribe_callback_set(mosq_, [](struct mosquitto*, void* self, int, int, const int*) {
        static_cast<Link*>(self)->report(Report::subscribed);
    });
    mosquitto_message_callback_set(
        mosq_, [](struct mosquitto*, void* self, const struct mosquitto_message* message) {
            static_cast<Link*>(self)->on_message(*message);
        });
    const std::string status = shared_.base + "$status";
    if (mosquitto_will_set(mosq_, status.c_str(), static_cast<int>(strlen(kOffline)), kOffline, 1, true) !=
        MOSQ_ERR_SUCCESS) {
        return fail("will", shared_.base.c_str());
    }
    return give_credentials() && set_up_tls();
}

bool Mqtt::Link::give_credentials()
{
    const MqttOptions& options = shared_.options;
    if (options.user.empty()) {
        return true;
    }
    char password[1024] = "";
    if (!options.password_file.empty()) {
        FILE* file = fopen(options.password_file.c_str(), "re");
        if (file == nullptr || fgets(password, sizeof password, file) == nullptr) {
            const int failure = errno;
            if (file != nullptr) {
                fclose(file);
            }
            return fail(options.password_file.c_str(), file == nullptr ? strerror(failure) : "is empty");
        }
        fclose(file);
        password[strcspn(password, "\r\n")] = 0;
    }
    const int code = mosquitto_username_pw_set(mosq_, options.user.c_str(),
                                               options.password_file.empty() ? nullptr : password);
    explicit_bzero(password, sizeof password);
    return code == MOSQ_ERR_SUCCESS || fail("user", mosquitto_strerror(code));
}

bool Mqtt::Link::set_up_tls()
{
    const MqttOptions& options = shared_.options;
    if (!options.tls) {
        return true;
    }
    const auto or_null = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    const char* authorities = options.ca.empty() ? "/etc/ssl/certs" : nullptr;
    const int code = mosquitto_tls_set(mosq_, or_null(options.ca), authorities, or_null(options.cert),
                                       or_null(options.key), nullptr);
    return code == MOSQ_ERR_SUCCESS || fail("TLS", mosquitto_strerror(code));
}

// One line for an outage, and one more where its reason changes.
bool Mqtt::Link::fail(const char* what, const char* why)
{
    const std::string reason = std::string(what) + ": " + why;
    if (reason != told_) {
        told_ = reason;
        notices_.post(WARN_level, "mqtt: %s:%u: %s: trying again", shared_.options.host.c_str(),
                      static_cast<unsigned>(shared_.options.port), reason.c_str());
    }
    return false;
}

// One wait for the socket or the bell, and what follows from it. False where the connection is over.
bool Mqtt::Link::turn(int64_t wait_ms)
{
    const int fd = mosquitto_socket(mosq_);
    if (fd < 0) {
        return false;
    }
    const short events = static_cast<short>(POLLIN | (mosquitto_want_write(mosq_) ? POLLOUT : 0));
    struct pollfd fds[] = {{fd, events, 0}, {shared_.to_link.fd(), POLLIN, 0}};
    poll(fds, 2, static_cast<int>(std::min<int64_t>(wait_ms, 1000)));
    shared_.to_link.quiet();
    if ((fds[0].revents & ~POLLOUT) != 0 && mosquitto_loop_read(mosq_, 100) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    if (mosquitto_want_write(mosq_) && mosquitto_loop_write(mosq_, 100) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    return !lost_ && mosquitto_loop_misc(mosq_) == MOSQ_ERR_SUCCESS;
}

void Mqtt::Link::serve()
{
    greet();
    bool alive = true;
    while (alive && !is_stopping()) {
        const bool more = take_orders();
        alive = !lost_ && turn(more ? 0 : 1000);
    }
    if (alive) {
        say_goodbye();
        return;
    }
    fail("connection", "lost");
}

void Mqtt::Link::greet()
{
    retry_ms_ = shared_.options.first_retry_ms;
    told_.clear();
    {
        const std::lock_guard lock(shared_.mutex);
        shared_.orders.clear();
        epoch_ = ++shared_.epoch;
    }
    shared_.connected = true;
    notices_.post(NORM_level, "mqtt: %s:%u: connected as zentmon-%s", shared_.options.host.c_str(),
                  static_cast<unsigned>(shared_.options.port), shared_.options.instance.c_str());
    publish(shared_.base + "$status", kOnline, 1, true);
    report(Report::connected);
}

// Gives libmosquitto what it may have. True where there is more to take at once.
bool Mqtt::Link::take_orders()
{
    std::deque<Order> orders;
    bool more;
    {
        const std::lock_guard lock(shared_.mutex);
        while (!shared_.orders.empty() && unsent_ + 2 * orders.size() < kUnsent) {
            orders.push_back(std::move(shared_.orders.front()));
            shared_.orders.pop_front();
        }
        more = !orders.empty() && !shared_.orders.empty();
    }
    for (const Order& order : orders) {
        obey(order);
    }
    return more && unsent_ < kUnsent;
}

void Mqtt::Link::obey(const Order& order)
{
    const std::string all = shared_.base + "+/+";
    switch (order.kind) {
    case Order::happened: {
        const Event& event = order.event;
        const bool is_join = event.kind == EventKind::join;
        std::string text;
        append_json(text, event);
        publish(shared_.base + suffix_of(event.who->agent, event.group),
                is_join ? payload_of(event.time_ms, *event.who) : std::string(), 1, true);
        publish(shared_.base + "$events", text, 0, false);
        return;
    }
    case Order::set: publish(shared_.base + order.suffix, order.payload, 1, true); return;
    case Order::clear: publish(shared_.base + order.suffix, {}, 1, true); return;
    case Order::subscribe:
        // QoS 0: of QoS 1 a broker queues no more than a limit (mosquitto: 1,000) and drops the rest.
        check(mosquitto_subscribe(mosq_, nullptr, all.c_str(), 0));
        return;
    default: check(mosquitto_unsubscribe(mosq_, nullptr, all.c_str())); return;
    }
}

void Mqtt::Link::publish(const std::string& topic, const std::string& payload, int qos, bool retain)
{
    ++unsent_; // before the call: it may be done within it
    const int code = mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                       payload.data(), qos, retain);
    if (is_about_the_message(code)) {
        --unsent_;
    } else {
        check(code);
    }
}

// What else fails leaves open whether the broker gets the message: the next connection tells it all anew.
void Mqtt::Link::check(int code)
{
    lost_ |= code != MOSQ_ERR_SUCCESS;
}

// What is under way goes out, then the last word, and its acknowledgement is waited for.
void Mqtt::Link::say_goodbye()
{
    const int64_t limit = monotonic_ms() + kOfflineMs;
    publish(shared_.base + "$status", kOffline, 1, true);
    while (unsent_ > 0 && monotonic_ms() < limit && turn(limit - monotonic_ms())) {
    }
    mosquitto_disconnect(mosq_);
    while (mosquitto_want_write(mosq_) && monotonic_ms() < limit && turn(limit - monotonic_ms())) {
    }
}

void Mqtt::Link::close()
{
    shared_.connected = false;
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
    if (connected_) {
        report(Report::gone);
    }
}

void Mqtt::Link::pause()
{
    const int64_t until = monotonic_ms() + retry_ms_;
    retry_ms_ = std::min(retry_ms_ * 2, shared_.options.first_retry_ms * kLongestRetry);
    for (int64_t left = until - monotonic_ms(); left > 0 && !is_stopping(); left = until - monotonic_ms()) {
        struct pollfd bell = {shared_.to_link.fd(), POLLIN, 0};
        poll(&bell, 1, static_cast<int>(left));
        shared_.to_link.quiet();
    }
}

void Mqtt::Link::report(Report::Kind kind, std::string suffix, std::string payload)
{
    {
        const std::lock_guard lock(shared_.mutex);
        shared_.reports.push_back({kind, epoch_, std::move(suffix), std::move(payload)});
    }
    shared_.to_loop.ring();
}

void Mqtt::Link::on_connack(int code)
{
    if (code == 0) {
        connected_ = true;
    } else {
        fail("refused", mosquitto_connack_string(code));
        lost_ = true;
    }
}

void Mqtt::Link::on_message(const mosquitto_message& message)
{
    const std::string topic = message.topic;
    // What is not retained is our own, come back: messages of a subscription have the mark only at its start.
    if (message.retain && message.payloadlen > 0 &&
        topic.compare(0, shared_.base.size(), shared_.base) == 0) {
        report(
            Report::retained, topic.substr(shared_.base.size()),
            std::string(static_cast<const char*>(message.payload), static_cast<size_t>(message.payloadlen)));
    }
}

// ---- the loop's side --------------------------------------------------------------------------

Mqtt::Mqtt(MqttOptions options, std::shared_ptr<Notices> notices, const State& state)
    : shared_(std::make_shared<Shared>(std::move(options))),
      notices_(std::move(notices)),
      state_(state),
      timer_([this] { on_timer(); })
{
}

Mqtt::~Mqtt()
{
    stop();
}

int Mqtt::start()
{
    static const int initialised = mosquitto_lib_init();
    if (initialised != MOSQ_ERR_SUCCESS) {
        log_err("mqtt: %s\n", mosquitto_strerror(initialised));
        return -1;
    }
    if (watch_.start(shared_->to_loop.fd(), this) != 0) {
        return -1;
    }
    return worker_.start("zentmon-mqtt",
                         [shared = shared_, notices = notices_] { Link(*shared, *notices).run(); });
}

void Mqtt::on_rename(uint64_t)
{
    if (phase_ != Phase::away) {
        behind_ = true;
        timer_.start_ms(kPauseMs);
    }
}

void Mqtt::on_event(const Event& event)
{
    const std::lock_guard lock(shared_->mutex);
    if (phase_ == Phase::away || epoch_ != shared_->epoch ||
        shared_->orders.size() >= shared_->options.queue) {
        behind_ = behind_ || phase_ != Phase::away;
        ++dropped_;
        if (behind_ && !timer_.runs()) {
            timer_.start_ms(kPauseMs);
        }
        return;
    }
    shared_->orders.push_back({Shared::Order::happened, event, {}, {}});
    if (shared_->orders.size() == 1) {
        shared_->to_link.ring();
    }
}

void Mqtt::on_readable()
{
    shared_->to_loop.quiet();
    std::vector<Shared::Report> reports;
    {
        const std::lock_guard lock(shared_->mutex);
        reports.swap(shared_->reports);
    }
    for (const Shared::Report& report : reports) {
        switch (report.kind) {
        case Shared::Report::connected:
            epoch_ = report.epoch;
            begin_collecting();
            break;
        case Shared::Report::gone:
            phase_ = Phase::away;
            behind_ = false;
            timer_.stop();
            break;
        case Shared::Report::subscribed:
            subscribed_ = true;
            last_told_ms_ = monotonic_ms();
            break;
        default: on_retained(report.suffix, report.payload); break;
        }
    }
}

void Mqtt::begin_collecting()
{
    phase_ = Phase::collect;
    behind_ = false;
    subscribed_ = false;
    present_.clear();
    at_ = {};
    timer_.start_ms(kPauseMs);
    const std::lock_guard lock(shared_->mutex);
    shared_->orders.push_back({Shared::Order::subscribe, {}, {}, {}});
    shared_->to_link.ring();
}

// The orders keep their order: a group that is joined right after this is published after it is emptied.
void Mqtt::on_retained(const std::string& suffix, const std::string& payload)
{
    if (phase_ == Phase::away) {
        return;
    }
    last_told_ms_ = monotonic_ms();
    std::string agent;
    uint32_t group;
    if (!read_suffix(suffix, agent, group)) {
        return;
    }
    std::string should_be;
    if (find_row(agent, group, should_be)) {
        if (phase_ == Phase::collect && payload == should_be) {
            present_.insert(suffix);
        }
        return;
    }
    const std::lock_guard lock(shared_->mutex);
    shared_->orders.push_back({Shared::Order::clear, {}, suffix, {}});
    shared_->to_link.ring();
}

bool Mqtt::find_row(const std::string& agent, uint32_t group, std::string& payload) const
{
    GroupRow row;
    if (!state_.find_group(agent, group, row)) {
        return false;
    }
    payload = payload_of(row.since_ms, *row.who);
    return true;
}

void Mqtt::on_timer()
{
    if (phase_ == Phase::collect && subscribed_ &&
        monotonic_ms() - last_told_ms_ >= shared_->options.quiet_ms) {
        phase_ = Phase::publish;
    }
    if (phase_ == Phase::publish) {
        publish_piece();
    } else if (phase_ == Phase::live && behind_) {
        bool empty;
        {
            const std::lock_guard lock(shared_->mutex);
            empty = shared_->orders.empty();
        }
        if (empty) {
            begin_collecting();
        }
    }
    if (phase_ == Phase::collect || phase_ == Phase::publish || (phase_ == Phase::live && behind_)) {
        timer_.start_ms(kPauseMs);
    }
}

// As many as make 1,000 with those that wait already.
void Mqtt::publish_piece()
{
    std::deque<Shared::Order> orders;
    size_t waiting;
    {
        const std::lock_guard lock(shared_->mutex);
        waiting = shared_->orders.size();
    }
    if (waiting >= kUnsent) {
        return;
    }
    const bool more = state_.walk_groups(at_, kUnsent - waiting, [&](const GroupRow& row) {
        std::string suffix = suffix_of(row.who->agent, row.group);
        if (present_.erase(suffix) == 0) {
            orders.push_back({Shared::Order::set, {}, std::move(suffix), payload_of(row.since_ms, *row.who)});
        }
        return true;
    });
    if (!more) {
        orders.push_back({Shared::Order::unsubscribe, {}, {}, {}});
        phase_ = Phase::live;
        present_ = {};
    }
    const std::lock_guard lock(shared_->mutex);
    std::move(orders.begin(), orders.end(), std::back_inserter(shared_->orders));
    shared_->to_link.ring();
}

void Mqtt::publish_counters(Counters& counters) const
{
    counters.mqtt_configured = true;
    counters.mqtt_connected = shared_->connected;
    counters.output_dropped[Output::mqtt] = dropped_;
}

void Mqtt::stop(int64_t limit_ms)
{
    watch_.stop();
    timer_.stop();
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->stopping = true;
    }
    shared_->to_link.ring();
    worker_.join_within(limit_ms);
}

} // namespace zentmon
