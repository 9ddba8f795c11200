// The usage text, to the byte.
#include <string>
#include <sys/utsname.h>

#include <gtest/gtest.h>

#include "child.h"
#include "zent.h"

namespace {

std::string system_text()
{
    struct utsname system;
    uname(&system);
    return std::string("CentOS 7 Linux (amd64) - ") + system.release + "/" + system.machine;
}

std::string usage_text(const std::string& app, const std::string& banner)
{
    return banner + "\n" + "Usage: " + app +
           " OPTIONS\n"
           "Options:\n"
           "  -?                   = output this option guide\n"
           "  -i {ifc}             = network interface to listen on\n"
           "  -R {address:port}    = address:port of tvd to report to\n"
           "  -g {min-group}       = minimal m-cast address to relay\n"
           "  -G {max-group}       = maximum m-cast address to relay\n"
           "  -F {path}            = path to group-list file\n"
           "  -l {path}            = log file\n"
           "  -L {level}           = log level: crit|err|norm|warn|info|debug\n"
           "  -p {path}            = pid file\n"
           "  -u {username}        = run as user\n"
           "  -T                   = run as a non-daemon application\n"
           "\n"
           "----\n"
           "libmvn/1.0-2.25 (d15a4342) @1557583422 [-ggdb3]\n"
           "----\n"
           "\n" +
           app + " belongs to the Tavrel family of IP multicast relay programs.\n\n";
}

support::ChildResult usage_of(const char* app)
{
    return support::run_in_child([app]() -> int {
        g_appname = app;
        usage();
    });
}

} // namespace

TEST(Usage, is_written_to_stderr_and_ends_the_process_with_1)
{
    const support::ChildResult result = usage_of("zent");
    EXPECT_EQ(result.err, usage_text("zent", "zent (Tavrel IGMP agent) 0.1-6.0 (master) regular [" +
                                                 system_text() + "] f61e0a7b; built on 2019-05-11"));
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.exit_code, 1);
}

TEST(Usage, of_a_renamed_binary_names_it_and_has_no_description)
{
    const support::ChildResult result = usage_of("watcher");
    EXPECT_EQ(result.err, usage_text("watcher", "watcher (#error#) 0.1-6.0 (master) regular [" +
                                                    system_text() + "] f61e0a7b; built on 2019-05-11"));
    EXPECT_EQ(result.exit_code, 1);
}

TEST(Usage, of_a_name_too_long_for_the_banner_has_an_error_for_it)
{
    const std::string name(250, 'n');
    const support::ChildResult result = usage_of(name.c_str());
    EXPECT_EQ(result.err, usage_text(name, "#error#"));
    EXPECT_EQ(result.exit_code, 1);
}
