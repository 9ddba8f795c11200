// The sinks that the settings ask for.
#include "sinks.h"

#include <unistd.h>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr int64_t kCountingPauseMs = 1000;

MqttOptions mqtt_options(const Config& config)
{
    MqttOptions options;
    options.host = config.mqtt_host;
    options.port = config.mqtt_port;
    options.prefix = config.mqtt_prefix;
    options.instance = config.instance;
    options.user = config.mqtt_user;
    options.password_file = config.mqtt_password_file;
    options.tls = config.mqtt_tls;
    options.ca = config.mqtt_ca;
    options.cert = config.mqtt_cert;
    options.key = config.mqtt_key;
    return options;
}

} // namespace

Sinks::Sinks(const Config& config, State& state, Counters& counters)
    : config_(config), state_(state), counters_(counters), counting_([this] { publish_counters(); })
{
}

Sinks::~Sinks()
{
    stop();
}

int Sinks::start_history()
{
    if (notices_->start() != 0) {
        return -1;
    }
    if (config_.db.empty()) {
        return 0;
    }
    HistoryOptions options;
    options.path = config_.db;
    options.keep_days = config_.keep_days;
    history_.emplace(std::move(options), notices_, state_);
    history_->restore();
    state_.add_sink(&*history_);
    return history_->start();
}

int Sinks::start_others()
{
    if (start_json() != 0 || start_hooks() != 0 || start_forward() != 0 || start_mqtt() != 0) {
        return -1;
    }
    publish_counters();
    return 0;
}

int Sinks::start_json()
{
    if (!config_.json) {
        return 0;
    }
    json_.emplace(STDOUT_FILENO, notices_);
    state_.add_sink(&*json_);
    return json_->start();
}

int Sinks::start_hooks()
{
    if (config_.exec.empty()) {
        return 0;
    }
    HookOptions options;
    options.path = config_.exec;
    options.at_once = static_cast<size_t>(config_.exec_max);
    hooks_.emplace(std::move(options), notices_);
    state_.add_sink(&*hooks_);
    return hooks_->start();
}

int Sinks::start_forward()
{
    if (config_.forward.len == 0) {
        return 0;
    }
    forward_.emplace();
    forward_->seed(state_);
    state_.add_sink(&*forward_);
    return forward_->start(config_.forward);
}

int Sinks::start_mqtt()
{
    if (config_.mqtt_host.empty()) {
        return 0;
    }
    mqtt_.emplace(mqtt_options(config_), notices_, state_);
    state_.add_sink(&*mqtt_);
    return mqtt_->start();
}

void Sinks::publish_counters()
{
    if (history_) {
        history_->publish_counters(counters_);
    }
    if (json_) {
        json_->publish_counters(counters_);
    }
    if (hooks_) {
        hooks_->publish_counters(counters_);
    }
    if (forward_) {
        forward_->publish_counters(counters_);
    }
    if (mqtt_) {
        mqtt_->publish_counters(counters_);
    }
    counting_.start_ms(kCountingPauseMs);
}

// The broker first: it is told that we go, not that the others wait.
void Sinks::stop()
{
    if (mqtt_) {
        mqtt_->stop();
    }
    if (json_) {
        json_->stop();
    }
    if (hooks_) {
        hooks_->stop();
    }
    if (history_) {
        history_->stop();
    }
    notices_->stop();
    counting_.stop();
}

} // namespace zentmon
