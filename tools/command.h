// The commands: what each takes on its command line and which function runs it.
#ifndef ZENTCTL_COMMAND_H
#define ZENTCTL_COMMAND_H

#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "report.h"

namespace zentctl {

// A command line that makes no sense: told with a hint at the help, exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Something outside keeps the command from looking: exit code 2. The code is one of all_codes().
struct CannotLook : std::runtime_error {
    CannotLook(std::string word, const std::string& text, std::string way_out = "")
        : std::runtime_error(text), code(std::move(word)), cure(std::move(way_out))
    {
    }

    std::string code;
    std::string cure;
};

struct Option {
    const char* name;     // "--max" or "-g"
    const char* argument; // what the help calls it, or NULL for none
    const char* help;
};

// A command line that was taken apart by a command's table.
class Arguments {
  public:
    std::vector<std::string> operands;

    bool has(std::string_view option) const { return values_.find(option) != values_.end(); }

    // The value of an option, or the other text where it is not given. A repeated option counts once, the
    // last.
    std::string value(std::string_view option, const std::string& otherwise = "") const;

    // The value as a number within bounds; a UsageError where it is none.
    long number(std::string_view option, long otherwise, long least, long most) const;

    void set(std::string_view option, std::string value) { values_[std::string(option)] = std::move(value); }

  private:
    std::map<std::string, std::string, std::less<>> values_;
};

struct Command {
    const char* name;
    const char* operands; // as the help shows them
    const char* purpose;  // one sentence
    std::vector<Option> options;
    size_t least_operands;
    size_t most_operands;
    void (*run)(const Arguments&, Report&);
};

const std::vector<Command>& all_commands();

// NULL where there is none of that name.
const Command* find_command(std::string_view name);

// Throws UsageError.
Arguments parse_arguments(const Command& command, std::span<const char* const> words);

std::string help_text();
std::string help_text(const Command& command);
std::string help_codes();

// The commands, each in the file of its name. They print what they have to say unless the report is wanted as
// JSON, fill the report, and set its exit code.
void run_check(const Arguments& arguments, Report& report);
void run_lint(const Arguments& arguments, Report& report);
void run_expand(const Arguments& arguments, Report& report);
void run_query(const Arguments& arguments, Report& report);
void run_groups(const Arguments& arguments, Report& report);
void run_watch(const Arguments& arguments, Report& report);

} // namespace zentctl

#endif
