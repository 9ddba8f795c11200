// What most files of zentctl include, compiled once for all of them. Each file still includes what it uses.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>
