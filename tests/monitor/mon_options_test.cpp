// The words of the command line and of the file.
#include "options.h"

#include <gtest/gtest.h>

#include "log.h"
#include "names.h"
#include "tempdir.h"

using namespace zentmon;

namespace {

Config read(const std::vector<std::string>& arguments)
{
    return read_options(arguments).config;
}

std::string error(const std::vector<std::string>& arguments)
{
    try {
        read_options(arguments);
    } catch (const UsageError& wrong) {
        return wrong.what();
    }
    return "";
}

} // namespace

TEST(MonOptions, defaults)
{
    const Config c = read({});
    EXPECT_TRUE(c.listen.empty());
    EXPECT_EQ(c.stale_s, 260);
    EXPECT_EQ(c.forget_s, 0);
    EXPECT_EQ(c.linger_s, 0);
    EXPECT_EQ(c.receive_buffer, 64u << 20);
    EXPECT_EQ(endpoint_text(c.http.ss), "127.0.0.1:8580");
    EXPECT_EQ(c.keep_days, 90);
    EXPECT_EQ(c.exec_max, 4);
    EXPECT_EQ(c.mqtt_prefix, "zent");
    EXPECT_TRUE(is_name(c.instance));
    EXPECT_EQ(c.log_level, INFO_level);
}

TEST(MonOptions, a_value_stands_behind_the_word_or_behind_an_equals_sign)
{
    EXPECT_EQ(read({"--stale", "10"}).stale_s, 10);
    EXPECT_EQ(read({"--stale=10"}).stale_s, 10);
    EXPECT_EQ(read({"--listen=127.0.0.1:1=lab"}).listen[0].name, "lab");
    EXPECT_EQ(read({"--stale", "10", "--stale", "20"}).stale_s, 20);
}

TEST(MonOptions, listeners)
{
    const Config c =
        read({"--listen", "0.0.0.0:4554=hall", "--listen", "[::1]:4555", "--listen", "4556=lab"});
    ASSERT_EQ(c.listen.size(), 3u);
    EXPECT_EQ(endpoint_text(c.listen[0].at.ss), "0.0.0.0:4554");
    EXPECT_EQ(c.listen[0].name, "hall");
    EXPECT_EQ(endpoint_text(c.listen[1].at.ss), "[::1]:4555");
    EXPECT_EQ(c.listen[1].name, "");
    EXPECT_EQ(endpoint_text(c.listen[2].at.ss), "127.0.0.1:4556");
}

TEST(MonOptions, names_are_kept_under_the_one_text_of_their_address)
{
    const Config c =
        read({"--name", "10.0.0.1=hall", "--name", "2001:db8:0::1=lab", "--name", "[fd00::1]=attic"});
    EXPECT_EQ(c.names.at("10.0.0.1"), "hall");
    EXPECT_EQ(c.names.at("2001:db8::1"), "lab");
    EXPECT_EQ(c.names.at("fd00::1"), "attic");
}

TEST(MonOptions, what_is_wrong_is_said)
{
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"--bogus"},
                                               {"extra"},
                                               {"-x"},
                                               {"--stale"},
                                               {"--stale", "-1"},
                                               {"--stale", "1s"},
                                               {"--stale", ""},
                                               {"--stale", "99999999999999999999"},
                                               {"--json=1"},
                                               {"--listen", "localhost:1"},
                                               {"--listen", "127.0.0.1:65536"},
                                               {"--listen", "127.0.0.1:"},
                                               {"--listen", "::1:4554"},
                                               {"--listen", "[127.0.0.1]:1"},
                                               {"--listen", "127.0.0.1:1=a b"},
                                               {"--listen", "127.0.0.1:1="},
                                               {"--listen", "1=a", "--listen", "2=a"},
                                               {"--name", "hall=10.0.0.1"},
                                               {"--name", "10.0.0.1"},
                                               {"--name", "10.0.0.1=a/b"},
                                               {"--name", "10.0.0.1=" + std::string(65, 'a')},
                                               {"--name", "10.0.0.1=a", "--name", "10.0.0.2=a"},
                                               {"--allow", "10.0.0.0/33"},
                                               {"--allow", "10.0.0/8"},
                                               {"--allow", "fd00::/129"},
                                               {"--keep", "0"},
                                               {"--exec-max", "0"},
                                               {"--mqtt", "broker"},
                                               {"--mqtt", ":1883"},
                                               {"--mqtt", "broker:0"},
                                               {"--mqtt-prefix", "a/#"},
                                               {"--mqtt-cert", "a"},
                                               {"--mqtt", "broker:1883", "--mqtt-password-file", "a"},
                                               {"--loglevel", "loud"},
                                               {"--config", "/nonexistent"}}) {
        EXPECT_NE(error(arguments), "") << arguments[0] << " " << (arguments.size() > 1 ? arguments[1] : "");
    }
    EXPECT_EQ(error({"--stale", "x"}), "--stale: \"x\" is no number from 0 to 31622400");
    EXPECT_EQ(error({"--stale"}), "--stale needs a value: SECONDS");
}

