// zentctl: the questions that an operator asks before and after he starts the agent.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <span>
#include <unistd.h>

#include "command.h"
#include "log.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

// What an application owes the library.
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;

namespace {

using namespace zentctl;

int print_help(std::span<const char* const> words)
{
    const Command* command = words.empty() ? nullptr : find_command(words[0]);
    if (words.empty()) {
        fputs(help_text().c_str(), stdout);
    } else if (strcmp(words[0], "codes") == 0) {
        fputs(help_codes().c_str(), stdout);
    } else if (command != nullptr) {
        fputs(help_text(*command).c_str(), stdout);
    } else {
        fprintf(stderr, "zentctl: no such command: %s\n", words[0]);
        return kCouldNotLook;
    }
    return kGood;
}

void tell_failure(Report& report, const std::string& code, const std::string& text, const std::string& cure)
{
    report.exit = kCouldNotLook;
    const Finding& finding = report.error(code, text, cure);
    if (!report.wants_json) {
        fprintf(stderr, "zentctl %s: %s\n", report.command.c_str(), finding.text.c_str());
        if (!cure.empty()) {
            fprintf(stderr, "Cure: %s\n", cure.c_str());
        }
    }
}

void run(const Command& command, std::span<const char* const> words, Report& report)
{
    try {
        const Arguments arguments = parse_arguments(command, words);
        if (arguments.has("--help")) {
            report.wants_json = false;
            fputs(help_text(command).c_str(), stdout);
            return;
        }
        command.run(arguments, report);
    } catch (const UsageError& error) {
        tell_failure(report, "usage", error.what(), std::string("zentctl help ") + command.name);
    } catch (const CannotLook& error) {
        tell_failure(report, error.code, error.what(), error.cure);
    } catch (const std::exception& error) { // of the C++ and JSON libraries: no memory, for instance
        tell_failure(report, "internal", error.what(), "");
    }
}

// The command line is read again inside run(); the choice of the form must hold for its errors as well.
bool wants_json(std::span<const char* const> words)
{
    for (const char* word : words) {
        if (strcmp(word, "--") == 0) {
            return false;
        }
        if (strcmp(word, "--json") == 0) {
            return true;
        }
    }
    return false;
}

// What the library and the agent's sources log is no part of a command's answer.
void silence_log()
{
    glog_init("zentctl");
    log_default(&g_log, stderr);
    log_set_modules(&g_log, MIN_level);
    log_set_sections(&g_log, MIN_level);
    set_myloglevel(MIN_level);
}

int g_answer = -1; // the exit code, once all is said

// A first failure of new is told as any other. Where memory lacks for that too, or where only destructors are
// left, the process ends here: those of the JSON library need memory, and must not throw.
void on_no_memory()
{
    static bool is_first = true;
    if (g_answer >= 0) {
        _exit(g_answer);
    }
    if (is_first) {
        is_first = false;
        throw std::bad_alloc();
    }
    fputs("zentctl: no memory\n", stderr);
    _exit(kCouldNotLook);
}

int answer(std::span<const char* const> words)
{
    if (words.empty()) {
        fputs(help_text().c_str(), stderr);
        return kCouldNotLook;
    }
    if (strcmp(words[0], "help") == 0 || strcmp(words[0], "--help") == 0 || strcmp(words[0], "-h") == 0) {
        return print_help(words.subspan(1));
    }
    const Command* command = find_command(words[0]);
    if (command == nullptr) {
        fprintf(stderr, "zentctl: no such command: %s\nCure: zentctl help\n", words[0]);
        return kCouldNotLook;
    }
    Report report(command->name);
    report.wants_json = wants_json(words.subspan(1));
    run(*command, words.subspan(1), report);
    if (report.wants_json) {
        puts(report.as_json().c_str());
    }
    const bool is_flushed = fflush(stdout) == 0;
    if (!is_flushed || ferror(stdout) != 0) {
        fprintf(stderr, "zentctl: stdout: %s\n", is_flushed ? "a write before failed" : strerror(errno));
        return kCouldNotLook;
    }
    g_answer = report.exit;
    return g_answer;
}

} // namespace

int main(int argc, char** argv)
{
    g_appname = "zentctl";
    silence_log();
    std::set_new_handler(on_no_memory);
    try {
        return answer({argv + (argc > 0 ? 1 : 0), static_cast<size_t>(argc > 0 ? argc - 1 : 0)});
    } catch (const std::exception& error) { // outside of run(): no memory for the report
        fprintf(stderr, "zentctl: %s\n", error.what());
        return kCouldNotLook;
    }
}
