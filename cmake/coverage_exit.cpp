// Coverage builds alone: what forked children and daemons run is counted too. They end by _exit(), which
// writes no counters; the linker sends it here.
extern "C" {
void __gcov_dump(void);
[[noreturn]] void __real__exit(int code);
[[noreturn]] void __wrap__exit(int code);

void __wrap__exit(int code)
{
    __gcov_dump();
    __real__exit(code);
}
}