TEST(MonOptions, the_file_has_the_same_words_and_the_command_line_wins)
{
    const support::TempDir dir;
    dir.write(
        "conf",
        "# the hall\n\nlisten 127.0.0.1:5000=hall\n--name=10.0.0.1=one\n  stale = 20 \nname 10.0.0.2=two\n"
        "json\n");
    const Config c = read({"--config", dir.path("conf"), "--stale", "30", "--name", "10.0.0.3=three"});
    EXPECT_EQ(c.listen[0].name, "hall");
    EXPECT_EQ(c.names.size(), 3u);
    EXPECT_EQ(c.stale_s, 30);
    EXPECT_TRUE(c.json);
}

TEST(MonOptions, an_error_in_the_file_has_file_and_line)
{
    const support::TempDir dir;
    const std::string path = dir.path("conf");
    dir.write("conf", "json\n\nname hall\n");
    EXPECT_EQ(error({"--config", path}).rfind(path + ":3: ", 0), 0u) << error({"--config", path});
    dir.write("conf", "colour blue\n");
    EXPECT_EQ(error({"--config", path}), path + ":1: \"colour\" is no option here");
    dir.write("conf", "json yes\n");
    EXPECT_EQ(error({"--config", path}), path + ":1: json has no value");
    dir.write("conf", "stale\n");
    EXPECT_EQ(error({"--config", path}), path + ":1: stale needs a value");
    dir.write("conf", "config other\n");
    EXPECT_EQ(error({"--config", path}), path + ":1: \"config\" is no option here");
}

TEST(MonOptions, help_and_version_win_and_help_names_every_word)
{
    EXPECT_EQ(read_options({"--help"}).kind, Command::help);
    EXPECT_EQ(read_options({"--json", "--version"}).kind, Command::version);
    for (const char* word :
         {"--listen",  "--stdin", "--allow",  "--name", "--stale",    "--forget",   "--http",
          "--host",    "--db",    "--keep",   "--json", "--exec",     "--exec-max", "--linger",
          "--forward", "--mqtt",  "--config", "--log",  "--loglevel", "--help",     "--version"}) {
        EXPECT_NE(help_text().find(std::string(word) + " "), std::string::npos) << word;
    }
}

TEST(MonNames, what_a_name_is)
{
    EXPECT_TRUE(is_name("Hall-1.lab:a_b"));
    EXPECT_TRUE(is_name(std::string(64, 'x')));
    EXPECT_FALSE(is_name(""));
    EXPECT_FALSE(is_name(std::string(65, 'x')));
    EXPECT_FALSE(is_name("a b"));
    EXPECT_FALSE(is_name("a/b"));
    EXPECT_FALSE(is_name(std::string("a\0b", 3)));
    EXPECT_EQ(as_name("fe80::1%eth0"), "fe80::1-eth0");
}

TEST(MonNames, a_taken_name_gets_the_listener_and_then_a_number_behind_it)
{
    std::vector<std::string> names = {"a"};
    const auto taken = [&](const std::string& n) { return std::count(names.begin(), names.end(), n) != 0; };
    EXPECT_EQ(free_name("b", "lab", taken), "b");
    EXPECT_EQ(free_name("a", "lab", taken), "a-lab");
    names.push_back("a-lab");
    EXPECT_EQ(free_name("a", "lab", taken), "a-lab-2");
    const std::string longest(64, 'x');
    names.push_back(longest);
    EXPECT_EQ(free_name(longest, "lab", taken), std::string(60, 'x') + "-lab");
}
