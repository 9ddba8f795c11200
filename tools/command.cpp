// The table of commands, their help, and the reading of a command line.
#include "command.h"

#include <algorithm>
#include <charconv>

namespace zentctl {

namespace {

constexpr Option kLeast = {"-g", "GROUP", "lowest group of the agent's range"};
constexpr Option kMost = {"-G", "GROUP", "highest group of the agent's range"};
constexpr Option kJson = {"--json", nullptr, "print one JSON object in place of text"};
constexpr Option kHelp = {"--help", nullptr, "print this help"};

std::string left_column(const Option& option)
{
    return std::string(option.name) + (option.argument != nullptr ? std::string(" ") + option.argument : "");
}

std::string table_row(const std::string& left, const char* right)
{
    std::string row = "  " + left;
    row.resize(std::max<size_t>(row.size() + 2, 28), ' ');
    return row + right + "\n";
}

const Option* find_option(const Command& command, std::string_view name)
{
    const auto found =
        std::ranges::find_if(command.options, [&](const Option& option) { return option.name == name; });
    return found == command.options.end() ? nullptr : &*found;
}

// The words of a command line, one after the other.
class Reader {
  public:
    Reader(const Command& command, std::span<const char* const> words) : command_(command), words_(words) {}

    Arguments read()
    {
        bool options_are_over = false;
        while (at_ < words_.size()) {
            const std::string word = words_[at_++];
            if (!options_are_over && word == "--") {
                options_are_over = true;
            } else if (!options_are_over && word.size() > 1 && word[0] == '-') {
                read_option(word);
            } else {
                result_.operands.push_back(word);
            }
        }
        return std::move(result_);
    }

  private:
    // "--name VALUE", "--name=VALUE", "-x VALUE", "-xVALUE"
    void read_option(const std::string& word)
    {
        const bool is_long = word.starts_with("--");
        const size_t end = is_long ? word.find('=') : 2;
        const std::string name = word.substr(0, end);
        const bool has_value = end != std::string::npos && end < word.size();
        const Option* option = find_option(command_, name);
        if (option == nullptr) {
            throw UsageError("unknown option: " + word);
        }
        if (option->argument == nullptr) {
            if (has_value) {
                throw UsageError(name + " takes no value");
            }
            result_.set(name, "");
        } else if (has_value) {
            result_.set(name, word.substr(is_long ? end + 1 : end));
        } else if (at_ < words_.size()) {
            result_.set(name, words_[at_++]);
        } else {
            throw UsageError(name + " wants a value: " + left_column(*option));
        }
    }

    const Command& command_;
    std::span<const char* const> words_;
    size_t at_ = 0;
    Arguments result_;
};

// NOLINTNEXTLINE(readability-function-size): a table.
std::vector<Command> make_commands()
{
    return {
        {"check",
         "IFACE",
         "Finds why the agent would fail or stay silent on an interface, worst first, each with its cure.",
         {{"--target", "ADDRESS:PORT", "the relay that gets the lines, as the agent's -R"},
          {"--list", "FILE", "the list of groups, as the agent's -F"},
          kLeast,
          kMost,
          {"--watch", "SECONDS", "how long to listen, 0 to 3600 (default 10; 130 sees any querier)"},
          kJson,
          kHelp},
         1,
         1,
         run_check},
        {"lint",
         "FILE",
         "Says line by line what the agent refuses or misreads in a list of groups.",
         {{"--fix", nullptr, "print the list that the agent takes, order kept"},
          {"--strict", nullptr, "warnings give exit code 1 as well"},
          kLeast,
          kMost,
          kJson,
          kHelp},
         1,
         1,
         run_lint},
        {"expand",
         "PREFIX|RANGE|FILE ...",
         "Prints one plain list of all groups, sorted, none twice.",
         {{"--max", "N", "at most so many groups, 1 to 1000000 (default 1000000)"}, kJson, kHelp},
         1,
         SIZE_MAX,
         run_expand},
        {"query",
         "IFACE",
         "Is the IGMP version 2 querier of a segment that has none, so that hosts report again. A snooping switch "
         "takes the port of a querier for a router's and sends it every group.",
         {{"--once", nullptr, "one query, then 6 s of answers as a table"},
          {"--interval", "S", "seconds between general queries, 11 to 31744 (default 125)"},
          {"--force", nullptr, "query even where a version 3 querier is heard"},
          kJson,
          kHelp},
         1,
         1,
         run_query},
        {"groups",
         "[URL]",
         "Shows the joined groups of a zentmon (default http://127.0.0.1:8580) as a table.",
         {{"--filter", "TEXT", "groups or agents that match: 239.1., 239.1.0.0/16, a name"},
          {"--agent", "NAME", "one agent's groups"},
          kJson,
          kHelp},
         0,
         1,
         run_groups},
        {"watch",
         "[URL]",
         "Follows the events of a zentmon (default http://127.0.0.1:8580), one line each, until Ctrl-C.",
         {kJson, kHelp},
         0,
         1,
         run_watch},
    };
}

} // namespace

std::string Arguments::value(std::string_view option, const std::string& otherwise) const
{
    const auto found = values_.find(option);
    return found == values_.end() ? otherwise : found->second;
}

long Arguments::number(std::string_view option, long otherwise, long least, long most) const
{
    if (!has(option)) {
        return otherwise;
    }
    const std::string text = value(option);
    long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
        throw UsageError(std::string(option) + " wants a number from " + std::to_string(least) + " to " +
                         std::to_string(most) + ", not \"" + text + "\"");
    }
    return number;
}

const std::vector<Command>& all_commands()
{
    static const std::vector<Command> commands = make_commands();
    return commands;
}

const Command* find_command(std::string_view name)
{
    const auto found =
        std::ranges::find_if(all_commands(), [&](const Command& command) { return command.name == name; });
    return found == all_commands().end() ? nullptr : &*found;
}

Arguments parse_arguments(const Command& command, std::span<const char* const> words)
{
    Arguments arguments = Reader(command, words).read();
    if (arguments.has("--help")) {
        return arguments;
    }
    if (arguments.operands.size() < command.least_operands) {
        throw UsageError(std::string("wants ") + command.operands);
    }
    if (arguments.operands.size() > command.most_operands) {
        throw UsageError("too many arguments: " + arguments.operands[command.most_operands]);
    }
    return arguments;
}

std::string help_text()
{
    std::string text = "Usage: zentctl COMMAND [OPTION ...] ...\n\nCommands:\n";
    for (const Command& command : all_commands()) {
        text += table_row(std::string(command.name) + " " + command.operands, command.purpose);
    }
    text += table_row("help [COMMAND|codes]", "Help on a command, or all words of findings.");
    return text + "\nExit codes: 0 good, 1 findings, 2 could not look. Every command takes --json.\n";
}

std::string help_text(const Command& command)
{
    std::string text = std::string("Usage: zentctl ") + command.name + " [OPTION ...] " + command.operands;
    text += std::string("\n\n") + command.purpose + "\n\nOptions:\n";
    for (const Option& option : command.options) {
        text += table_row(left_column(option), option.help);
    }
    return text;
}

std::string help_codes()
{
    std::string text;
    for (const Code& code : all_codes()) {
        text += table_row(code.word, code.meaning);
    }
    return text;
}

} // namespace zentctl
