// Extended regular expressions of POSIX: those of the C library cost nothing to compile, the ones of <regex>
// do.
#ifndef TESTS_SUPPORT_MATCH_H
#define TESTS_SUPPORT_MATCH_H

#include <regex.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace support {

// A match: its whole text, then its groups.
using Match = std::vector<std::string>;

// The matches of a pattern in a text, one behind the other, at most so many of them.
inline std::vector<Match> search_all(const std::string& text, const std::string& pattern,
                                     size_t limit = SIZE_MAX)
{
    std::vector<Match> found;
    regex_t compiled;
    if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED) != 0) {
        ADD_FAILURE() << "not a regular expression: " << pattern;
        return found;
    }
    std::vector<regmatch_t> places(compiled.re_nsub + 1);
    const char* from = text.c_str();
    while (found.size() < limit && regexec(&compiled, from, places.size(), places.data(),
                                           from == text.c_str() ? 0 : REG_NOTBOL) == 0) {
        Match& match = found.emplace_back();
        for (const regmatch_t& place : places) {
            match.emplace_back(from + (place.rm_so < 0 ? 0 : place.rm_so),
                               from + (place.rm_so < 0 ? 0 : place.rm_eo));
        }
        if (places[0].rm_eo == 0) {
            break; // an empty match would be found again and again
        }
        from += places[0].rm_eo;
    }
    regfree(&compiled);
    return found;
}

// The first of them, empty if there is none.
inline Match search(const std::string& text, const std::string& pattern)
{
    const std::vector<Match> found = search_all(text, pattern, 1);
    return found.empty() ? Match{} : found.front();
}

// Whether the whole text matches.
inline bool matches(const std::string& text, const std::string& pattern)
{
    return !search(text, "^(" + pattern + ")$").empty();
}

} // namespace support

#endif
