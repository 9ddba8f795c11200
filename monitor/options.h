// The words of the command line and of the file of --config.
#ifndef ZENTMON_OPTIONS_H
#define ZENTMON_OPTIONS_H

#include <stdexcept>
#include <string>
#include <vector>

#include "config.h"

namespace zentmon {

extern const char* const kVersion;

// Exit codes, those of sysexits.h.
enum { kExitUsage = 64, kExitNoAddress = 69, kExitSystem = 71, kExitNoRight = 77 };

// What is wrong with an option; what() is a whole sentence, with file and line where it comes from a file.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Command {
    enum Kind { run, help, version };

    Kind kind = run;
    Config config;
};

// Reads the arguments behind the program's name, and the file that they name. What stands on the command line
// comes after the file: it wins where a word has one value, and is added where it has several. Throws
// UsageError.
Command read_options(const std::vector<std::string>& arguments);

// "ADDRESS:PORT", "[ADDRESS]:PORT" or "PORT" (on 127.0.0.1). Throws UsageError.
Endpoint parse_endpoint(const std::string& text);

// "ADDRESS" or "ADDRESS/BITS". Throws UsageError.
Cidr parse_cidr(const std::string& text);

// "127.0.0.1:4554", "[::1]:4554" of a socket address with its port.
std::string endpoint_text(const struct sockaddr_storage& ss);

// The text of --help.
std::string help_text();

} // namespace zentmon

#endif
