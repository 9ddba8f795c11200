// The linker sends calls of malloc, calloc and realloc here (--wrap).
#include "oom.h"

#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "wrap.h"

namespace {
size_t g_count = 0;
size_t g_fail_at = 0;
bool g_forever = false;
bool g_happened = false;

bool must_fail()
{
    ++g_count;
    if (g_fail_at == 0 || g_count < g_fail_at || (g_count > g_fail_at && !g_forever)) {
        return false;
    }
    g_happened = true;
    errno = ENOMEM;
    return true;
}

// What the C library gives beyond the bytes asked for is no zero: who reads there is seen without a sanitizer
// too.
void* with_marked_end(void* block, size_t size)
{
    if (block != nullptr) {
        memset(static_cast<char*>(block) + size, 0xd5, malloc_usable_size(block) - size);
    }
    return block;
}
} // namespace

WRAPPED(void*, malloc, (size_t size));
WRAPPED(void*, calloc, (size_t n, size_t size));
WRAPPED(void*, realloc, (void* block, size_t size));

extern "C" {
void* __wrap_malloc(size_t size)
{
    return must_fail() ? nullptr : with_marked_end(__real_malloc(size), size);
}

void* __wrap_calloc(size_t n, size_t size)
{
    return must_fail() ? nullptr : with_marked_end(__real_calloc(n, size), n * size);
}

void* __wrap_realloc(void* block, size_t size)
{
    return must_fail() ? nullptr : with_marked_end(__real_realloc(block, size), size);
}

// cmake/coverage_exit.cpp asks for it: a process that ends has memory for its counters.
void before_counters_are_written(void)
{
    g_fail_at = 0;
}
}

namespace support {

FailAllocation::FailAllocation(size_t n, bool forever)
{
    g_happened = false;
    g_forever = forever;
    g_fail_at = g_count + n;
}

FailAllocation::~FailAllocation()
{
    g_fail_at = 0;
}

bool FailAllocation::happened() const
{
    return g_happened;
}

size_t allocation_count()
{
    return g_count;
}

} // namespace support
