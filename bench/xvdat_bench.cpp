// Vectors and slot lists against what a user would pick instead: std::vector, a vector of slots with a free
// list, a bitmap, and plf::colony.
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <plf_colony.h>

#include "xvdat.h"

namespace {

// A record like those that daemons keep: 32 bytes.
struct Item {
    uint64_t number;
    uint64_t rest[3];
};

constexpr size_t kAppends = 1000;
constexpr size_t kBlock = 1024;

// ---- append: an iteration makes a vector, appends 1000 items and frees it
// ----------------------------------

struct OurVector {
    xvec v = NULL_xvec;

    ~OurVector() { xvec_reset(&v); }

    void add(uint64_t number)
    {
        const ssize_t at = xvec_add(&v, sizeof(Item), kBlock);
        static_cast<Item*>(v.data)[at] = {number, {number, number, number}};
    }

    const void* data() const { return v.data; }
};

template <bool reserve>
struct StdVector {
    std::vector<Item> v;

    StdVector()
    {
        if (reserve) {
            v.reserve(kBlock);
        }
    }

    void add(uint64_t number) { v.push_back({number, {number, number, number}}); }

    const void* data() const { return v.data(); }
};

struct RawStore {
    Item* items = static_cast<Item*>(calloc(kBlock, sizeof(Item)));
    size_t len = 0;

    ~RawStore() { free(items); }

    void add(uint64_t number) { items[len++] = {number, {number, number, number}}; }

    const void* data() const { return items; }
};

template <class Vector>
void append(benchmark::State& state)
{
    for (auto _ : state) {
        Vector v;
        for (size_t i = 0; i < kAppends; ++i) {
            v.add(i);
        }
        benchmark::DoNotOptimize(v.data());
        benchmark::ClobberMemory();
    }
}

// ---- slot lists: each gives a handle for an item and takes it back
// -----------------------------------------

struct OurList {
    using Handle = size_t;
    xvlst l = NULL_xvlst;

    ~OurList() { xvlst_reset(&l); }

    Handle add(uint64_t number)
    {
        const auto slot = static_cast<size_t>(xvlst_add(&l, sizeof(Item), kBlock));
        static_cast<Item*>(l.data)[slot].number = number;
        return slot;
    }

    void del(Handle slot) { xvlst_del(&l, slot, nullptr); }

    uint64_t sum()
    {
        uint64_t total = 0;
        xvlst_each_aux(
            &l, &total,
            [](void* data, size_t index, void* aux) {
                *static_cast<uint64_t*>(aux) += static_cast<Item*>(data)[index].number;
                return 0;
            },
            nullptr);
        return total;
    }
};

// The same without a callback.
struct OurListInline : OurList {
    uint64_t sum()
    {
        uint64_t total = 0;
        struct xvlst_walk at = {};
        for (ssize_t slot = xvlst_next(&l, &at); slot >= 0; slot = xvlst_next(&l, &at)) {
            total += static_cast<Item*>(l.data)[slot].number;
        }
        return total;
    }
};

// The last slot freed is the next one taken, not the lowest: the numbers scatter.
struct FreeList {
    using Handle = size_t;

    struct Slot {
        Item item;
        bool taken;
    };

    std::vector<Slot> slots;
    std::vector<size_t> free_slots;

    Handle add(uint64_t number)
    {
        if (free_slots.empty()) {
            slots.push_back({{number, {}}, true});
            return slots.size() - 1;
        }
        const size_t slot = free_slots.back();
        free_slots.pop_back();
        slots[slot].item.number = number;
        slots[slot].taken = true;
        return slot;
    }

    void del(Handle slot)
    {
        slots[slot].taken = false;
        free_slots.push_back(slot);
    }

    uint64_t sum() const
    {
        uint64_t total = 0;
        for (const Slot& slot : slots) {
            total += slot.taken ? slot.item.number : 0;
        }
        return total;
    }
};

// The lowest free slot, by a search through words of 64 slots.
struct Bitmap {
    using Handle = size_t;
    std::vector<Item> items;
    std::vector<uint64_t> taken;

    Handle add(uint64_t number)
    {
        size_t word = 0;
        while (word < taken.size() && taken[word] == UINT64_MAX) {
            ++word;
        }
        if (word == taken.size()) {
            taken.push_back(0);
            items.resize(taken.size() * 64);
        }
        const auto bit = static_cast<size_t>(__builtin_ctzll(~taken[word]));
        taken[word] |= uint64_t{1} << bit;
        items[word * 64 + bit].number = number;
        return word * 64 + bit;
    }

