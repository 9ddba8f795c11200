// The segments of a URL text of known length: what uri_parse does, for texts that stand inside a larger one.
#ifndef MORVANE_DETAIL_URI_TEXT_H
#define MORVANE_DETAIL_URI_TEXT_H

#include <cstddef>
#include <cstring>
#include <string_view>

#include "uri.h"

namespace mv {

// The length of the text in front of the query mark. Kept: a text that ends in '/' has no query.
inline size_t till_query(std::string_view text)
{
    if (text.empty() || text.back() == '/') {
        return text.size();
    }
    const void* mark = memrchr(text.data(), '?', text.size());
    return mark == nullptr ? text.size() : static_cast<size_t>(static_cast<const char*>(mark) - text.data());
}

// The length of the scheme in front of "://". Kept: a single letter is no scheme.
inline size_t scheme_length(std::string_view text)
{
    const size_t colon = text.find(':');
    // Not by substr(): its exception for a place beyond the end would bring the C++ library with it.
    if (colon == std::string_view::npos || colon <= 1 || colon + 2 >= text.size() || text[colon + 1] != '/' ||
        text[colon + 2] != '/') {
        return 0;
    }
    return colon;
}

// uri_parse of a text without zero bytes. False: refused, and layout is as it was.
inline bool parse_uri(std::string_view text, struct uri_layout& layout)
{
    struct uri_layout found = {};
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    if (!text.empty() && text.front() == '/') {
        text.remove_prefix(1);
    } else if (const size_t s_len = scheme_length(text); s_len > 0) {
        found.scheme = text.data();
        found.s_len = s_len;
        text.remove_prefix(s_len + 3);
        if (text.empty()) {
            return false;
        }
        // Kept: the search has no bound, so an '@' in the path or the query divides too.
        if (const size_t at = text.find('@'); at != std::string_view::npos) {
            found.a_len = at;
            found.authority = at > 0 ? text.data() : nullptr;
            text.remove_prefix(at + 1);
            if (text.empty()) {
                return false;
            }
        }
    }
    found.p_len = till_query(text);
    found.path = found.p_len > 0 ? text.data() : nullptr;
    if (found.p_len + 1 < text.size()) {
        found.query = text.data() + found.p_len + 1;
        found.q_len = text.size() - found.p_len - 1;
    }
    layout = found;
    return true;
}

} // namespace mv

#endif
