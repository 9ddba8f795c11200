// Allocation failure on demand: malloc, calloc and realloc of the linked static library and of the test
// itself.
#ifndef TESTS_SUPPORT_OOM_H
#define TESTS_SUPPORT_OOM_H

#include <cstddef>

namespace support {

// While it lives, the n-th allocation from now (counted from 1) fails with ENOMEM, and only that one; with
// forever, all from the n-th on. operator new is not concerned.
class FailAllocation {
  public:
    explicit FailAllocation(size_t n, bool forever = false);
    FailAllocation(const FailAllocation&) = delete;
    FailAllocation& operator=(const FailAllocation&) = delete;
    ~FailAllocation();

    // Whether the failure has happened.
    bool happened() const;
};

// Allocations of the linked code since the start of the process.
size_t allocation_count();

} // namespace support

#endif
