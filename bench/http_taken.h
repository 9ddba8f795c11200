// What the peers of the HTTP benchmarks take out of a request's head: where its query begins, and terminated
// copies of host and agent. The header of http_parser and that of llhttp cannot meet in one source.
#ifndef MORVANE_BENCH_HTTP_TAKEN_H
#define MORVANE_BENCH_HTTP_TAKEN_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <strings.h>

#include "webops.h"

struct Taken {
    const char* query;
    char host[MAX_HOST_LEN];
    char agent[MAX_UAG_LEN];

    void target(const char* text, size_t length)
    {
        query = static_cast<const char*>(memchr(text, '?', length));
    }

    void field(const char* name, size_t name_len, const char* value, size_t value_len)
    {
        if (name_len == 4 && strncasecmp(name, "Host", 4) == 0) {
            copy(host, value, value_len);
        } else if (name_len == 10 && strncasecmp(name, "User-Agent", 10) == 0) {
            copy(agent, value, value_len);
        }
    }

  private:
    template <size_t size>
    static void copy(char (&dest)[size], const char* value, size_t length)
    {
        length = std::min(length, size - 1);
        memcpy(dest, value, length);
        dest[length] = '\0';
    }
};

// A head read by llhttp. Whether it was a whole one.
bool take_by_llhttp(const char* text, size_t length, Taken& taken);

#endif
