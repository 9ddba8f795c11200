// Whether a whole text matches an extended regular expression.
#ifndef TESTS_SUPPORT_MATCH_H
#define TESTS_SUPPORT_MATCH_H

#include <regex.h>
#include <string>

namespace support {

inline bool matches(const std::string& text, const std::string& pattern)
{
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        return false;
    }
    const bool same = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return same;
}

} // namespace support

#endif
