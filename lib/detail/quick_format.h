// vsnprintf without libc for the messages that are made of little: plain text, %s, %d, %u, %ld and %lu.
#ifndef MORVANE_DETAIL_QUICK_FORMAT_H
#define MORVANE_DETAIL_QUICK_FORMAT_H

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "mvtypes.h"

namespace mv {

// A message in the making: the place of the next byte and the room behind it.
struct QuickText {
    char* at;
    size_t room;

    // One byte stays free for the terminator, as it would behind vsnprintf: both refuse the same messages.
    bool put(const char* bytes, size_t count)
    {
        if (count >= room) {
            return false;
        }
        memcpy(at, bytes, count);
        at += count;
        room -= count;
        return true;
    }

    bool put_number(unsigned long magnitude, bool is_negative)
    {
        char digits[24]; // 20 for 64 bits, and a sign
        char* const end = std::end(digits);
        char* first = end;
        do {
            *--first = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude != 0);
        if (is_negative) {
            *--first = '-';
        }
        return put(first, static_cast<size_t>(end - first));
    }

    bool put_signed(long number)
    {
        // Negated without a sign: the least long has no positive counterpart.
        const auto bits = static_cast<unsigned long>(number);
        return put_number(number < 0 ? 0 - bits : bits, number < 0);
    }

    bool put_string(const char* string)
    {
        return string != nullptr ? put(string, strnlen(string, room)) : put("(null)", 6);
    }
};

// What most messages are made of. Length of the text, which gets its terminator, or -1 if fmt holds something
// else or the text does not fit. To be added to only where the result is the same to the byte: no widths, no
// precisions, no locale.
MV_PRINTF(3, 0) inline int put_plain(char* buf, size_t room, const char* fmt, va_list args)
{
    if (room > INT_MAX) {
        return -1; // a length might not fit in the result, which vsnprintf tells
    }
    QuickText text{buf, room};
    for (;;) {
        const char* mark = strchrnul(fmt, '%');
        bool good = text.put(fmt, static_cast<size_t>(mark - fmt));
        if (*mark == 0) {
            if (good) {
                *text.at = 0;
            }
            return good ? static_cast<int>(text.at - buf) : -1;
        }
        const bool is_long = mark[1] == 'l';
        fmt = mark + (is_long ? 2 : 1);
        switch (*fmt++) {
        case 's': good = good && !is_long && text.put_string(va_arg(args, const char*)); break;
        case 'd': good = good && text.put_signed(is_long ? va_arg(args, long) : va_arg(args, int)); break;
        case 'u':
            good = good &&
                   text.put_number(is_long ? va_arg(args, unsigned long) : va_arg(args, unsigned), false);
            break;
        default: good = false; break;
        }
        if (!good) {
            return -1;
        }
    }
}

// What put_plain cannot make, vsnprintf makes or refuses, in three times the time.
MV_PRINTF(3, 0) inline int quick_format(char* buf, size_t room, const char* fmt, va_list args)
{
    // A copy: where put_plain gives up in the middle it has used a part of args.
    va_list again;
    va_copy(again, args);
    int n = put_plain(buf, room, fmt, args);
    if (n < 0) {
        n = vsnprintf(buf, room, fmt, again);
    }
    va_end(again);
    return n;
}

} // namespace mv

#endif
