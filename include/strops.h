/*
 * strops.h: conversions of text: sizes with a unit, line ends, counts of markers, hexadecimal text, and short
 * tags of tracks. No state, no logging, nothing allocated; any thread may call.
 */
#ifndef MORVANE_STROPS_H
#define MORVANE_STROPS_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* MAX_SZLEN: bytes of the longest number in front of a unit, with its terminator. */
enum { MAX_SZLEN = 64 };

/* LLONGMAX64, LLONGMIN64: bounds of a number, as doubles; both round to 2^63. */
#define LLONGMAX64 9223372036854775807.0
#define LLONGMIN64 (-LLONGMAX64 - 1.0)

/*
 * a2size, a2int64: read a number as strtod() does, fraction and blanks included, with an optional unit behind
 * it: "K" or "Kb" (1024), "M" or "Mb" (1048576), "G" or "Gb" (1073741824), in any case. The fraction of the
 * product is cut off. The first letter begins the unit, so there are no exponents, and what follows the
 * digits without being a letter is ignored; no digits at all are 0. pval may be NULL.
 *
 * 0; -2 beyond the range of int64_t (2^63 itself passes and is stored as INT64_MIN); -3 if 64 characters or
 * more stand in front of the unit; -4 if strtod() set errno; -5 for any other unit. On failure *pval stays.
 * REQUIRES: str.
 */
int a2size(const char* str, ssize_t* pval);
int a2int64(const char* str, int64_t* pval);

/* chomp: clears up to two characters at the end of s that are LF or CR, in any order. In object files it is
 * morvane_chomp: libite has a function of that name. */
void chomp(char* s) __asm__("morvane_chomp");

/* quick_vsnprintf: vsnprintf() with the same text and the same result. What holds only plain text, %s, %d,
 * %u, %ld and %lu is put together in a third of its time; args is used up either way. REQUIRES: fmt. */
int quick_vsnprintf(char* buf, size_t len, const char* fmt, va_list args) MV_PRINTF(3, 0);

/* marker_count: how often marker stands in s, without overlap. A marker that ends in ":" counts with the
 * decimal number that follows it directly, or 0 without one; the sum wraps. An empty marker counts 0. */
size_t marker_count(const char* s, const char* marker);

/* hex_to_bin: pairs of hexadecimal digits to at most len bytes at out; returns how many were written. Other
 * characters count as 0, and behind an odd last digit its terminator counts as 16. */
size_t hex_to_bin(const char* str, uint8_t* out, size_t len);

/*
 * bin_to_dhex: bytes as two lower-case digits each, every one followed by delim (NULL: nothing), as many of
 * the blen as have room in the slen bytes at s together with a terminator. Returns how many. The last byte of
 * s is always cleared; where no byte was converted nothing else of s is written. A slen of 0 writes nothing.
 */
size_t bin_to_dhex(const uint8_t* bin, size_t blen, char* s, size_t slen, const char* delim);

/* bin_to_hex: bin_to_dhex without a delimiter. */
#define bin_to_hex(b, l, s, n) bin_to_dhex((b), (l), (s), (n), NULL)

/* mk_trk_tag: the next tag of a counter: *count goes on by one, from max back to 1, and *tag becomes pfx and
 * that number. REQUIRES: a number of at most five digits. */
void mk_trk_tag(size_t* count, union n64_tag* tag, char pfx, size_t max);

MV_END_DECLS

#endif
