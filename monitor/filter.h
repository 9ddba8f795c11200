// What a reader wants to see of groups and agents: words, each the beginning of an address, a network, or a
// part of a name.
#ifndef ZENTMON_FILTER_H
#define ZENTMON_FILTER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "event.h"

namespace zentmon {

// All words must match. A word is
//   - a network, "239.1.0.0/16": of the group, or of the agent's address
//   - digits and dots: an address as a whole, or the beginning of one; the group's or the agent's
//   - anything else: a part of the agent's or the listener's name or of the address, letters of either case
// No word matches everything.
class Filter {
  public:
    Filter() = default;
    explicit Filter(std::string_view text);

    bool empty() const { return words_.empty(); }

    bool matches(uint32_t group, const AgentName& who) const;

  private:
    enum class Kind { network, address, part };

    struct Word {
        Kind kind;
        std::string text; // in lower case
        uint32_t net = 0;
        uint32_t mask = 0;
    };

    static bool word_matches(const Word& word, uint32_t group, const AgentName& who);
    static Word make_word(std::string text);

    std::vector<Word> words_;
};

} // namespace zentmon

#endif
