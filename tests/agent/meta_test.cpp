#include "meta.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/utsname.h>

#include <gtest/gtest.h>

#include "libmeta.h"
#include "wrap.h"
#include "zent.h"

namespace {

// What the wrapped uname() answers; calls it has had.
struct {
    int calls = 0;
    int failures_left = 0;
    const char* release = nullptr; // NULL: the running system's
} g_uname;

std::string running_system()
{
    struct utsname system;
    EXPECT_EQ(uname(&system), 0);
    g_uname.calls = 0;
    return std::string("CentOS 7 Linux (amd64) - ") + system.release + "/" + system.machine;
}

std::string banner(const std::string& app, const std::string& description, const std::string& system,
                   const std::string& cksum)
{
    return app + " (" + description + ") 0.1-6.0 (master) regular [" + system + "] " + cksum +
           "; built on 2019-05-11";
}

// The length of a banner with no name in it at all, which has no description either.
size_t bare_length()
{
    return banner("", "#error#", running_system(), "f61e0a7b").size();
}

std::string build_block()
{
    char* text = nullptr;
    size_t length = 0;
    FILE* fp = open_memstream(&text, &length);
    dump_build_info(fp);
    fclose(fp);
    std::string result(text, length);
    free(text);
    return result;
}

} // namespace

WRAPPED(int, uname, (struct utsname * system));

extern "C" {
int __wrap_uname(struct utsname* system)
{
    ++g_uname.calls;
    if (g_uname.failures_left > 0) {
        --g_uname.failures_left;
        errno = EFAULT;
        return -1;
    }
    const int rc = __real_uname(system);
    if (g_uname.release != nullptr) {
        strncpy(system->release, g_uname.release, sizeof system->release - 1);
        strcpy(system->machine, "m68k");
    }
    return rc;
}
}

TEST(SysInfo, names_the_build_platform_and_the_running_system)
{
    EXPECT_EQ(get_sysinfo(), running_system());
}

TEST(SysInfo, takes_release_and_machine_from_uname)
{
    g_uname.release = "6.1.0-test";
    EXPECT_STREQ(get_sysinfo(), "CentOS 7 Linux (amd64) - 6.1.0-test/m68k");
}

TEST(SysInfo, is_asked_of_the_system_once)
{
    const char* first = get_sysinfo();
    const std::string text = first;
    g_uname.release = "changed";
    EXPECT_EQ(get_sysinfo(), first);
    EXPECT_EQ(get_sysinfo(), text);
    EXPECT_EQ(g_uname.calls, 1);
}

TEST(SysInfo, is_null_when_uname_fails_and_asks_again_the_next_time)
{
    g_uname.failures_left = 2;
    EXPECT_EQ(get_sysinfo(), nullptr);
    EXPECT_EQ(get_sysinfo(), nullptr);
    EXPECT_EQ(get_sysinfo(), running_system());
}

TEST(AppInfo, banner_names_the_program_its_description_the_system_and_the_checksum)
{
    EXPECT_EQ(get_app_info("zent", nullptr),
              banner("zent", "Tavrel IGMP agent", running_system(), "f61e0a7b"));
}

TEST(AppInfo, without_a_checksum_has_that_of_the_build)
{
    EXPECT_STREQ(g_APP_CKSUM, "f61e0a7b");
    const std::string text = get_app_info("zent", nullptr);
    EXPECT_NE(text.find("] f61e0a7b; built on "), std::string::npos) << text;
}

TEST(AppInfo, banner_shows_a_checksum_that_is_given)
{
    EXPECT_EQ(get_app_info("zent", "0badcafe"),
              banner("zent", "Tavrel IGMP agent", running_system(), "0badcafe"));
}

TEST(AppInfo, finds_a_program_whatever_its_case_and_prints_the_name_as_given)
{
    EXPECT_EQ(get_app_info("ZeNT", nullptr),
              banner("ZeNT", "Tavrel IGMP agent", running_system(), "f61e0a7b"));
}

TEST(AppInfo, knows_the_relay_daemon)
{
    EXPECT_EQ(get_app_info("tvd", nullptr),
              banner("tvd", "Tavrel relay daemon", running_system(), "f61e0a7b"));
}

TEST(AppInfo, banner_of_an_unknown_program_has_the_error_text_for_its_description)
{
    EXPECT_EQ(get_app_info("zentx", nullptr), banner("zentx", "#error#", running_system(), "f61e0a7b"));
}

