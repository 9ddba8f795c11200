// zentctl(1): whole, clean, and its examples run; the completions of all programs, driven in their shells.
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "agent_run.h"
#include "command.h"
#include "match.h"
#include "netns.h"
#include "paths.h"
#include "wait.h"
#include "zentctl_run.h"

using namespace support;

namespace {

std::string page()
{
    return read_file(source_path("man/zentctl.1"));
}

bool has_program(const std::string& name)
{
    return run_program({"sh", "-c", "command -v " + name}).exit_code == 0;
}

// The command lines of the section EXAMPLES.
std::vector<std::string> examples()
{
    std::string text = page();
    text = text.substr(text.find(".Sh EXAMPLES"));
    text = text.substr(0, text.find("\n.Sh ", 1));
    std::vector<std::string> result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("zentctl ")) {
            result.push_back(line);
        }
    }
    return result;
}

std::string bash(const std::string& program, const std::string& words)
{
    const std::string script = "source " + source_path("completions/bash/" + program) + "; COMP_WORDS=(" +
                               words + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _" + program +
                               "; echo \"${COMPREPLY[@]}\"";
    return run_program({"bash", "--norc", "-c", script}).out;
}

std::string fish(const std::string& program, const std::string& line)
{
    return run_program({"fish", "--no-config", "-c",
                        "source " + source_path("completions/fish/" + program + ".fish") + "; complete -C '" +
                            line + "'"})
        .out;
}

// What the line becomes in an interactive zsh on a terminal of its own when the tabulator is typed.
std::string zsh(const std::string& line, const std::string& becomes)
{
    const std::string script =
        "zmodload zsh/zpty; zpty z zsh -f -i; zpty -w z 'PROMPT=; unsetopt zle_bracketed_paste; "
        "fpath=(" +
        source_path("completions/zsh") +
        " $fpath); autoload -U compinit; compinit -u -D; print rea''dy'; "
        "zpty -r -m z out '*ready*'; zpty -w -n z '" +
        line + "'$'\\t'; zpty -r -m z out '*" + becomes + "*'; print -r -- \"$out\"; zpty -d z";
    return run_program({"zsh", "-f", "-c", script}).out;
}

} // namespace

TEST(ZentctlManual, is_clean_for_mandoc)
{
    if (!has_program("mandoc")) {
        GTEST_SKIP() << "skipped: mandoc is not installed";
    }
    const ChildResult result =
        run_program({"mandoc", "-T", "lint", "-W", "warning", source_path("man/zentctl.1")});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.exit_code, 0);
}

TEST(ZentctlManual, has_every_command_option_and_code)
{
    const std::string text = page();
    for (const zentctl::Command& command : zentctl::all_commands()) {
        EXPECT_NE(text.find(std::string("\n.Cm ") + command.name + "\n"), std::string::npos) << command.name;
        for (const zentctl::Option& option : command.options) {
            const std::string name = option.name + 1; // mdoc adds the first dash
            if (name != "-help") {
                EXPECT_NE(text.find("Fl " + name), std::string::npos) << command.name << " " << option.name;
            }
        }
    }
    for (const zentctl::Code& code : zentctl::all_codes()) {
        EXPECT_NE(text.find(std::string("\n.It Li ") + code.word + "\n"), std::string::npos) << code.word;
    }
}

TEST(ZentctlManual, its_examples_run_as_written)
{
    if (const std::string missing = netns_missing(); !missing.empty()) {
        GTEST_SKIP() << "skipped: " << missing;
    }
    const NetnsPair pair;
    inside(pair, &NetnsPair::enter_a, [] {
        must_run("ip link set va down && ip link set va name eth0 && ip link set eth0 up");
        return 0;
    });
    const TempDir dir;
    ASSERT_EQ(run_program({"sh", "-c",
                           "ln -s " + zentctl_path() + " " + dir.path() +
                               "/zentctl; printf '# mine\\n"
                               "239.1.1.1\\n' > " +
                               dir.path() + "/with-comments.txt"})
                  .exit_code,
              0);
    Process zentmon;
    const bool has_zentmon = run_program({build_path("zentmon"), "--version"}).exit_code == 0;
    if (has_zentmon) {
        zentmon = start_in_a(pair, {build_path("zentmon")});
        ASSERT_TRUE(
            wait_until([&] { return start_in_a(pair, zentctl_command({"groups"})).wait().exit_code == 0; }));
    }
    ASSERT_GE(examples().size(), 6U);
    for (const std::string& line : examples()) {
        const ChildResult result =
            start_in_a(pair,
                       {"sh", "-c", "cd " + dir.path() + " && PATH=" + dir.path() + ":$PATH && " + line})
                .wait();
        const bool needs_zentmon = line.find("groups --") != std::string::npos;
        if (!needs_zentmon || has_zentmon) {
            EXPECT_TRUE(result.exit_code == 0 || result.exit_code == 1) << line << "\n"
                                                                        << result.out << result.err;
        }
    }
    EXPECT_EQ(read_file(dir.path() + "/fixed.txt"), "239.1.1.1\n");
    EXPECT_EQ(read_file(dir.path() + "/groups.txt").substr(0, 20), "239.1.0.0\n239.1.0.1\n");
}

