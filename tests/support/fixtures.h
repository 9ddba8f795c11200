// What a test of calls that open descriptors and write lines begins with.
#ifndef TESTS_SUPPORT_FIXTURES_H
#define TESTS_SUPPORT_FIXTURES_H

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "fds.h"
#include "logcap.h"
#include "netns.h"

namespace support {

// No descriptor is left over, and what is logged is in log (at level norm unless the test sets another).
class GuardedTest : public testing::Test {
  private:
    FdGuard guard_; // looks last, when all else of the test is gone

  protected:
    LogCapture log;
};

// The same beside a segment: two namespaces with a veth pair. A test says that it NEEDS_SEGMENT(), or the
// SetUp of its fixture does.
class SegmentTest : public GuardedTest {
  protected:
    const NetnsPair& segment() const { return *pair_; }

    // Empty, or why there is none.
    std::string make_segment()
    {
        std::string missing = netns_missing();
        if (missing.empty()) {
            pair_.emplace();
        }
        return missing;
    }

  private:
    std::optional<NetnsPair> pair_;
};

} // namespace support

#define NEEDS_SEGMENT()                                                                                      \
    if (const std::string missing = make_segment(); !missing.empty())                                        \
    GTEST_SKIP() << "skipped: " << missing

#endif
