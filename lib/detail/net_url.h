// Network URLs taken apart, for the two modules that open them and ask for them. Defined in webops.cpp.
#ifndef MORVANE_DETAIL_NET_URL_H
#define MORVANE_DETAIL_NET_URL_H

#include <cstddef>
#include <netdb.h>

#include "uri.h"

namespace mv {

// The segments of a URL, and the address and port in its path. Absent ones stay empty.
struct UrlParts {
    char authority[URI_AUTH_MAX] = {};
    char path[URI_PATH_MAX] = {};
    char query[URI_QUERY_MAX] = {};
    char addr[NI_MAXHOST] = {};
    char port[NI_MAXSERV] = {};

    // Fills address and port from the path. What stands behind them, or NULL without an address.
    const char* divide_path()
    {
        return uri_path_addrport(path, sizeof path, addr, sizeof addr, port, sizeof port);
    }
};

// Path, query, address and port of a URL that is to be asked for. The path behind the address, or NULL
// (logged): the text is no URL or has no address.
const char* take_apart(const char* caller, const char* uri, UrlParts& url) __asm__("mv_take_apart");

// The tail with the query behind a question mark, made in the size bytes of room; the tail itself without a
// query. Kept: what is longer than size - 1 is cut to size - 2 characters, and warned of if it is longer by
// more than one.
const char* with_query(const char* caller, const char* tail, const char* query, char* room,
                       size_t size) __asm__("mv_with_query");

// The one source whose packets an inbound URL of UDP or RTP wants, by its authority; NULL for any.
const char* wanted_source(const char* caller, const char* authority,
                          bool is_inbound) __asm__("mv_wanted_source");

} // namespace mv

#endif
