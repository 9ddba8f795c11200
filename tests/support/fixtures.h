// What a test of calls that open descriptors and write lines begins with.
#ifndef TESTS_SUPPORT_FIXTURES_H
#define TESTS_SUPPORT_FIXTURES_H

#include <gtest/gtest.h>

#include "fds.h"
#include "logcap.h"

namespace support {

// No descriptor is left over, and what is logged is in log (at level norm unless the test sets another).
class GuardedTest : public testing::Test {
  private:
    FdGuard guard_; // looks last, when all else of the test is gone

  protected:
    LogCapture log;
};

} // namespace support

#endif
