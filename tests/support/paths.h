// Where the tree that is tested lies. The one object file that knows it is made by CMake: no compile line of
// a test holds a path, so a compiler cache serves all checkouts.
#ifndef TESTS_SUPPORT_PATHS_H
#define TESTS_SUPPORT_PATHS_H

#include <string>

namespace support {

// A file of the source tree, for instance "man/zent.8".
std::string source_path(const std::string& name);

// A file of the build tree, for instance "CMakeCache.txt"; without a name the tree itself.
std::string build_path(const std::string& name = "");

// The agent's binary: the one that the environment variable ZENT names, else that of this build.
std::string zent_path();

} // namespace support

#endif
