// Scripts of operations on a table of texts, beside a model that keeps each chain as a plain list in the
// order of strcmp. Input: a byte for the hash and its seed, one for the capacity, then operations of a byte
// and a text that ends with a zero byte. A text of 255 characters or more is stored cut, in the slot of the
// whole text, and is found only by a text that has that slot.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "gkh.h"
#include "stream_input.h"
#include "wrap.h"

WRAPPED(time_t, time, (time_t * where));

namespace {

using fuzz::demand;

time_t g_now = 0; // what a table takes as its seed

struct Record {
    std::string key;
    uintptr_t value;
};

unsigned long one_slot(const void*, unsigned long)
{
    return 0;
}

uint64_t extended(char c)
{
    const auto byte = static_cast<uint64_t>(static_cast<unsigned char>(c));
    return byte < 128 ? byte : byte - 256; // modulo 2^64
}

// The two hashes, a character at a time.
uint64_t polynomial(const std::string& text)
{
    auto hash = static_cast<uint64_t>(g_now);
    for (const char c : text) {
        hash = hash * 101 + extended(c);
    }
    return hash;
}

uint64_t elf(const std::string& text)
{
    uint64_t hash = 0;
    for (const char c : text) {
        hash = hash * 16 + extended(c);
        const uint64_t top = hash & 0xf0000000;
        hash ^= top >> 24;
        hash &= ~top;
    }
    return hash;
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

    int add(const std::string& key, uintptr_t& value)
    {
        auto& chain = chains_[slot(key)];
        for (const Record& record : chain) {
            if (record.key == key) {
                value = record.value;
                return EBUSY;
            }
        }
        // The place is that of the whole text, also where less of it is stored.
        auto at = chain.begin();
        while (at != chain.end() && at->key.compare(key) < 0) {
            ++at;
        }
        chain.insert(at, {key.substr(0, 254), value});
        return 0;
    }

    int take(const std::string& key, bool remove, uintptr_t& value)
    {
        auto& chain = chains_[slot(key)];
        for (auto at = chain.begin(); at != chain.end(); ++at) {
            if (at->key == key) {
                value = at->value;
                if (remove) {
                    chain.erase(at);
                }
                return 0;
            }
        }
        return ESRCH;
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
    size_t slot(const std::string& key) const
    {
        return (hash_ == 0 ? polynomial(key) : hash_ == 1 ? elf(key) : 0) % chains_.size();
    }

    int hash_;
    std::vector<std::list<Record>> chains_;
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
    demand(record.key == static_cast<const char*>(key) && reinterpret_cast<uintptr_t>(value) == record.value);
}

// The next text: as it stands there, or a long one of its first character that differs in its end.
std::string text_of(fuzz::Input& input, bool is_long)
{
    std::string text;
    while (input.left() > 0) {
        const char c = static_cast<char>(input.take<uint8_t>());
        if (c == 0) {
            break;
        }
        text.push_back(c);
    }
    return is_long && !text.empty() ? std::string(253, text[0]) + text : text;
}

void step(skht_t table, Model& model, uint8_t operation, const std::string& text, uintptr_t number)
{
    uintptr_t expected = number;
    auto* value = reinterpret_cast<void*>(number);
    // Each key in a block of its size, which is gone afterwards: the table has a copy.
    const auto key = std::make_unique<char[]>(text.size() + 1);
    memcpy(key.get(), text.c_str(), text.size() + 1);
    switch (operation % 4) {
    case 0:
    case 1: demand(skht_add(table, key.get(), &value) == model.add(text, expected)); break;
    case 2: demand(skht_rm(table, key.get(), &value) == model.take(text, true, expected)); break;
    default: demand(skht_get(table, key.get(), &value) == model.take(text, false, expected)); break;
    }
    demand(reinterpret_cast<uintptr_t>(value) == expected);
}

size_t g_freed;

void count_freed(void*)
{
    ++g_freed;
}

void print_both_ways(skht_t table)
{
    static FILE* const nowhere = fopen("/dev/null", "w");
    skht_print(table, nowhere, 0);
    skht_print(table, nowhere, 1);
}

// The first texts may be there from the start; one that comes twice makes no table at all.
int create(skht_t& table, size_t capacity, khash_t hash, Model& model, const std::vector<std::string>& texts)
{
    std::vector<const char*> keys;
    int expected = 0;
    for (const std::string& text : texts) {
        uintptr_t none = 0;
        expected = expected == 0 ? model.add(text, none) : expected;
        keys.push_back(text.c_str());
    }
    const int rc = skht_create(&table, capacity, hash, keys.empty() ? nullptr : keys.data(), keys.size());
    demand(rc == expected && (table != 0) == (rc == 0));
    return rc;
}

} // namespace

extern "C" time_t __wrap_time(time_t* where)
{
    if (where != nullptr) {
        *where = g_now;
    }
    return g_now;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096) {
        return 0;
    }
    fuzz::Input input(data, size);
    const auto first = input.take<uint8_t>();
    const int hash = first % 3;
    g_now = first / 3;
    const size_t capacity = size_t{input.take<uint8_t>()} + 1;
    std::vector<std::string> preloaded;
    for (size_t left = input.take<uint8_t>() % 8; left > 0 && input.left() > 0; --left) {
        preloaded.push_back(text_of(input, false));
    }
    Model model(capacity, hash);
    skht_t table = 0;
    if (create(table, capacity,
               hash == 0   ? nullptr
               : hash == 1 ? elfHash
                           : one_slot,
               model, preloaded) != 0) {
        return 0;
    }
    for (uintptr_t number = 1; input.left() > 0; ++number) {
        const auto operation = input.take<uint8_t>();
        const std::string text = text_of(input, operation % 16 >= 12);
        step(table, model, operation, text, number);
    }
    Walk walk = {model.all(), 0};
    demand(skht_count(table) == walk.expected.size());
    demand(skht_iter(table, visit, &walk) == walk.expected.size() && walk.next == walk.expected.size());
    print_both_ways(table);
    g_freed = 0;
    skht_destroy(table, count_freed);
    demand(g_freed == walk.expected.size());
    return 0;
}
