// Coverage builds alone: what forked children and daemons run is counted too, up to the assertion that ends
// them. They end by calls that write no counters; the linker sends these here.
extern "C" {
void __gcov_dump(void);
[[noreturn]] void __real__exit(int code);
[[noreturn]] void __wrap__exit(int code);
[[noreturn]] void __real_abort(void);
[[noreturn]] void __wrap_abort(void);
[[noreturn]] void __real___assert_fail(const char* text, const char* file, unsigned line,
                                       const char* function);
[[noreturn]] void __wrap___assert_fail(const char* text, const char* file, unsigned line,
                                       const char* function);

// Tests define it, to end the failures of allocations that they have begun.
[[gnu::weak]] void before_counters_are_written(void);

static void write_counters(void)
{
    if (before_counters_are_written != nullptr) {
        before_counters_are_written();
    }
    __gcov_dump();
}

void __wrap__exit(int code)
{
    write_counters();
    __real__exit(code);
}

void __wrap_abort(void)
{
    write_counters();
    __real_abort();
}

void __wrap___assert_fail(const char* text, const char* file, unsigned line, const char* function)
{
    write_counters();
    __real___assert_fail(text, file, line, function);
}
}