TEST(AppInfo, banner_of_a_prefix_of_a_program_is_that_of_an_unknown_one)
{
    EXPECT_EQ(get_app_info("zen", nullptr), banner("zen", "#error#", running_system(), "f61e0a7b"));
}

TEST(AppInfo, keeps_the_texts_of_the_first_caller)
{
    const char* first = get_app_info("zent", "00000001");
    const std::string text = first;
    EXPECT_EQ(get_app_info("other", "00000002"), first);
    EXPECT_EQ(get_app_info("zent", nullptr), text);
    EXPECT_EQ(text, banner("zent", "Tavrel IGMP agent", running_system(), "00000001"));
}

TEST(AppInfo, says_null_where_the_system_has_no_name)
{
    g_uname.failures_left = 1;
    EXPECT_EQ(get_app_info("zent", nullptr), banner("zent", "Tavrel IGMP agent", "(null)", "f61e0a7b"));
}

TEST(AppInfo, keeps_the_null_of_a_failed_uname)
{
    g_uname.failures_left = 1;
    const std::string first = get_app_info("zent", nullptr);
    EXPECT_EQ(get_app_info("zent", nullptr), first);
    EXPECT_EQ(g_uname.calls, 1);
}

TEST(AppInfo, banner_of_254_characters_is_whole)
{
    const std::string name(254 - bare_length(), 'n');
    EXPECT_EQ(get_app_info(name.c_str(), nullptr), banner(name, "#error#", running_system(), "f61e0a7b"));
}

TEST(AppInfo, kept_of_255_characters_passes_and_loses_its_last_one)
{
    const std::string name(255 - bare_length(), 'n');
    std::string expected = banner(name, "#error#", running_system(), "f61e0a7b");
    ASSERT_EQ(expected.size(), 255U);
    expected.pop_back();
    EXPECT_EQ(get_app_info(name.c_str(), nullptr), expected);
}

TEST(AppInfo, banner_of_256_characters_becomes_the_error_text)
{
    const std::string name(256 - bare_length(), 'n');
    EXPECT_STREQ(get_app_info(name.c_str(), nullptr), "#error#");
}

TEST(AppInfo, banner_of_any_greater_length_becomes_the_error_text_and_stays_it)
{
    const std::string name(5000, 'n');
    EXPECT_STREQ(get_app_info(name.c_str(), nullptr), "#error#");
    EXPECT_STREQ(get_app_info("zent", nullptr), "#error#");
}

TEST(AppTag, tag_is_name_and_version)
{
    EXPECT_STREQ(get_app_tag("zent"), "zent/0.1-6.0 (master)");
}

TEST(AppTag, keeps_the_name_of_the_first_caller)
{
    const char* first = get_app_tag("zent");
    EXPECT_EQ(get_app_tag("other"), first);
    EXPECT_STREQ(first, "zent/0.1-6.0 (master)");
}

TEST(AppTag, has_room_for_127_characters_and_kept_loses_the_last_of_them)
{
    const std::string rest = "/0.1-6.0 (master)";
    const std::string name(127 - rest.size(), 'n');
    EXPECT_EQ(get_app_tag(name.c_str()), (name + rest).substr(0, 126));
}

TEST(AppTag, tag_of_126_characters_is_whole)
{
    const std::string rest = "/0.1-6.0 (master)";
    const std::string name(126 - rest.size(), 'n');
    EXPECT_EQ(get_app_tag(name.c_str()), name + rest);
}

TEST(AppTag, tag_of_128_characters_becomes_the_error_text)
{
    const std::string rest = "/0.1-6.0 (master)";
    const std::string name(128 - rest.size(), 'n');
    EXPECT_STREQ(get_app_tag(name.c_str()), "#error#");
}

TEST(LibraryTag, is_name_version_checksum_and_time_of_the_build)
{
    EXPECT_STREQ(lbmvn_info(), "libmvn/1.0-2.25 (d15a4342) @1557583422");
}

TEST(LibraryTag, is_made_once)
{
    const char* first = lbmvn_info();
    EXPECT_EQ(lbmvn_info(), first);
}

TEST(BuildInfo, is_the_library_tag_and_the_option_model_between_lines)
{
    EXPECT_EQ(build_block(), "----\nlibmvn/1.0-2.25 (d15a4342) @1557583422 [-ggdb3]\n----\n\n");
}

TEST(BuildInfo, does_not_mention_fast_clocks)
{
    EXPECT_EQ(build_block().find("fast-clocks"), std::string::npos);
}
