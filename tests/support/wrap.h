// WRAPPED declares a call that the linker sends to a test: for WRAPPED(int, close, (int fd)) the test defines
// __wrap_close, which the code under test then calls in place of close, and may call __real_close itself.
#ifndef TESTS_SUPPORT_WRAP_H
#define TESTS_SUPPORT_WRAP_H

// One call a line, at the line's start, its name on that line: CMake reads these lines (of a source, and of
// the test headers it includes) and tells the linker. Any macro whose name begins with WRAPPED is read so.
#define WRAPPED(type, name, parameters)                                                                      \
    extern "C" type __real_##name parameters;                                                                \
    extern "C" type __wrap_##name parameters

// The same for a call that the code under test must not make.
#define WRAPPED_UNCALLED(type, name, parameters) WRAPPED(type, name, parameters)

#endif
