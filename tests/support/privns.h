// Private process and mount namespaces: what a test starts, mounts or leaves running ends with the test.
#ifndef TESTS_SUPPORT_PRIVNS_H
#define TESTS_SUPPORT_PRIVNS_H

#include <string>

namespace support {

// Moves the rest of this program into process and mount namespaces of its own, with a /proc that shows them.
// The program goes on in a forked child that is the parent of all orphans (a daemon's end can be waited for);
// the caller's process only waits for it and ends as it ends. When either is killed, the kernel ends every
// process of the namespace. Once a program; later calls change nothing. Empty, or why it cannot be had here.
std::string enter_private_namespaces();

// Replaces /dev by a small one of our own, with nothing but null, zero, full, random, urandom and tty in it.
// After enter_private_namespaces() nobody else sees it. dir is a place to build it in.
void make_private_dev(const std::string& dir);

} // namespace support

#endif
