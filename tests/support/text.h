// Texts as tests compare them.
#ifndef TESTS_SUPPORT_TEXT_H
#define TESTS_SUPPORT_TEXT_H

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "mvtypes.h"

namespace support {

using Lines = std::vector<std::string>;

// The text that printf would write.
MV_PRINTF(1, 2) inline std::string format(const char* fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

} // namespace support

#endif
