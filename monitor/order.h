// The groups of all agents in one order, (group, name of the agent), for lists that are asked for in pieces:
// sorted pieces of at most 512 keys under a directory of their first keys. A look-up is two binary searches,
// a change moves at most 4 KiB; 8 to 16 bytes a group.
#ifndef ZENTMON_ORDER_H
#define ZENTMON_ORDER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace zentmon {

class GroupOrder {
  public:
    // group: 32 bits, agent: 12 bits, place of the entry: 20 bits
    using Key = uint64_t;

    static constexpr size_t kAgents = size_t{1} << 12;
    static constexpr size_t kPlaces = size_t{1} << 20;

    static Key key(uint32_t group, uint32_t agent, uint32_t place)
    {
        return Key{group} << 32 | Key{agent} << 20 | place;
    }

    static uint32_t group_of(Key key) { return static_cast<uint32_t>(key >> 32); }

    static uint32_t agent_of(Key key) { return static_cast<uint32_t>(key >> 20) & (kAgents - 1); }

    static uint32_t place_of(Key key) { return static_cast<uint32_t>(key) & (kPlaces - 1); }

    // ranks: the place of each agent in the order of names, borrowed. It may change while the order among
    // the agents that stand here stays the same.
    explicit GroupOrder(const std::vector<uint16_t>& ranks) : ranks_(ranks) {}

    // The place of an entry, or -1.
    int64_t find(uint32_t group, uint32_t agent) const;

    void insert(Key key);
    void erase(uint32_t group, uint32_t agent);

    size_t size() const { return size_; }

    // All keys in order, and back after their order has changed.
    std::vector<Key> take_all();
    void put_all(std::vector<Key> keys);

    // Visits at most budget keys, from the first for which `behind` is true on (it must be false up to some
    // key and true from there on), until visit returns false. False at the end.
    bool walk(const std::function<bool(Key)>& behind, size_t budget,
              const std::function<bool(Key)>& visit) const;

  private:
    static constexpr size_t kPiece = 512;
    using Piece = std::vector<Key>;

    bool before(Key a, Key b) const;
    size_t piece_for(Key key) const;
    size_t lower_bound(const Piece& piece, Key key) const;

    const std::vector<uint16_t>& ranks_;
    std::vector<Key> firsts_; // the first key of each piece
    std::vector<Piece> pieces_;
    size_t size_ = 0;
};

} // namespace zentmon

#endif
