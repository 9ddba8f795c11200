// The filter of groups and agents.
#include "filter.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>

namespace zentmon {

namespace {

constexpr size_t kWordsMax = 16;

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool has_part(const std::string& text, const std::string& part)
{
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char a, char b) { return lower(a) == b; }) != text.end();
}

bool parse_address(const std::string& text, uint32_t& address)
{
    struct in_addr in = {};
    if (inet_pton(AF_INET, text.c_str(), &in) != 1) {
        return false;
    }
    address = ntohl(in.s_addr);
    return true;
}

// "A.B.C.D/N"
bool parse_network(const std::string& text, uint32_t& net, uint32_t& mask)
{
    const size_t slash = text.find('/');
    unsigned bits = 0;
    if (slash == std::string::npos || !parse_address(text.substr(0, slash), net)) {
        return false;
    }
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + slash + 1, end, bits);
    if (parsed.ec != std::errc() || parsed.ptr != end || bits > 32) {
        return false;
    }
    mask = bits == 0 ? 0 : ~0U << (32 - bits);
    net &= mask;
    return true;
}

bool is_in(uint32_t address, uint32_t net, uint32_t mask)
{
    return (address & mask) == net;
}

} // namespace

Filter::Filter(std::string_view text)
{
    std::string word;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != ' ' && text[i] != '\t') {
            word += lower(text[i]);
        } else if (!word.empty() && words_.size() < kWordsMax) {
            words_.push_back(make_word(std::move(word)));
            word.clear();
        }
    }
}

Filter::Word Filter::make_word(std::string text)
{
    Word word = {Kind::part, std::move(text)};
    const bool digits = std::all_of(word.text.begin(), word.text.end(),
                                    [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
    if (parse_network(word.text, word.net, word.mask)) {
        word.kind = Kind::network;
    } else if (parse_address(word.text, word.net)) {
        word.kind = Kind::network; // a whole address: 239.1.0.1 is not to bring 239.1.0.10 along
        word.mask = ~0U;
    } else if (digits) {
        word.kind = Kind::address;
    }
    return word;
}

bool Filter::word_matches(const Word& word, uint32_t group, const AgentName& who)
{
    if (word.kind == Kind::network) {
        uint32_t address = 0;
        return is_in(group, word.net, word.mask) ||
               (parse_address(who.address, address) && is_in(address, word.net, word.mask));
    }
    if (word.kind == Kind::address) {
        std::string text;
        append_group(text, group);
        return text.starts_with(word.text) || who.address.starts_with(word.text) ||
               has_part(who.agent, word.text);
    }
    return has_part(who.agent, word.text) || has_part(who.listener, word.text) ||
           has_part(who.address, word.text);
}

bool Filter::matches(uint32_t group, const AgentName& who) const
{
    return std::all_of(words_.begin(), words_.end(),
                       [group, &who](const Word& word) { return word_matches(word, group, who); });
}

} // namespace zentmon