TEST(Completions, complete_commands_and_options_in_bash)
{
    EXPECT_EQ(bash("zentctl", "zentctl ch"), "check\n");
    EXPECT_EQ(bash("zentctl", "zentctl query --"), "--once --interval --force --json --help\n");
    EXPECT_NE((" " + bash("zentctl", "zentctl check l")).find(" lo"), std::string::npos);
    EXPECT_EQ(bash("zent", "zent -L d"), "debug\n");
    EXPECT_NE((" " + bash("zent", "zent -i l")).find(" lo"), std::string::npos);
    EXPECT_EQ(bash("zentmon", "zentmon --mqtt-us"), "--mqtt-user\n");
}

TEST(Completions, in_bash_know_every_option_of_zentctl)
{
    for (const zentctl::Command& command : zentctl::all_commands()) {
        const std::string words = " " + bash("zentctl", std::string("zentctl ") + command.name + " -");
        for (const zentctl::Option& option : command.options) {
            EXPECT_FALSE(search(words, std::string(" ") + option.name + "[ \n]").empty())
                << command.name << option.name << words;
        }
    }
}

TEST(Completions, complete_commands_and_options_in_fish)
{
    if (!has_program("fish")) {
        GTEST_SKIP() << "skipped: fish is not installed";
    }
    EXPECT_TRUE(fish("zentctl", "zentctl ch").starts_with("check\t")) << fish("zentctl", "zentctl ch");
    const std::string options = fish("zentctl", "zentctl query --");
    for (const char* option : {"--once\t", "--interval\t", "--force\t", "--json\t"}) {
        EXPECT_NE(options.find(option), std::string::npos) << option << options;
    }
    EXPECT_NE(fish("zentctl", "zentctl check l").find("lo\n"), std::string::npos);
    EXPECT_NE(fish("zent", "zent -L d").find("debug"), std::string::npos);
    EXPECT_NE(fish("zentmon", "zentmon --mqtt-us").find("--mqtt-user"), std::string::npos);
}

TEST(Completions, complete_commands_and_options_in_zsh)
{
    if (!has_program("zsh")) {
        GTEST_SKIP() << "skipped: zsh is not installed";
    }
    EXPECT_NE(zsh("zentctl ch", "eck").find("eck"), std::string::npos);
    EXPECT_NE(zsh("zentctl query --on", "ce").find("ce"), std::string::npos);
    EXPECT_NE(zsh("zent -L deb", "ug").find("ug"), std::string::npos);
    EXPECT_NE(zsh("zentmon --mqtt-us", "er").find("er"), std::string::npos);
}

// Each option of zentmon's own help stands in its three completions.
TEST(Completions, know_every_option_of_zentmon)
{
    const std::string help = run_program({build_path("zentmon"), "--help"}).out;
    if (help.empty()) {
        GTEST_SKIP() << "skipped: zentmon is not built here";
    }
    const std::string in_bash = read_file(source_path("completions/bash/zentmon"));
    const std::string in_zsh = read_file(source_path("completions/zsh/_zentmon"));
    const std::string in_fish = read_file(source_path("completions/fish/zentmon.fish"));
    for (const Match& option : search_all(help, "\n  --([a-z-]+)")) {
        const std::string name = option[1];
        EXPECT_FALSE(search(in_bash, "--" + name + "[ \"]").empty()) << name;
        EXPECT_FALSE(search(in_zsh, "--" + name + "\\[").empty()) << name;
        EXPECT_NE(in_fish.find(" -l " + name + " "), std::string::npos) << name;
    }
}
