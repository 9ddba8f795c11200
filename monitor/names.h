// Names of agents, listeners and instances: what is allowed, and how an agent gets one of its own.
#ifndef ZENTMON_NAMES_H
#define ZENTMON_NAMES_H

#include <functional>
#include <string>

namespace zentmon {

// Whether a text is [A-Za-z0-9._:-]{1,64}.
bool is_name(const std::string& text);

// A name out of any text: what is not allowed in one becomes "-", and what is too long is cut.
std::string as_name(const std::string& text);

// The base name, or where that is taken the base name with "-LISTENER", and where that is taken too with a
// number behind it.
std::string free_name(const std::string& base, const std::string& listener,
                      const std::function<bool(const std::string&)>& taken);

} // namespace zentmon

#endif
