// Scripts of operations on a numeric table, beside a model that keeps each chain as a plain list. Input: a
// byte for the hash, one for the capacity, then operations of a byte and four bytes of key. The model states
// the rule of the chains for itself: the first record that is not below the key ends the search, and below
// means that the difference of the low halves, as a signed number of 32 bits, is negative.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <vector>

#include "gkh.h"
#include "stream_input.h"

namespace {

using fuzz::demand;

struct Record {
    int64_t key;
    uintptr_t value;
};

// The low bits alone, turned round: neighbours meet in one chain.
unsigned long few_slots(const void* key, unsigned long)
{
    return reinterpret_cast<unsigned long>(key) >> 4;
}

// The published mix of a 64-bit integer, as its author writes it.
uint64_t wang_mix(uint64_t key)
{
    key = ~key + (key << 21);
    key = key ^ (key >> 24);
    key = (key + (key << 3)) + (key << 8);
    key = key ^ (key >> 14);
    key = (key + (key << 2)) + (key << 4);
    key = key ^ (key >> 28);
    key = key + (key << 31);
    return key;
}

class Model {
  public:
    Model(size_t capacity, int hash) : hash_(hash)
    {
        size_t slots = 0;
        for (size_t power = 1; power <= capacity * 3 / 2; power *= 2) {
            slots = power;
        }
        chains_.resize(slots);
    }

    int add(int64_t key, uintptr_t& value)
    {
        auto& chain = chains_[slot(key)];
        const auto at = seek(chain, key);
        if (is_at(chain, at, key)) {
            value = at->value;
            return EBUSY;
        }
        chain.insert(at, {key, value});
        return 0;
    }

    int take(int64_t key, bool remove, uintptr_t& value)
    {
        auto& chain = chains_[slot(key)];
        const auto at = seek(chain, key);
        if (!is_at(chain, at, key)) {
            return ESRCH;
        }
        value = at->value;
        if (remove) {
            chain.erase(at);
        }
        return 0;
    }

    std::vector<Record> all() const
    {
        std::vector<Record> result;
        for (const auto& chain : chains_) {
            result.insert(result.end(), chain.begin(), chain.end());
        }
        return result;
    }

  private:
    using Chain = std::list<Record>;

    static bool negative(int64_t a, int64_t b)
    {
        const uint64_t difference =
            (static_cast<uint64_t>(a) - static_cast<uint64_t>(b)) % (uint64_t{1} << 32);
        return difference >= uint64_t{1} << 31;
    }

    static Chain::iterator seek(Chain& chain, int64_t key)
    {
        auto at = chain.begin();
        while (at != chain.end() && negative(at->key, key)) {
            ++at;
        }
        return at;
    }

    static bool is_at(const Chain& chain, Chain::iterator at, int64_t key)
    {
        return at != chain.end() && static_cast<uint64_t>(at->key - key) % (uint64_t{1} << 32) == 0;
    }

    size_t slot(int64_t key) const
    {
        const auto number = static_cast<uint64_t>(key);
        return (hash_ == 0 ? wang_mix(number) : hash_ == 1 ? number : number >> 4) % chains_.size();
    }

    int hash_;
    std::vector<Chain> chains_;
};

struct Walk {
    std::vector<Record> expected;
    size_t next;
};

void visit(const void* key, void* value, void* farg)
{
    auto& walk = *static_cast<Walk*>(farg);
    demand(walk.next < walk.expected.size());
    const Record& record = walk.expected[walk.next++];
    demand(reinterpret_cast<int64_t>(key) == record.key &&
           reinterpret_cast<uintptr_t>(value) == record.value);
}

size_t g_freed;

void count_freed(void*)
{
    ++g_freed;
}

// The keys: of four bytes, widened with their sign as the agent does, or near 2^31 apart, or with high
// halves.
int64_t key_of(uint8_t kind, uint32_t bits)
{
    int64_t key = 0;
    switch (kind % 4) {
    case 0: key = static_cast<int32_t>(bits); break;
    case 1: key = bits % 16 + (bits & 0x80) * 0x1000000LL; break;
    case 2: key = static_cast<int64_t>(bits) << 8; break;
    default: key = bits % 8 + 1; break;
    }
    return key != 0 ? key : 1;
}

void print_both_ways(nkht_t table)
{
    static FILE* const nowhere = fopen("/dev/null", "w");
    nkht_print(table, nowhere, 0);
    nkht_print(table, nowhere, 1);
}

void step(nkht_t table, Model& model, uint8_t operation, int64_t key, uintptr_t number)
{
    uintptr_t expected = number;
    auto* value = reinterpret_cast<void*>(number);
    switch (operation % 5) {
    case 0:
    case 1: demand(nkht_add(table, key, &value) == model.add(key, expected)); break;
    case 2: demand(nkht_rm(table, key, &value) == model.take(key, true, expected)); break;
    case 3:
        demand(nkht_get(table, key, &value) == model.take(key, false, expected));
        demand(nkht_get(table, key, nullptr) == (reinterpret_cast<uintptr_t>(value) != number ? 0 : ESRCH));
        break;
    default:
        expected = 0; // without a place for it there is no value
        if (nkht_add(table, key, nullptr) == 0) {
            demand(model.add(key, expected) == 0);
        } else {
            demand(nkht_rm(table, key, nullptr) == 0 && model.take(key, true, expected) == 0);
        }
        return;
    }
    demand(reinterpret_cast<uintptr_t>(value) == expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096) {
        return 0;
    }
    fuzz::Input input(data, size);
    const int hash = input.take<uint8_t>() % 3;
    const size_t capacity = size_t{input.take<uint8_t>()} + 1;
    nkht_t table = 0;
    demand(nkht_create(&table, HT_MAX_CAP + capacity, tw_shift) == EOVERFLOW && table == 0);
    demand(nkht_create(&table, capacity, hash == 0 ? tw_shift : hash == 1 ? nullptr : few_slots) == 0);
    Model model(capacity, hash);
    for (uintptr_t number = 1; input.left() > 0; ++number) {
        const auto operation = input.take<uint8_t>();
        const int64_t key = key_of(operation / 8, input.take<uint32_t>());
        demand(tw_shift(reinterpret_cast<const void*>(key), number) == wang_mix(static_cast<uint64_t>(key)));
        step(table, model, operation, key, number);
    }
    Walk walk = {model.all(), 0};
    demand(nkht_count(table) == walk.expected.size());
    demand(nkht_iter(table, visit, &walk) == walk.expected.size() && walk.next == walk.expected.size());
    print_both_ways(table);
    g_freed = 0;
    nkht_destroy(table, hash == 0 ? nullptr : count_freed);
    demand(g_freed == (hash == 0 ? 0 : walk.expected.size()));
    return 0;
}
