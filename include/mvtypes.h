/*
 * mvtypes.h: the small types and macros that every header of the library shares: declaration brackets for
 * C and C++, the format attribute, and the tag unions. It keeps no state.
 */
#ifndef MORVANE_MVTYPES_H
#define MORVANE_MVTYPES_H

#include <stdint.h>

/*
 * MV_BEGIN_DECLS, MV_END_DECLS: stand around the declarations of a header. They give them C linkage and make
 * them visible outside the shared library, which hides everything else.
 */
#ifdef __cplusplus
#define MV_BEGIN_DECLS                                                                                       \
    _Pragma("GCC visibility push(default)") extern "C"                                                       \
    {
#define MV_END_DECLS                                                                                         \
    }                                                                                                        \
    _Pragma("GCC visibility pop")
#else
#define MV_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define MV_END_DECLS _Pragma("GCC visibility pop")
#endif

/* MV_PRINTF: argument fmt is a printf format for the arguments from number first on (counted from 1; 0: a
 * va_list). */
#define MV_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))

/* n32_tag: a short text of up to four characters that compares as one number. No byte order: it never leaves
 * the host. */
union n32_tag {
    char sym[4];
    int32_t num;
};

/* n64_tag: the same with up to seven characters and a terminator. */
union n64_tag {
    char sym8[8];
    uint64_t num64;
};

#endif
