// Names.
#include "names.h"

#include <cstring>

namespace zentmon {

namespace {

constexpr size_t kLongest = 64;

bool is_allowed(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           (c != 0 && strchr("._:-", c) != nullptr);
}

// The base, cut so that the ending fits.
std::string with_ending(const std::string& base, const std::string& ending)
{
    const std::string end = ending.substr(0, kLongest / 2);
    return base.substr(0, kLongest - end.size()) + end;
}

} // namespace

bool is_name(const std::string& text)
{
    return !text.empty() && text == as_name(text);
}

std::string as_name(const std::string& text)
{
    std::string name = text.substr(0, kLongest);
    for (char& c : name) {
        if (!is_allowed(c)) {
            c = '-';
        }
    }
    return name.empty() ? "-" : name;
}

std::string free_name(const std::string& base, const std::string& listener,
                      const std::function<bool(const std::string&)>& taken)
{
    if (!taken(base)) {
        return base;
    }
    const std::string longer = with_ending(base, "-" + listener);
    std::string name = longer;
    for (int number = 2; taken(name); ++number) {
        name = with_ending(longer, "-" + std::to_string(number));
    }
    return name;
}

} // namespace zentmon
