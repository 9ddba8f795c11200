// Tables of 512, 10 000 and 1 000 000 keys: insert into an empty table, insert of keys that are there,
// look-up of keys that are there and that are not, removal and insertion again; numbers (groups as the agent
// keeps them) and texts. Against std::unordered_map, absl::flat_hash_map, uthash and GLib's GHashTable, and,
// for numbers, the table's own sorted chains written out here: what is behind that is the price of the call.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <uthash.h>

#include "gkh.h"

namespace {

template <class Key>
struct Keys {
    std::vector<Key> present; // in the order of insertion
    std::vector<Key> asked;   // the same in another order
    std::vector<Key> absent;
};

// The order in which keys are asked for: again and again the same one, which a processor comes to foresee in
// a small table, or one that it cannot.
enum class Order { Foreseeable, Random };

template <Order order>
class Turns {
  public:
    explicit Turns(size_t count) : count_(count)
    {
        if (order == Order::Random) {
            std::mt19937 random(9);
            for (size_t i = 0; i < kLength; ++i) {
                indices_.push_back(static_cast<uint32_t>(random() % count));
            }
        }
    }

    size_t next()
    {
        turn_ = turn_ + 1 == (order == Order::Random ? kLength : count_) ? 0 : turn_ + 1;
        return order == Order::Random ? indices_[turn_] : turn_;
    }

  private:
    static constexpr size_t kLength = size_t{1} << 16;
    size_t count_;
    size_t turn_ = 0;
    std::vector<uint32_t> indices_;
};

template <class Key>
void shuffle_asked(Keys<Key>& keys)
{
    std::mt19937 random(8);
    keys.asked = keys.present;
    std::shuffle(keys.asked.begin(), keys.asked.end(), random);
}

// Below 2^31, in an order that has nothing to do with the tables'.
const Keys<long>& make_keys(size_t count, long /*kind*/)
{
    static std::unordered_map<size_t, Keys<long>> made;
    Keys<long>& keys = made[count];
    if (keys.present.empty()) {
        std::mt19937 random(7);
        std::vector<long> all;
        while (all.size() < 2 * count) {
            for (size_t i = all.size(); i < 2 * count; ++i) {
                all.push_back(static_cast<long>(1 + random() % 0x7ffffffe));
            }
            std::sort(all.begin(), all.end());
            all.erase(std::unique(all.begin(), all.end()), all.end());
        }
        std::shuffle(all.begin(), all.end(), random);
        const auto middle = all.begin() + static_cast<ptrdiff_t>(count);
        keys.present.assign(all.begin(), middle);
        keys.absent.assign(middle, all.end());
        shuffle_asked(keys);
    }
    return keys;
}

const Keys<std::string>& make_keys(size_t count, const std::string& /*kind*/)
{
    static std::unordered_map<size_t, Keys<std::string>> made;
    Keys<std::string>& keys = made[count];
    if (keys.present.empty()) {
        const Keys<long>& numbers = make_keys(count, 0L);
        for (const long key : numbers.present) {
            keys.present.push_back("name-" + std::to_string(key));
        }
        for (const long key : numbers.absent) {
            keys.absent.push_back("name-" + std::to_string(key));
        }
        shuffle_asked(keys);
    }
    return keys;
}

void* const kValue = reinterpret_cast<void*>(64);

// Each table: add and rm tell whether the key was new or there, get whether it is there.

struct OursNum {
    explicit OursNum(size_t count) { nkht_create(&h, count, tw_shift); }

    ~OursNum() { nkht_destroy(h, nullptr); }

    bool add(long key)
    {
        void* data = kValue;
        return nkht_add(h, key, &data) == 0;
    }

    bool get(long key)
    {
        void* data = nullptr;
        return nkht_get(h, key, &data) == 0;
    }

    bool rm(long key) { return nkht_rm(h, key, nullptr) == 0; }

    nkht_t h = 0;
};

struct OursStr {
    explicit OursStr(size_t count) { skht_create(&h, count, nullptr, nullptr, 0); }

    ~OursStr() { skht_destroy(h, nullptr); }

    bool add(const std::string& key)
    {
        void* data = kValue;
        return skht_add(h, key.c_str(), &data) == 0;
    }

    bool get(const std::string& key)
    {
        void* data = nullptr;
        return skht_get(h, key.c_str(), &data) == 0;
    }

    bool rm(const std::string& key) { return skht_rm(h, key.c_str(), nullptr) == 0; }

