// The records of the groups of agents: a pool in one block of memory, with two lists through it: that of an
// agent, and that of the groups that were left, oldest first, which are used again where room is short.
#ifndef ZENTMON_ENTRIES_H
#define ZENTMON_ENTRIES_H

#include <cstdint>

#include "xvdat.h"

namespace zentmon {

enum class EntryState : uint8_t {
    left,  // nobody holds it: only its numbers are kept
    held,  // at least one flow holds it
    linger // nobody holds it, and that is not told yet
};

constexpr uint32_t kNoEntry = UINT32_MAX;

struct Entry {
    uint64_t holders; // a bit for each flow of the agent
    int64_t since_ms; // Unix time
    int64_t last_ms;  // Unix time
    uint32_t group;   // host byte order
    uint32_t joins;
    uint32_t leaves;
    uint32_t agent_next; // list of the agent
    uint32_t agent_prev;
    uint32_t left_next; // list of the left ones
    uint32_t left_prev;
    uint16_t agent;
    EntryState state;
    bool restored : 1;    // as the history had it: no line has spoken of it yet
    bool told_fading : 1; // the history was told that it is stale or lingers
};

static_assert(sizeof(Entry) == 56);

class Entries {
  public:
    Entries() = default;
    ~Entries();
    Entries(const Entries&) = delete;
    Entries& operator=(const Entries&) = delete;

    Entry& operator[](uint32_t place) { return static_cast<Entry*>(pool_.data)[place]; }

    const Entry& operator[](uint32_t place) const { return static_cast<const Entry*>(pool_.data)[place]; }

    // A zeroed record, or kNoEntry where memory ran out. References to records end here.
    uint32_t add();
    void release(uint32_t place);

    size_t size() const { return used_; }

    // All places, those of released records included: these are in state `left`.
    uint32_t end() const { return end_; }

    void push_left(uint32_t place);
    void unlink_left(uint32_t place);

    uint32_t oldest_left() const { return left_first_; }

    void link_agent(uint32_t place, uint32_t& first);
    void unlink_agent(uint32_t place, uint32_t& first);

  private:
    struct xvec pool_ = NULL_xvec;
    uint32_t free_ = kNoEntry; // list of released records, by agent_next
    size_t used_ = 0;
    uint32_t end_ = 0;
    uint32_t left_first_ = kNoEntry;
    uint32_t left_last_ = kNoEntry;
};

} // namespace zentmon

#endif
