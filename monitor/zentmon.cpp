// main(), and what the application owes the library.
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <unistd.h>

#include "daemon.h"
#include "libmeta.h"
#include "log.h"
#include "options.h"

extern "C" {
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;
}

namespace {

// No memory, in whatever thread: an exception could not pass the C of the event loop.
[[noreturn]] void on_no_memory()
{
    constexpr char kText[] = "zentmon: no memory\n";
    [[maybe_unused]] const ssize_t told = write(STDERR_FILENO, kText, sizeof kText - 1);
    _exit(zentmon::kExitSystem);
}

int run(const std::vector<std::string>& arguments)
{
    using namespace zentmon;
    const Command command = read_options(arguments);
    switch (command.kind) {
    case Command::help: fputs(help_text().c_str(), stdout); return 0;
    case Command::version: printf("zentmon %s (%s)\n", kVersion, lbmvn_info()); return 0;
    default: return Daemon(command.config, arguments).run();
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::set_new_handler(on_no_memory);
    glog_init("zentmon");
    log_default(&g_log, stderr);
    try {
        return run({argv + (argc > 0 ? 1 : 0), argv + argc});
    } catch (const zentmon::UsageError& error) {
        fprintf(stderr, "zentmon: %s\n", error.what());
        return zentmon::kExitUsage;
    } catch (const std::exception& error) {
        fprintf(stderr, "zentmon: %s\n", error.what());
        return zentmon::kExitSystem;
    }
}
