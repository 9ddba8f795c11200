// A program one of whose calls fails: tests/faults/faults.c stands in front of its libraries.
#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include <string>
#include <vector>

#include "paths.h"

namespace support {

struct Fault {
    std::string kind; // of call, as faults.c names it
    int nth;          // from 1
    int code;         // errno
    bool for_good = false;
};

// The command that starts it. Its test depends on zent_faults (CMakeLists.txt).
inline std::vector<std::string> with_fault(const Fault& fault, const std::vector<std::string>& argv)
{
    std::vector<std::string> command = {"env",
                                        "LD_PRELOAD=" + build_path("tests/faults/libzent_faults.so"),
                                        "ASAN_OPTIONS=verify_asan_link_order=0",
                                        "LSAN_OPTIONS=suppressions=" + source_path("tests/faults/leaks.txt"),
                                        "FAULTS_KIND=" + fault.kind,
                                        "FAULTS_NTH=" + std::to_string(fault.nth),
                                        "FAULTS_CODE=" + std::to_string(fault.code)};
    if (fault.for_good) {
        command.emplace_back("FAULTS_ON=1");
    }
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

} // namespace support

#endif
