// What `cmake --install` puts in place, and that others can build on it.
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include "daemon.h"
#include "paths.h"

using namespace support;

namespace {

namespace fs = std::filesystem;

// A variable of the build's cache.
std::string cached(const std::string& name)
{
    std::ifstream file(build_path("CMakeCache.txt"));
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + ":")) {
            return line.substr(line.find('=') + 1);
        }
    }
    return "";
}

// A program in C that owes the library its flags and uses a table, the log and the version.
constexpr const char* kConsumer = R"(#include <morvane/gkh.h>
#include <morvane/libmeta.h>
#include <morvane/log.h>

DECLARE_MLL(MLL_COMMON);
volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;

int main(void)
{
    nkht_t table = 0;
    glog_init("consumer");
    log_default(&g_log, stdout);
    log_timefmt(&g_log, f_NO_TIME);
    if (nkht_create(&table, 16, tw_shift) != 0) {
        return 1;
    }
    log_norm("%s\n", lbmvn_info());
    nkht_destroy(table, NULL);
    return 0;
}
)";
constexpr const char* kConsumerSays = "(NRM)  libmvn/1.0-2.25 (d15a4342) @1557583422\n";

} // namespace

class Install : public testing::Test {
  protected:
    // Installs the build under a directory of the test's own, as a package is made.
    void SetUp() override
    {
        const std::vector<std::string> command{"env", "DESTDIR=" + root_.path(), "cmake", "--install",
                                               build_path()};
        const ChildResult result = run_program(command);
        ASSERT_EQ(result.exit_code, 0) << result.out << result.err;
        prefix_ = root_.path() + cached("CMAKE_INSTALL_PREFIX");
        for (const fs::path& path : fs::recursive_directory_iterator(prefix_)) {
            if (path.extension() == ".pc") {
                libdir_ = path.parent_path().parent_path();
            }
        }
        ASSERT_FALSE(libdir_.empty());
        ASSERT_TRUE(fs::create_directory(work_ = root_.path("work")));
    }

    void expect_file(const std::string& name) const
    {
        EXPECT_TRUE(fs::is_regular_file(prefix_ / name)) << prefix_ / name;
    }

    static void must_do(const std::vector<std::string>& command)
    {
        const ChildResult result = run_program(command);
        ASSERT_EQ(result.exit_code, 0) << command[0] << ":\n" << result.out << result.err;
    }

    // Where a folder is that the build names by a variable: below the prefix, or an own one such as /etc.
    fs::path folder(const std::string& variable) const
    {
        const fs::path named = cached(variable);
        return named.is_absolute() ? fs::path(root_.path() + named.string()) : prefix_ / named;
    }

    // Flags that a program needs to meet a library with sanitizers, or one that counts its lines.
    static std::string instrument_flags()
    {
        const std::string kinds = cached("MORVANE_SANITIZE");
        if (cached("MORVANE_COVERAGE") == "ON") {
            return "--coverage";
        }
        return kinds.empty() ? "" : "-fsanitize=" + kinds;
    }

    void expect_runs(const fs::path& program) const
    {
        const ChildResult result = run_program({"env", "LD_LIBRARY_PATH=" + libdir_.string(), program});
        EXPECT_EQ(result.exit_code, 0) << result.err;
        EXPECT_EQ(result.out, kConsumerSays);
    }

    TempDir root_;
    fs::path prefix_;
    fs::path libdir_;
    fs::path work_;
};