    skht_t h = 0;
};

// The walk over sorted chains, inlined where it is used.
class InlineNum {
  public:
    explicit InlineNum(size_t count) : heads_(std::bit_floor(count * 3 / 2)) {}

    InlineNum(const InlineNum&) = delete;
    InlineNum& operator=(const InlineNum&) = delete;

    ~InlineNum()
    {
        for (Record* rec : heads_) {
            while (rec != nullptr) {
                Record* const next = rec->next;
                delete rec;
                rec = next;
            }
        }
    }

    bool add(long key)
    {
        Record** const link = place(key);
        if (is_there(*link, key)) {
            return false;
        }
        *link = new Record{*link, kValue, key};
        return true;
    }

    bool get(long key)
    {
        const Record* const rec = *place(key);
        return is_there(rec, key) && rec->data == kValue;
    }

    bool rm(long key)
    {
        Record** const link = place(key);
        Record* const rec = *link;
        if (!is_there(rec, key)) {
            return false;
        }
        *link = rec->next;
        delete rec;
        return true;
    }

  private:
    struct Record {
        Record* next;
        void* data;
        long key;
    };

    static uint64_t mix(uint64_t x)
    {
        x = (x << 21) - x - 1;
        x = (x ^ (x >> 24)) * 265;
        x = (x ^ (x >> 14)) * 21;
        x ^= x >> 28;
        return x + (x << 31);
    }

    static int order(const Record* rec, long key)
    {
        return static_cast<int>(static_cast<uint32_t>(rec->key) - static_cast<uint32_t>(key));
    }

    static bool is_there(const Record* rec, long key) { return rec != nullptr && order(rec, key) == 0; }

    // The link to the first record that is not below the key.
    Record** place(long key)
    {
        Record** link = &heads_[mix(static_cast<uint64_t>(key)) & (heads_.size() - 1)];
        while (*link != nullptr && order(*link, key) < 0) {
            link = &(*link)->next;
        }
        return link;
    }

    std::vector<Record*> heads_;
};

template <class Map>
struct MapTable {
    explicit MapTable(size_t count) { map.reserve(count); }

    template <class Key>
    bool add(const Key& key)
    {
        return map.emplace(key, kValue).second;
    }

    template <class Key>
    bool get(const Key& key)
    {
        const auto found = map.find(key);
        return found != map.end() && found->second == kValue;
    }

    template <class Key>
    bool rm(const Key& key)
    {
        return map.erase(key) == 1;
    }

    Map map;
};

struct UtRecord {
    long key;
    void* data;
    UT_hash_handle hh;
};

struct UtNum {
    explicit UtNum(size_t /*count*/) {}

    ~UtNum()
    {
        UtRecord* record = nullptr;
        UtRecord* next = nullptr;
        HASH_ITER(hh, head, record, next)
        {
            HASH_DEL(head, record);
            free(record);
        }
    }

    UtRecord* find(long key)
    {
        UtRecord* record = nullptr;
        HASH_FIND(hh, head, &key, sizeof key, record);
        return record;
    }

    bool add(long key)
    {
        if (find(key) != nullptr) {
            return false;
        }
        auto* record = static_cast<UtRecord*>(malloc(sizeof(UtRecord)));
        record->key = key;
        record->data = kValue;
        HASH_ADD(hh, head, key, sizeof record->key, record);
        return true;
    }

    bool get(long key)
    {
        const UtRecord* record = find(key);
        return record != nullptr && record->data == kValue;
    }

    bool rm(long key)
    {
        UtRecord* record = find(key);
        if (record == nullptr) {
            return false;
        }
        HASH_DEL(head, record);
        free(record);
        return true;
    }

    UtRecord* head = nullptr;
};

struct GlibNum {
    explicit GlibNum(size_t /*count*/) : table(g_hash_table_new(g_direct_hash, g_direct_equal)) {}

    ~GlibNum() { g_hash_table_destroy(table); }

    bool add(long key) { return g_hash_table_insert(table, reinterpret_cast<void*>(key), kValue) != 0; }

    bool get(long key) { return g_hash_table_lookup(table, reinterpret_cast<void*>(key)) == kValue; }

    bool rm(long key) { return g_hash_table_remove(table, reinterpret_cast<void*>(key)) != 0; }

