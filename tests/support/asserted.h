// The report of a failed assertion, as the C library prints it.
#ifndef TESTS_SUPPORT_ASSERTED_H
#define TESTS_SUPPORT_ASSERTED_H

#include <string>

namespace support {

// Whether the process ended by an assertion in that function; compilers print its name with or without types.
inline bool asserted_in(const std::string& text, const std::string& function)
{
    const size_t assertion = text.find(": Assertion `0' failed");
    if (assertion == std::string::npos) {
        return false;
    }
    const size_t line = text.rfind('\n', assertion) + 1;
    const std::string place = text.substr(line, assertion - line) + "(";
    const size_t name = place.find(function + "(");
    return name != std::string::npos && name > 0 &&
           std::string(" :*&").find(place[name - 1]) != std::string::npos;
}

} // namespace support

#endif