TEST(Build, goes_without_tests_where_googletest_is_missing)
{
    const support::TempDir dir;
    const ChildResult result = run_program({"cmake", "-S", source_path(""), "-B", dir.path("build"), "-G",
                                            "Ninja", "-Wno-dev", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.err.find("GoogleTest is not installed (libgtest-dev): the tests are left out."),
              std::string::npos)
        << result.err;
    EXPECT_EQ(read_file(dir.path("build/build.ninja")).find("install_test"), std::string::npos);
}

TEST_F(Install, has_the_agent_its_page_its_unit_and_its_logrotate_settings)
{
    expect_file("sbin/zent");
    expect_file("share/man/man8/zent.8");
    expect_file(folder("MORVANE_UNITDIR") / "zent@.service");
    expect_file(folder("CMAKE_INSTALL_SYSCONFDIR") / "logrotate.d/zent");
    expect_file(folder("CMAKE_INSTALL_SYSCONFDIR") / "apparmor.d/usr.sbin.zent");
    expect_file("lib/sysusers.d/zent.conf");
    expect_file("lib/tmpfiles.d/zent.conf");
    expect_file("share/doc/morvane/examples/zent.env");
}

TEST_F(Install, has_the_library_in_both_forms_and_what_others_need_to_find_it)
{
    EXPECT_TRUE(fs::is_regular_file(libdir_ / "libmorvane.a"));
    EXPECT_TRUE(fs::is_symlink(libdir_ / "libmorvane.so"));
    EXPECT_TRUE(fs::is_symlink(libdir_ / "libmorvane.so.1"));
    EXPECT_TRUE(fs::is_regular_file(libdir_ / "libmorvane.so"));
    EXPECT_TRUE(fs::is_regular_file(libdir_ / "pkgconfig/libmorvane.pc"));
    EXPECT_TRUE(fs::is_regular_file(libdir_ / "cmake/morvane/morvane-config.cmake"));
    EXPECT_TRUE(fs::is_regular_file(libdir_ / "cmake/morvane/morvane-config-version.cmake"));
    EXPECT_TRUE(fs::is_regular_file(libdir_ / "cmake/morvane/morvane-targets.cmake"));
}

TEST_F(Install, has_every_header_and_none_that_is_private)
{
    size_t count = 0;
    for (const auto& header : fs::directory_iterator(source_path("include"))) {
        expect_file("include/morvane/" + header.path().filename().string());
        ++count;
    }
    const fs::directory_iterator installed(prefix_ / "include/morvane");
    EXPECT_EQ(static_cast<size_t>(std::distance(begin(installed), end(installed))), count);
    EXPECT_GE(count, 20U);
}

TEST_F(Install, has_the_binary_that_was_built_for_everybody_to_run)
{
    EXPECT_EQ(read_file(prefix_ / "sbin/zent"), read_file(build_path("zent")));
    struct stat st = {};
    ASSERT_EQ(stat((prefix_ / "sbin/zent").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 0755U);
    EXPECT_EQ(run_program({prefix_ / "sbin/zent"}).exit_code, 1);
}

TEST_F(Install, a_cmake_project_in_c_finds_the_package_and_links_either_form)
{
    std::ofstream(work_ / "main.c") << kConsumer;
    std::ofstream(work_ / "CMakeLists.txt")
        << "cmake_minimum_required(VERSION 3.25)\n"
           "project(consumer LANGUAGES C)\n"
           "find_package(morvane 1.0 REQUIRED)\n"
           "foreach(form shared static morvane)\n"
           "  add_executable(with_${form} main.c)\n"
           "  target_link_libraries(with_${form} PRIVATE morvane::${form})\n"
           "endforeach()\n";
    const fs::path build = work_ / "build";
    must_do({"cmake", "-S", work_, "-B", build, "-G", "Ninja", "-DCMAKE_PREFIX_PATH=" + prefix_.string(),
             "-DCMAKE_C_COMPILER=" + cached("CMAKE_C_COMPILER"), "-DCMAKE_C_FLAGS=" + instrument_flags()});
    must_do({"cmake", "--build", build});
    expect_runs(build / "with_shared");
    expect_runs(build / "with_static");
    expect_runs(build / "with_morvane");
}

TEST_F(Install, pkg_config_gives_the_flags_of_the_library)
{
    std::ofstream(work_ / "main.c") << kConsumer;
    const fs::path program = work_ / "program";
    const std::string pkg_config = "PKG_CONFIG_LIBDIR=" + (libdir_ / "pkgconfig").string() +
                                   " PKG_CONFIG_SYSROOT_DIR=" + root_.path() +
                                   " pkg-config --cflags --libs libmorvane";
    must_do({"sh", "-c",
             "cc -std=gnu11 -Wall -Werror " + instrument_flags() + " " + (work_ / "main.c").string() +
                 " -o " + program.string() + " $(" + pkg_config + ")"});
    expect_runs(program);
}

// cmake --install --prefix, then the tree goes elsewhere. What has a place of its own, such as /etc, is not
// part of it.
TEST_F(Install, a_tree_works_from_the_prefix_that_it_was_put_under_and_from_where_it_is_moved_to)
{
    const fs::path moved = root_.path("moved");
    must_do({"env", "DESTDIR=" + root_.path(), "cmake", "--install", support::build_path(), "--prefix",
             "/first"});
    fs::rename(root_.path("first"), moved);
    EXPECT_EQ(run_program({moved / "sbin/zent"}).exit_code, 1); // the usage
    EXPECT_TRUE(fs::is_regular_file(moved / "lib/sysusers.d/zent.conf"));
    const fs::path libdir = moved / fs::relative(libdir_, prefix_);
    std::ofstream(work_ / "main.c") << kConsumer;
    must_do({"sh", "-c",
             "cc -std=gnu11 -Wall -Werror " + instrument_flags() + " " + (work_ / "main.c").string() +
                 " -o " + (work_ / "program").string() + " $(PKG_CONFIG_LIBDIR=" +
                 (libdir / "pkgconfig").string() + " pkg-config --cflags --libs libmorvane)"});
    libdir_ = libdir;
    expect_runs(work_ / "program");
}

// All of them, as a reader on a bare machine copies the folder and types make: with nothing of this build in
// the environment, without a compiler cache, and from what is installed alone.
TEST_F(Install, the_examples_build_by_make_where_they_lie)
{
    if (!instrument_flags().empty()) {
        GTEST_SKIP() << "the release build's test builds them";
    }
    const fs::path examples = work_ / "examples";
    fs::copy(prefix_ / "share/doc/morvane/examples", examples, fs::copy_options::recursive);
    const std::string pkg_config = "PKG_CONFIG=env PKG_CONFIG_LIBDIR=" + (libdir_ / "pkgconfig").string() +
                                   " PKG_CONFIG_SYSROOT_DIR=" + root_.path() + " pkg-config";
    const ChildResult made = run_program({"env", "-i", "PATH=/usr/bin:/bin", "make", "-C", examples,
                                          pkg_config, "CFLAGS=-O0 -g", "CXXFLAGS=-O0 -g"});
    ASSERT_EQ(made.exit_code, 0) << made.out << made.err;
    for (const std::string& of_the_build : {source_path(""), build_path(""), std::string("ccache")}) {
        EXPECT_EQ(made.out.find(of_the_build), std::string::npos) << made.out;
    }
    for (const auto& source : fs::directory_iterator(source_path("examples"))) {
        if (source.path().extension() != ".c" && source.path().extension() != ".cpp") {
            continue;
        }
        const fs::path program = examples / source.path().stem();
        ASSERT_TRUE(fs::is_regular_file(program)) << source.path();
        // Its debug information and its paths for the loader tell where it was made from.
        const std::string bytes = read_file(program);
        EXPECT_EQ(bytes.find(source_path("")), std::string::npos) << program;
        EXPECT_EQ(bytes.find(build_path("")), std::string::npos) << program;
        const ChildResult loads =
            run_program({"env", "-i", "LD_LIBRARY_PATH=" + libdir_.string(), "/usr/bin/ldd", program});
        EXPECT_NE(loads.out.find("=> " + (libdir_ / "libmorvane.so.1").string()), std::string::npos)
            << loads.out;
    }
}