    GHashTable* table;
};

// One iteration is one operation.
template <class Table, class Key, Order order = Order::Foreseeable>
void hit(benchmark::State& state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const Keys<Key>& keys = make_keys(count, Key{});
    Table table(count);
    for (const Key& key : keys.present) {
        table.add(key);
    }
    Turns<order> turns(count);
    bool good = true;
    for (auto _ : state) {
        good &= table.get(keys.asked[turns.next()]);
        benchmark::DoNotOptimize(good);
    }
    if (!good) {
        state.SkipWithError("a key is not found");
    }
}

template <class Table, class Key, Order order = Order::Foreseeable>
void miss(benchmark::State& state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const Keys<Key>& keys = make_keys(count, Key{});
    Table table(count);
    for (const Key& key : keys.present) {
        table.add(key);
    }
    Turns<order> turns(count);
    bool found = false;
    for (auto _ : state) {
        found |= table.get(keys.absent[turns.next()]);
        benchmark::DoNotOptimize(found);
    }
    if (found) {
        state.SkipWithError("a key is found that was never added");
    }
}

template <class Table, class Key, Order order = Order::Foreseeable>
void repeat(benchmark::State& state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const Keys<Key>& keys = make_keys(count, Key{});
    Table table(count);
    for (const Key& key : keys.present) {
        table.add(key);
    }
    Turns<order> turns(count);
    bool added = false;
    for (auto _ : state) {
        added |= table.add(keys.asked[turns.next()]);
        benchmark::DoNotOptimize(added);
    }
    if (added) {
        state.SkipWithError("a key is added twice");
    }
}

// Fills an empty table; making and freeing it is not measured.
template <class Table, class Key>
void insert(benchmark::State& state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const Keys<Key>& keys = make_keys(count, Key{});
    std::unique_ptr<Table> table;
    size_t i = count;
    for (auto _ : state) {
        if (i == count) {
            state.PauseTiming();
            table = std::make_unique<Table>(count);
            i = 0;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(table->add(keys.present[i++]));
    }
}

// Removes a key of a full table and adds it again: the way of a group that is left and joined.
template <class Table, class Key>
void erase(benchmark::State& state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const Keys<Key>& keys = make_keys(count, Key{});
    Table table(count);
    for (const Key& key : keys.present) {
        table.add(key);
    }
    size_t i = 0;
    bool good = true;
    for (auto _ : state) {
        good &= table.rm(keys.asked[i]);
        good &= table.add(keys.asked[i]);
        benchmark::DoNotOptimize(good);
        i = i + 1 == count ? 0 : i + 1;
    }
    if (!good) {
        state.SkipWithError("a key is not removed or not added again");
    }
}

template <class Table, class Key>
void add_all(const std::string& kind, const std::string& who)
{
    const std::pair<const char*, void (*)(benchmark::State&)> jobs[] = {
        {"Insert", insert<Table, Key>}, {"Repeat", repeat<Table, Key>},  {"Hit", hit<Table, Key>},
        {"Miss", miss<Table, Key>},     {"EraseAdd", erase<Table, Key>},
    };
    const std::pair<const char*, void (*)(benchmark::State&)> random_jobs[] = {
        {"RepeatRandom", repeat<Table, Key, Order::Random>},
        {"HitRandom", hit<Table, Key, Order::Random>},
        {"MissRandom", miss<Table, Key, Order::Random>},
    };
    for (const auto& [job, run] : jobs) {
        auto* bench = benchmark::RegisterBenchmark((kind + job + "/" + who).c_str(), run);
        for (const long count : {512L, 10000L, 1000000L}) {
            bench->Arg(count);
        }
    }
    for (const auto& [job, run] : random_jobs) {
        benchmark::RegisterBenchmark((kind + job + "/" + who).c_str(), run)->Arg(512);
    }
}

} // namespace

int main(int argc, char** argv)
{
    using StdNum = MapTable<std::unordered_map<long, void*>>;
    using AbslNum = MapTable<absl::flat_hash_map<long, void*>>;
    using StdStr = MapTable<std::unordered_map<std::string, void*>>;
    using AbslStr = MapTable<absl::flat_hash_map<std::string, void*>>;
    add_all<OursNum, long>("Num", "ours");
    add_all<InlineNum, long>("Num", "inline_walk");
    add_all<StdNum, long>("Num", "std_unordered_map");
    add_all<AbslNum, long>("Num", "absl_flat_hash_map");
    add_all<UtNum, long>("Num", "uthash");
    add_all<GlibNum, long>("Num", "GHashTable");
    add_all<OursStr, std::string>("Str", "ours");
    add_all<StdStr, std::string>("Str", "std_unordered_map");
    add_all<AbslStr, std::string>("Str", "absl_flat_hash_map");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
