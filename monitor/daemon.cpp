// Start, run, end.
#include "daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <unistd.h>

#include "log.h"
#include "names.h"
#include "sigsafe.h"
#include "util.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr int64_t kDropsPauseMs = 1000;
const char* const kDefaultListen = "127.0.0.1:4554";

void on_quit(int)
{
    g_quit = 1;
    sigsafe_wake();
}

void on_hangup(int)
{
    g_hup = 1;
    sigsafe_wake();
}

// The exit code for a system call that failed; otherwise: what is said where it is no matter of rights.
int exit_code(int error, int otherwise)
{
    return error == EACCES || error == EPERM ? kExitNoRight : otherwise;
}

Endpoint bound_address(int fd)
{
    Endpoint at;
    at.len = sizeof at.ss;
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&at.ss), &at.len);
    at.text = endpoint_text(at.ss);
    return at;
}

void set_levels(int level)
{
    for (const int module : {MLL_COMMON, MLL_TMOUT, MLL_FDIO}) {
        set_loglevel(module, level);
    }
}

} // namespace

Daemon::Daemon(Config config, std::vector<std::string> arguments)
    : config_(std::move(config)),
      arguments_(std::move(arguments)),
      tick_([this] { tick(); }),
      drops_([this] { read_drops(); })
{
}

Daemon::~Daemon()
{
    stdin_ = nullptr;
    listeners_.clear();
    site_ = nullptr;
    sinks_ = nullptr;
    state_ = nullptr;
    service_ = nullptr;
    tick_.stop();
    drops_.stop();
    if (loop_stands_) {
        Loop::destroy();
    }
    if (log_ != nullptr && !log_->stop()) {
        [[maybe_unused]] const LogSink* stuck = log_.release(); // its thread still uses it
    }
}

// ---- start ------------------------------------------------------------------------------------

int Daemon::start_log()
{
    set_levels(config_.log_level);
    log_ = std::make_unique<LogSink>(config_.log);
    if (log_->start() != 0) {
        const int error = errno;
        fprintf(stderr, "zentmon: %s: %s\n", config_.log.empty() ? "the log" : config_.log.c_str(),
                strerror(error));
        return exit_code(error, kExitSystem);
    }
    return 0;
}

int Daemon::start_loop()
{
    loop_stands_ = Loop::init() == 0;
    if (!loop_stands_ || ignore_sigpipe() != 0 || handle_quit_signals(on_quit) != 0 ||
        handle_sig(SIGHUP, on_hangup) != 0) {
        return kExitSystem;
    }
    service_ = std::make_unique<Service>([this] { return status(); });
    passed_ = passed_sockets();
    return 0;
}

int Daemon::start_state()
{
    StateOptions options;
    options.stale_s = config_.stale_s;
    options.forget_s = config_.forget_s;
    options.linger_s = config_.linger_s;
    options.names = config_.names;
    state_ = std::make_unique<State>(std::move(options), counters_);
    return 0;
}

// An agent is a listener and an address: listeners of one name would make one agent of two. A socket unit
// gives all its sockets one name.
std::string Daemon::free_listener_name(const std::string& wanted, const Endpoint& at) const
{
    const auto is_taken = [this](const std::string& name) {
        return std::any_of(counters_.listeners.begin(), counters_.listeners.end(),
                           [&name](const ListenerCounters& listener) { return listener.name == name; });
    };
    const std::string port = at.text.substr(at.text.rfind(':') + 1);
    std::string name = free_name(wanted, port, is_taken);
    if (name != wanted) {
        log_warn("%s: another listener is called so: that at %s is %s\n", wanted.c_str(), at.text.c_str(),
                 name.c_str());
    }
    return name;
}

int Daemon::take_lines(int fd, const std::string& wanted)
{
    const Endpoint at = bound_address(fd);
    const std::string name = free_listener_name(wanted, at);
    listening_at_.push_back(at);
    listeners_.push_back(std::make_unique<Listener>(fd, name, config_.allow, *state_, counters_));
    log_norm("%s: lines are taken at %s\n", name.c_str(), at.text.c_str());
    return listeners_.back()->start() == 0 ? 0 : kExitSystem;
}

int Daemon::listen(const ListenSpec& spec)
{
    const int fd = open_datagram_socket(spec.at, config_.receive_buffer);
    if (fd < 0) {
        const int error = errno;
        log_err("%s: no lines can be taken there: %s\n", spec.at.text.c_str(), strerror(error));
        return exit_code(error, kExitNoAddress);
    }
    std::string name = spec.name;
    if (name.empty()) {
        name = bound_address(fd).text;
        name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return c == '[' || c == ']'; }),
                   name.end());
        name = as_name(name);
    }
    return take_lines(fd, name);
}