    void del(Handle slot) { taken[slot / 64] &= ~(uint64_t{1} << (slot % 64)); }

    uint64_t sum() const
    {
        uint64_t total = 0;
        for (size_t word = 0; word < taken.size(); ++word) {
            for (uint64_t bits = taken[word]; bits != 0; bits &= bits - 1) {
                total += items[word * 64 + static_cast<size_t>(__builtin_ctzll(bits))].number;
            }
        }
        return total;
    }
};

struct Colony {
    using Handle = plf::colony<Item>::iterator;
    plf::colony<Item> items;

    Handle add(uint64_t number) { return items.insert(Item{number, {}}); }

    void del(Handle at) { items.erase(at); }

    uint64_t sum() const
    {
        uint64_t total = 0;
        for (const Item& item : items) {
            total += item.number;
        }
        return total;
    }
};

std::vector<uint32_t> random_indices(size_t below)
{
    std::mt19937 random(1);
    std::vector<uint32_t> indices(1 << 16);
    for (uint32_t& index : indices) {
        index = static_cast<uint32_t>(random() % below);
    }
    return indices;
}

// Fills a list and leaves holes in it: one slot in so many is freed, 0 for none.
template <class List>
std::vector<typename List::Handle> fill(List& list, size_t count, size_t one_in)
{
    std::vector<typename List::Handle> handles;
    for (size_t i = 0; i < count; ++i) {
        handles.push_back(list.add(i));
    }
    if (one_in > 0) {
        std::mt19937 random(2);
        std::vector<typename List::Handle> kept;
        for (const auto& handle : handles) {
            if (random() % one_in == 0) {
                list.del(handle);
            } else {
                kept.push_back(handle);
            }
        }
        handles = kept;
    }
    return handles;
}

// An iteration deletes one item at random and adds one.
template <class List, size_t one_in>
void churn(benchmark::State& state)
{
    List list;
    auto handles = fill(list, static_cast<size_t>(state.range(0)), one_in);
    const auto indices = random_indices(handles.size());
    size_t turn = 0;
    for (auto _ : state) {
        auto& handle = handles[indices[turn++ % indices.size()]];
        list.del(handle);
        handle = list.add(turn);
    }
}

// An iteration visits all items; every other slot is free.
template <class List>
void walk(benchmark::State& state)
{
    List list;
    fill(list, static_cast<size_t>(state.range(0)), 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.sum());
    }
}

BENCHMARK(append<OurVector>)->Name("Append/ours");
BENCHMARK(append<StdVector<true>>)->Name("Append/vector_reserve");
BENCHMARK(append<StdVector<false>>)->Name("Append/vector");
BENCHMARK(append<RawStore>)->Name("Append/raw_store");

BENCHMARK(churn<OurList, 0>)->Name("ChurnFull/ours")->Arg(1024)->Arg(65536);
BENCHMARK(churn<FreeList, 0>)->Name("ChurnFull/free_list")->Arg(1024)->Arg(65536);
BENCHMARK(churn<Bitmap, 0>)->Name("ChurnFull/bitmap")->Arg(1024)->Arg(65536);
BENCHMARK(churn<Colony, 0>)->Name("ChurnFull/colony")->Arg(1024)->Arg(65536);

BENCHMARK(churn<OurList, 10>)->Name("ChurnHoles/ours")->Arg(1024)->Arg(65536);
BENCHMARK(churn<FreeList, 10>)->Name("ChurnHoles/free_list")->Arg(1024)->Arg(65536);
BENCHMARK(churn<Bitmap, 10>)->Name("ChurnHoles/bitmap")->Arg(1024)->Arg(65536);
BENCHMARK(churn<Colony, 10>)->Name("ChurnHoles/colony")->Arg(1024)->Arg(65536);

BENCHMARK(walk<OurList>)->Name("Walk/ours")->Arg(1024)->Arg(65536);
BENCHMARK(walk<OurListInline>)->Name("WalkInline/ours")->Arg(1024)->Arg(65536);
BENCHMARK(walk<Colony>)->Name("WalkInline/colony")->Arg(1024)->Arg(65536);
BENCHMARK(walk<FreeList>)->Name("Walk/free_list")->Arg(1024)->Arg(65536);
BENCHMARK(walk<Bitmap>)->Name("Walk/bitmap")->Arg(1024)->Arg(65536);
BENCHMARK(walk<Colony>)->Name("Walk/colony")->Arg(1024)->Arg(65536);

} // namespace

BENCHMARK_MAIN();
