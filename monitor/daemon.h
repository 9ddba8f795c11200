// The parts of zentmon put together, from the settings to the exit code.
#ifndef ZENTMON_DAEMON_H
#define ZENTMON_DAEMON_H

#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "counters.h"
#include "logsink.h"
#include "loop.h"
#include "options.h"
#include "receive.h"
#include "service.h"
#include "sinks.h"
#include "site.h"
#include "state.h"

namespace zentmon {

class Daemon {
  public:
    // arguments: those of the command line, which are read again at SIGHUP.
    Daemon(Config config, std::vector<std::string> arguments);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Runs until SIGTERM or the end of its only input. The exit code.
    int run();

  private:
    // Stages of the start, in their order: 0, or the exit code.
    int start_log();
    int start_loop();
    int start_state();
    int start_intake();
    int start_stdin();
    int start_history();
    int start_site();
    int start_sinks();

    int listen(const ListenSpec& spec);
    std::string free_listener_name(const std::string& wanted, const Endpoint& at) const;
    int take_lines(int fd, const std::string& wanted);
    void tick();
    void read_drops();
    void on_turn();
    void reload();
    void on_stdin_end();
    std::string status() const;

    Config config_;
    std::vector<std::string> arguments_;
    Counters counters_;
    std::unique_ptr<LogSink> log_;
    bool loop_stands_ = false;
    std::unique_ptr<Service> service_;
    std::unique_ptr<State> state_;
    std::unique_ptr<Sinks> sinks_;
    std::unique_ptr<Site> site_;
    std::vector<PassedSocket> passed_;
    std::vector<Endpoint> listening_at_; // for lines
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::unique_ptr<StreamIntake> stdin_;
    Timer tick_;
    Timer drops_;
};

} // namespace zentmon

#endif
