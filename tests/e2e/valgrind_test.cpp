// A short run of the agent under valgrind: no invalid access, no leak, no descriptor that is forgotten.
#include "daemon.h"
#include "match.h"

using namespace support;

class Valgrind : public DaemonTest {
  protected:
    void SetUp() override
    {
#ifdef __SANITIZE_ADDRESS__
        GTEST_SKIP() << "skipped: valgrind cannot run a program with AddressSanitizer";
#endif
        if (run_program({"sh", "-c", "command -v valgrind"}).exit_code != 0) {
            GTEST_SKIP() << "skipped: valgrind is not installed";
        }
        if (run_program({"valgrind", zent_path()}).err.find("unhandled dwarf2") != std::string::npos) {
            GTEST_SKIP() << "skipped: this valgrind cannot read the debug information of this compiler";
        }
        DaemonTest::SetUp();
    }

    // Files and sockets that were opened by the program and never closed.
    static std::vector<std::string> left_open(const std::string& report)
    {
        std::vector<std::string> result;
        for (const Match& match :
             search_all(report, "Open (file descriptor|AF_[A-Z0-9]+ socket) [0-9]+: *([^\n]*)\n"
                                "==[0-9]+== +([^\n]*)")) {
            if (match[3] != "<inherited from parent>") {
                result.push_back(match[2]);
            }
        }
        return result;
    }

    void expect_clean() const
    {
        const std::string report = read_file(path("valgrind"));
        EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
        // The log stays open to the end of the process; nothing else does.
        EXPECT_EQ(left_open(report), std::vector<std::string>{path("log")}) << report;
    }

    Process start_under_valgrind(const std::vector<std::string>& args) const
    {
        std::vector<std::string> argv{"valgrind",
                                      "--track-fds=yes",
                                      "--leak-check=full",
                                      "--errors-for-leak-kinds=definite,possible",
                                      "--error-exitcode=99",
                                      "--log-file=" + path("valgrind"),
                                      binary()};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv);
    }
};

TEST_F(Valgrind, finds_nothing_in_a_run_with_a_join_and_a_leave)
{
    write_file(path("list"), "239.1.2.3\n");
    Process zent =
        start_under_valgrind({"-T", "-i", "va", "-l", path("log"), "-L", "debug", "-F", path("list")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_TRUE(zent.wait_for_out("JOIN UDP://239.1.2.3\n"));
    host.leave("239.1.2.3");
    EXPECT_TRUE(zent.wait_for_out("LEAVE UDP://239.1.2.3\n"));
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
    expect_clean();
}

TEST_F(Valgrind, finds_nothing_in_a_run_with_a_relay)
{
    Process zent = start_under_valgrind({"-T", "-i", "va", "-l", path("log"), "-R", "127.0.0.1:4554"});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
    expect_clean();
}