int Daemon::start_intake()
{
    for (const PassedSocket& passed : passed_) {
        if (!passed.is_stream) {
            const int rc = take_lines(passed.fd, passed.name);
            if (rc != 0) {
                return rc;
            }
        }
    }
    if (config_.listen.empty() && listeners_.empty() && !config_.stdin_lines) {
        config_.listen.push_back({parse_endpoint(kDefaultListen), ""});
    }
    for (const ListenSpec& spec : config_.listen) {
        const int rc = listen(spec);
        if (rc != 0) {
            return rc;
        }
    }
    read_drops();
    tick();
    return 0;
}

int Daemon::start_stdin()
{
    if (!config_.stdin_lines) {
        return 0;
    }
    stdin_ = std::make_unique<StreamIntake>(STDIN_FILENO, *state_, counters_, [this] { on_stdin_end(); });
    return stdin_->start() == 0 ? 0 : kExitSystem;
}

// What was joined is there before the first line is taken.
int Daemon::start_history()
{
    sinks_ = std::make_unique<Sinks>(config_, *state_, counters_);
    return sinks_->start_history() == 0 ? 0 : kExitSystem;
}

int Daemon::start_sinks()
{
    if (config_.forward.len != 0 && is_own_listener(config_.forward, listening_at_)) {
        log_err("--forward %s is a listener of this zentmon\n", config_.forward.text.c_str());
        return kExitUsage;
    }
    return sinks_->start_others() == 0 ? 0 : kExitSystem;
}

// A stream socket of the service manager replaces the default address.
int Daemon::start_site()
{
    const bool passed =
        std::any_of(passed_.begin(), passed_.end(), [](const PassedSocket& p) { return p.is_stream; });
    if (passed && !config_.http_given) {
        config_.http = Endpoint();
    }
    if (!passed && config_.http.len == 0) {
        return 0;
    }
    site_ = std::make_unique<Site>(*state_, counters_, sinks_->history(), config_.hosts);
    for (const PassedSocket& socket : passed_) {
        if (socket.is_stream && site_->adopt(socket.fd) != 0) {
            return kExitSystem;
        }
    }
    if (config_.http.len != 0 && site_->listen(config_.http) != 0) {
        const int error = errno;
        log_err("%s: the page cannot be served there: %s\n", config_.http.text.c_str(), strerror(error));
        return exit_code(error, kExitNoAddress);
    }
    return 0;
}

// ---- run --------------------------------------------------------------------------------------

int Daemon::run()
{
    using Stage = int (Daemon::*)();
    for (const Stage stage :
         {&Daemon::start_log, &Daemon::start_loop, &Daemon::start_state, &Daemon::start_history,
          &Daemon::start_site, &Daemon::start_intake, &Daemon::start_sinks, &Daemon::start_stdin}) {
        const int rc = (this->*stage)();
        if (rc != 0) {
            return rc;
        }
    }
    service_->ready();
    const int rc = Loop::run([this] { on_turn(); });
    service_->stopping();
    sinks_->stop();
    log_norm("zentmon ends: %s\n", status().c_str());
    return rc == 0 ? 0 : kExitSystem;
}

void Daemon::tick()
{
    tick_.start_ms(state_->tick(now()));
}

void Daemon::read_drops()
{
    for (const std::unique_ptr<Listener>& listener : listeners_) {
        listener->read_drops();
    }
    counters_.output_dropped[Output::log] = log_->dropped();
    drops_.start_ms(kDropsPauseMs);
}

void Daemon::on_turn()
{
    if (g_hup != 0) {
        g_hup = 0;
        reload();
    }
}

// Names and --allow anew; all else needs a restart.
void Daemon::reload()
{
    log_->reopen();
    service_->reloading();
    try {
        const Config fresh = read_options(arguments_).config;
        config_.allow = fresh.allow;
        config_.names = fresh.names;
        if (site_ != nullptr) {
            site_->set_hosts(fresh.hosts);
        }
        state_->rename(config_.names);
        log_norm("settings read again: %zu names, %zu networks allowed\n", config_.names.size(),
                 config_.allow.size());
    } catch (const UsageError& error) {
        log_err("the settings stay as they were: %s\n", error.what());
    }
    service_->reloaded();
}

void Daemon::on_stdin_end()
{
    if (listeners_.empty()) {
        Loop::stop();
    }
}

std::string Daemon::status() const
{
    uint64_t lost = 0;
    for (const ListenerCounters& listener : counters_.listeners) {
        lost += listener.dropped;
    }
    const uint64_t events = std::accumulate(counters_.events.begin(), counters_.events.end(), uint64_t{0});
    return std::to_string(state_->agent_count()) + " agents, " + std::to_string(state_->group_count()) +
           " groups, " + std::to_string(events) + " events, " + std::to_string(lost) + " datagrams lost";
}

} // namespace zentmon
