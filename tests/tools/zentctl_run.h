// Runs of the zentctl binary under test.
#ifndef TESTS_TOOLS_ZENTCTL_RUN_H
#define TESTS_TOOLS_ZENTCTL_RUN_H

#include <string>
#include <vector>

#include "child.h"
#include "paths.h"

namespace support {

// The binary of this build, or the one that the environment variable ZENTCTL names.
inline std::string zentctl_path()
{
    const char* path = getenv("ZENTCTL");
    return path != nullptr ? path : build_path("tools/zentctl");
}

inline std::vector<std::string> zentctl_command(std::vector<std::string> args)
{
    args.insert(args.begin(), zentctl_path());
    return args;
}

inline ChildResult run_zentctl(const std::vector<std::string>& args)
{
    return run_program(zentctl_command(args));
}

// Whether the JSON object in a text has a finding of this level and code.
inline bool has_finding(const std::string& text, const std::string& level, const std::string& code)
{
    return text.find(R"({"level":")" + level + R"(","code":")" + code + '"') != std::string::npos;
}

} // namespace support

#endif
