// The agent's relay lines, as the tests of the binary look for them.
#ifndef TESTS_E2E_RELAY_LINES_H
#define TESTS_E2E_RELAY_LINES_H

#include <string>

namespace support {

inline std::string join_line(const std::string& group)
{
    return "JOIN UDP://" + group + "\n";
}

inline std::string leave_line(const std::string& group)
{
    return "LEAVE UDP://" + group + "\n";
}

// How often a text occurs in another.
inline size_t count(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++n;
    }
    return n;
}

} // namespace support

#endif
