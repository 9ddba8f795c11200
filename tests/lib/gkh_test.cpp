// Tables with numeric and string keys: results, order of chains, limits, texts, and random work beside a
// model.
#include "gkh.h"

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "oom.h"
#include "wrap.h"

using support::expect_abort;

namespace {
time_t g_now = 0; // what time() says; 0: the real time
}

WRAPPED(time_t, time, (time_t * tm));

extern "C" {
time_t __wrap_time(time_t* tm)
{
    if (g_now == 0) {
        return __real_time(tm);
    }
    if (tm != nullptr) {
        *tm = g_now;
    }
    return g_now;
}
}

namespace {

// The table behind a handle, for states that no call leads to.
struct RawTable {
    int ktype;
    void** r;
    size_t rlen;
    u_long hseed;
    size_t count;
    khash_t icalc;
};

class NumTable {
  public:
    explicit NumTable(size_t capacity, khash_t hash = nullptr)
    {
        EXPECT_EQ(nkht_create(&h_, capacity, hash), 0);
    }

    NumTable(const NumTable&) = delete;
    NumTable& operator=(const NumTable&) = delete;

    ~NumTable() { nkht_destroy(h_, nullptr); }

    operator nkht_t() const { return h_; }

  private:
    nkht_t h_ = 0;
};

class StrTable {
  public:
    explicit StrTable(size_t capacity, khash_t hash = nullptr)
    {
        EXPECT_EQ(skht_create(&h_, capacity, hash, nullptr, 0), 0);
    }

    StrTable(const StrTable&) = delete;
    StrTable& operator=(const StrTable&) = delete;

    ~StrTable() { skht_destroy(h_, nullptr); }

    operator skht_t() const { return h_; }

  private:
    skht_t h_ = 0;
};

void* value(long number)
{
    return reinterpret_cast<void*>(number);
}

u_long one_slot(const void* /*key*/, u_long /*seed*/)
{
    return 0;
}

template <class Handle, class Print>
std::string printed(Print print, Handle h, int verbose)
{
    char* text = nullptr;
    size_t length = 0;
    FILE* out = open_memstream(&text, &length);
    print(h, out, verbose);
    fclose(out);
    std::string result(text, length);
    free(text);
    return result;
}

std::string printed_num(nkht_t h, int verbose)
{
    return printed(nkht_print, h, verbose);
}

std::string printed_str(skht_t h, int verbose)
{
    return printed(skht_print, h, verbose);
}

size_t slots_of(nkht_t h)
{
    const std::string text = printed_num(h, 0);
    const size_t slash = text.find('/');
    return std::stoul(text.substr(slash + 1));
}

std::vector<long> keys_of(nkht_t h)
{
    std::vector<long> keys;
    nkht_iter(
        h,
        [](const void* key, void*, void* farg) {
            static_cast<std::vector<long>*>(farg)->push_back(reinterpret_cast<long>(key));
        },
        &keys);
    return keys;
}

std::vector<std::string> keys_of(skht_t h)
{
    std::vector<std::string> keys;
    skht_iter(
        h,
        [](const void* key, void*, void* farg) {
            static_cast<std::vector<std::string>*>(farg)->emplace_back(static_cast<const char*>(key));
        },
        &keys);
    return keys;
}

} // namespace

// ---- creation ----------------------------------------------------------------------------------

TEST(GkhCreate, slots_are_the_largest_power_of_two_not_above_one_and_a_half_times_the_capacity)
{
    const std::pair<size_t, size_t> expected[] = {
        {1, 1},
        {2, 2},
        {3, 4},
        {5, 4},
        {6, 8},
        {511, 512},
        {512, 512},
        {682, 512},
        {683, 1024},
        {1000, 1024},
        {HT_MAX_CAP, 4194304},
    };
    for (const auto& [capacity, slots] : expected) {
        const NumTable h(capacity, tw_shift);
        EXPECT_EQ(reinterpret_cast<const RawTable*>(static_cast<nkht_t>(h))->rlen, slots) << capacity;
    }
    EXPECT_EQ(slots_of(NumTable(683)), 1024U);
}

TEST(GkhCreate, greatest_capacity_is_accepted_and_one_more_is_an_overflow)
{
    nkht_t numbers = 7;
    EXPECT_EQ(nkht_create(&numbers, HT_MAX_CAP + 1, nullptr), 75);
    EXPECT_EQ(numbers, 0);
    skht_t texts = 7;
    EXPECT_EQ(skht_create(&texts, HT_MAX_CAP + 1, nullptr, nullptr, 0), 75);
    EXPECT_EQ(texts, 0U);
    EXPECT_EQ(nkht_create(&numbers, SIZE_MAX, nullptr), 75);
    ASSERT_EQ(nkht_create(&numbers, HT_MAX_CAP, nullptr), 0);
    EXPECT_NE(numbers, 0);
    nkht_destroy(numbers, nullptr);
}

TEST(GkhCreate, capacity_of_zero_and_a_missing_handle_abort)
{
    nkht_t numbers = 0;
    skht_t texts = 0;
    const char* keys[] = {"a"};
    expect_abort("capacity != 0", [&] { nkht_create(&numbers, 0, nullptr); });
    expect_abort("ph != nullptr", [&] { nkht_create(nullptr, 1, nullptr); });
    expect_abort("capacity != 0", [&] { skht_create(&texts, 0, nullptr, nullptr, 0); });
    expect_abort("ph != nullptr", [&] { skht_create(nullptr, 1, nullptr, nullptr, 0); });
    expect_abort("klst == nullptr || len != 0", [&] { skht_create(&texts, 1, nullptr, keys, 0); });
}

TEST(GkhCreate, preloaded_keys_have_null_values)
{
    const char* keys[] = {"one", "two", "three"};
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 8, nullptr, keys, 3), 0);
    EXPECT_EQ(skht_count(h), 3U);
    for (const char* key : keys) {
        void* data = value(9);
        EXPECT_EQ(skht_get(h, key, &data), 0);
        EXPECT_EQ(data, nullptr);
    }
    skht_destroy(h, nullptr);
}

TEST(GkhCreate, length_without_a_list_preloads_nothing)
{
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 8, nullptr, nullptr, 3), 0);
    EXPECT_EQ(skht_count(h), 0U);
    skht_destroy(h, nullptr);
}

TEST(GkhCreate, preloaded_key_that_occurs_twice_is_busy)
{
    const char* keys[] = {"one", "two", "one"};
    skht_t h = 5;
    EXPECT_EQ(skht_create(&h, 8, nullptr, keys, 3), 16);
    EXPECT_EQ(h, 0U);
}

TEST(GkhCreate, allocation_failure_at_every_step_gives_12_and_no_table)
{
    const char* keys[] = {"a", "b", "c", "d", "e"};
    for (size_t n = 1; n <= 7; ++n) {
        skht_t h = 5;
        const support::FailAllocation fail(n);
        EXPECT_EQ(skht_create(&h, 8, nullptr, keys, 5), 12) << n;
        EXPECT_EQ(h, 0U);
        EXPECT_TRUE(fail.happened());
    }
    for (size_t n = 1; n <= 2; ++n) {
        nkht_t h = 5;
        const support::FailAllocation fail(n);
        EXPECT_EQ(nkht_create(&h, 8, nullptr), 12) << n;
        EXPECT_EQ(h, 0);
    }
    skht_t h = 0;
    const support::FailAllocation fail(8);
    EXPECT_EQ(skht_create(&h, 8, nullptr, keys, 5), 0);
    EXPECT_FALSE(fail.happened());
    skht_destroy(h, nullptr);
}

TEST(GkhCreate, default_hash_of_texts_is_pl_hash_seeded_with_the_time)
{
    g_now = 1700000001;
    const StrTable texts(512);
    g_now = 1700000002;
    const NumTable numbers(512);
    g_now = 0;
    const auto* raw = reinterpret_cast<const RawTable*>(static_cast<skht_t>(texts));
    EXPECT_EQ(raw->icalc, plHash);
    EXPECT_EQ(raw->hseed, 1700000001U);
    EXPECT_NE(printed_str(texts, 0).find("seed=1700000001]"), std::string::npos);
    EXPECT_EQ(reinterpret_cast<const RawTable*>(static_cast<nkht_t>(numbers))->icalc, nullptr);
    EXPECT_NE(printed_num(numbers, 0).find("seed=1700000002]"), std::string::npos);
}

// ---- hash functions ----------------------------------------------------------------------------

namespace {

u_long slow_pl(const std::string& text, u_long seed)
{
    for (const char c : text) {
        seed = seed * 101 + static_cast<u_long>(static_cast<long>(static_cast<signed char>(c)));
    }
    return seed;
}

u_long slow_elf(const std::string& text)
{
    u_long h = 0;
    for (const char c : text) {
        h = (h << 4) + static_cast<u_long>(static_cast<long>(static_cast<signed char>(c)));
        const u_long g = h & 0xf0000000UL;
        if (g != 0) {
            h ^= g >> 24;
        }
        h &= ~g;
    }
    return h;
}

// The mix as its author writes it, with additions where ours multiplies.
uint64_t slow_mix(uint64_t x)
{
    x = ~x + (x << 21);
    x = x ^ (x >> 24);
    x = (x + (x << 3)) + (x << 8);
    x = x ^ (x >> 14);
    x = (x + (x << 2)) + (x << 4);
    x = x ^ (x >> 28);
    return x + (x << 31);
}

} // namespace

TEST(GkhHash, pl_hash_is_the_sum_of_signed_characters_by_powers_of_101)
{
    EXPECT_EQ(plHash("", 5), 5U);
    EXPECT_EQ(plHash("a", 0), 97U);
    EXPECT_EQ(plHash("ab", 0), 9895U);
    EXPECT_EQ(plHash("a", 2), 299U);
    EXPECT_EQ(plHash("\xff", 0), ULONG_MAX);
    std::mt19937 random(1);
    for (size_t length = 0; length < 70; ++length) {
        std::string text;
        for (size_t i = 0; i < length; ++i) {
            text += static_cast<char>(1 + random() % 255);
        }
        EXPECT_EQ(plHash(text.c_str(), 1700000000UL + length), slow_pl(text, 1700000000UL + length))
            << length;
    }
}

TEST(GkhHash, elf_hash_takes_no_seed)
{
    EXPECT_EQ(elfHash("", 5), 0U);
    EXPECT_EQ(elfHash("a", 9), 97U);
    EXPECT_EQ(elfHash("ab", 1), elfHash("ab", 2));
    std::mt19937 random(2);
    for (size_t length = 0; length < 70; ++length) {
        std::string text;
        for (size_t i = 0; i < length; ++i) {
            text += static_cast<char>(1 + random() % 255);
        }
        EXPECT_EQ(elfHash(text.c_str(), length), slow_elf(text)) << length;
    }
}

TEST(GkhHash, tw_shift_is_the_integer_mix_and_takes_no_seed)
{
    EXPECT_EQ(tw_shift(value(0), 0), slow_mix(0));
    EXPECT_EQ(tw_shift(value(1), 1), tw_shift(value(1), 77));
    std::mt19937_64 random(3);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t key = random();
        EXPECT_EQ(tw_shift(value(static_cast<long>(key)), 0), slow_mix(key)) << key;
    }
    for (const uint64_t key : {0x80000000UL, 0xFFFFFFFF80000000UL, ~0UL}) {
        EXPECT_EQ(tw_shift(value(static_cast<long>(key)), 0), slow_mix(key)) << key;
    }
}

// ---- numbers -----------------------------------------------------------------------------------

TEST(GkhNum, key_of_zero_aborts_in_add_and_is_not_found_elsewhere)
{
    const NumTable h(8);
    void* data = value(3);
    EXPECT_EQ(nkht_get(h, 0, &data), 3);
    EXPECT_EQ(nkht_rm(h, 0, &data), 3);
    EXPECT_EQ(data, value(3));
    expect_abort("Assertion `tbl != nullptr && key != nullptr' failed", [&] { nkht_add(h, 0, nullptr); });
}

TEST(GkhNum, add_get_and_remove_hand_the_value_through)
{
    const NumTable h(8, tw_shift);
    void* data = value(41);
    EXPECT_EQ(nkht_add(h, 5, &data), 0);
    EXPECT_EQ(nkht_count(h), 1U);
    data = nullptr;
    EXPECT_EQ(nkht_get(h, 5, &data), 0);
    EXPECT_EQ(data, value(41));
    EXPECT_EQ(nkht_get(h, 5, nullptr), 0);
    data = nullptr;
    EXPECT_EQ(nkht_rm(h, 5, &data), 0);
    EXPECT_EQ(data, value(41));
    EXPECT_EQ(nkht_count(h), 0U);
    EXPECT_EQ(nkht_rm(h, 5, &data), 3);
    EXPECT_EQ(nkht_get(h, 5, &data), 3);
    EXPECT_EQ(data, value(41)) << "a failure leaves the caller's value";
}

TEST(GkhNum, second_add_is_busy_and_hands_out_the_stored_value)
{
    const NumTable h(8);
    void* data = value(1);
    ASSERT_EQ(nkht_add(h, 5, &data), 0);
    data = value(2);
    EXPECT_EQ(nkht_add(h, 5, &data), 16);
    EXPECT_EQ(data, value(1));
    EXPECT_EQ(nkht_add(h, 5, nullptr), 16);
    EXPECT_EQ(nkht_get(h, 5, &data), 0);
    EXPECT_EQ(data, value(1));
    EXPECT_EQ(nkht_count(h), 1U);
}

TEST(GkhNum, add_without_a_value_stores_null)
{
    const NumTable h(8);
    ASSERT_EQ(nkht_add(h, 5, nullptr), 0);
    void* data = value(2);
    EXPECT_EQ(nkht_get(h, 5, &data), 0);
    EXPECT_EQ(data, nullptr);
}

TEST(GkhNum, kept_keys_that_agree_in_their_low_32_bits_are_one_key_in_one_slot)
{
    const NumTable h(512);
    void* data = value(1);
    ASSERT_EQ(nkht_add(h, 1, &data), 0);
    data = nullptr;
    EXPECT_EQ(nkht_add(h, 0x100000001, &data), 16);
    EXPECT_EQ(data, value(1));
    EXPECT_EQ(nkht_get(h, 0x100000001, nullptr), 0);
    EXPECT_EQ(nkht_rm(h, 0x500000001, nullptr), 0);
    EXPECT_EQ(nkht_count(h), 0U);
}

TEST(GkhNum, without_a_hash_the_slot_is_the_low_bits_of_the_key)
{
    const NumTable h(512);
    for (const long key : {1024L + 3, 512L + 3, 3L, 2L, 511L, -1L}) {
        ASSERT_EQ(nkht_add(h, key, nullptr), 0);
    }
    EXPECT_EQ(keys_of(h), (std::vector<long>{2, 3, 512 + 3, 1024 + 3, -1, 511}));
}

TEST(GkhNum, kept_both_widenings_of_a_high_key_compare_equal_and_part_by_their_hash)
{
    const auto narrow = static_cast<long>(0x80000000UL);
    const auto wide = static_cast<long>(0xFFFFFFFF80000000UL);
    ASSERT_NE(tw_shift(value(narrow), 0) & 511, tw_shift(value(wide), 0) & 511);
    const NumTable h(512, tw_shift);
    ASSERT_EQ(nkht_add(h, narrow, nullptr), 0);
    EXPECT_EQ(nkht_get(h, wide, nullptr), 3);
    EXPECT_EQ(nkht_add(h, wide, nullptr), 0);
    EXPECT_EQ(nkht_count(h), 2U);
    const NumTable single(1, tw_shift);
    ASSERT_EQ(nkht_add(single, narrow, nullptr), 0);
    EXPECT_EQ(nkht_get(single, wide, nullptr), 0);
    EXPECT_EQ(nkht_add(single, wide, nullptr), 16);
}

TEST(GkhNum, kept_chain_of_far_apart_keys_hides_one_of_its_own)
{
    const NumTable h(1);
    const long low = 1;
    const long middle = 0x60000000;
    const long high = 0xC0000000;
    ASSERT_EQ(nkht_add(h, low, nullptr), 0);
    ASSERT_EQ(nkht_add(h, middle, nullptr), 0);
    EXPECT_EQ(nkht_get(h, middle, nullptr), 0);
    ASSERT_EQ(nkht_add(h, high, nullptr), 0);
    EXPECT_EQ(keys_of(h), (std::vector<long>{high, low, middle}));
    EXPECT_EQ(nkht_get(h, middle, nullptr), 3) << "the walk ends at the high key";
    EXPECT_EQ(nkht_rm(h, middle, nullptr), 3);
    EXPECT_EQ(nkht_add(h, middle, nullptr), 0) << "and so it is added again";
    EXPECT_EQ(nkht_count(h), 4U);
    EXPECT_EQ(keys_of(h), (std::vector<long>{middle, high, low, middle}));
}

TEST(GkhNum, wrapping_difference_at_both_ends_of_the_range)
{
    const NumTable h(1);
    for (const long key : {long{INT_MIN}, long{INT_MAX}, -1L, LONG_MIN + 7, LONG_MAX}) {
        nkht_add(h, key, nullptr);
        EXPECT_EQ(nkht_get(h, key, nullptr), 0) << key;
    }
}

TEST(GkhNum, chain_is_sorted_and_links_at_its_head_middle_and_end_are_mended)
{
    const NumTable h(1);
    for (const long key : {50L, 10L, 30L, 20L, 40L}) {
        ASSERT_EQ(nkht_add(h, key, nullptr), 0);
    }
    EXPECT_EQ(keys_of(h), (std::vector<long>{10, 20, 30, 40, 50}));
    EXPECT_EQ(nkht_rm(h, 30, nullptr), 0);
    EXPECT_EQ(nkht_rm(h, 10, nullptr), 0);
    EXPECT_EQ(nkht_rm(h, 50, nullptr), 0);
    EXPECT_EQ(keys_of(h), (std::vector<long>{20, 40}));
    EXPECT_EQ(nkht_get(h, 30, nullptr), 3);
    EXPECT_EQ(nkht_rm(h, 20, nullptr), 0);
    EXPECT_EQ(nkht_rm(h, 40, nullptr), 0);
    EXPECT_TRUE(keys_of(h).empty());
}

TEST(GkhNum, table_takes_more_records_than_its_capacity)
{
    const NumTable h(2, tw_shift);
    for (long key = 1; key <= 1000; ++key) {
        ASSERT_EQ(nkht_add(h, key, nullptr), 0);
    }
    EXPECT_EQ(nkht_count(h), 1000U);
    EXPECT_EQ(slots_of(h), 2U);
    for (long key = 1; key <= 1000; ++key) {
        ASSERT_EQ(nkht_get(h, key, nullptr), 0);
    }
}

TEST(GkhNum, failed_allocation_leaves_the_table_as_it_was)
{
    const NumTable h(8);
    ASSERT_EQ(nkht_add(h, 1, nullptr), 0);
    void* data = value(4);
    {
        const support::FailAllocation fail(1);
        EXPECT_EQ(nkht_add(h, 1, nullptr), 16) << "no record is made for a key that is there";
        EXPECT_EQ(nkht_add(h, 2, &data), 12);
    }
    EXPECT_EQ(nkht_count(h), 1U);
    EXPECT_EQ(nkht_get(h, 2, nullptr), 3);
    EXPECT_EQ(nkht_add(h, 2, &data), 0);
}

TEST(GkhNum, table_without_slots_is_invalid)
{
    RawTable raw{1, nullptr, 0, 0, 0, nullptr};
    const auto h = reinterpret_cast<nkht_t>(&raw);
    EXPECT_EQ(nkht_add(h, 1, nullptr), 22);
    EXPECT_EQ(nkht_get(h, 1, nullptr), 22);
    EXPECT_EQ(nkht_rm(h, 1, nullptr), 22);
}

TEST(GkhNum, missing_table_aborts)
{
    expect_abort("tbl != nullptr", [] { nkht_add(0, 1, nullptr); });
    expect_abort("tbl != nullptr", [] { nkht_get(0, 1, nullptr); });
    expect_abort("tbl != nullptr", [] { nkht_rm(0, 1, nullptr); });
    expect_abort("tbl != nullptr", [] { nkht_destroy(0, nullptr); });
    expect_abort("tbl != nullptr", [] { nkht_print(0, stdout, 0); });
    expect_abort("tbl != nullptr", [] { nkht_count(0); });
    expect_abort("tbl != nullptr", [] {
        nkht_iter(
            0, [](const void*, void*, void*) {}, nullptr);
    });
    const NumTable h(1);
    expect_abort("out != nullptr", [&] { nkht_print(h, nullptr, 0); });
}

// ---- texts -------------------------------------------------------------------------------------

TEST(GkhStr, results_are_those_of_numbers)
{
    const StrTable h(8);
    void* data = value(1);
    EXPECT_EQ(skht_add(h, "key", &data), 0);
    data = value(2);
    EXPECT_EQ(skht_add(h, "key", &data), 16);
    EXPECT_EQ(data, value(1));
    EXPECT_EQ(skht_get(h, "ke", &data), 3);
    EXPECT_EQ(skht_get(h, "keys", &data), 3);
    data = nullptr;
    EXPECT_EQ(skht_rm(h, "key", &data), 0);
    EXPECT_EQ(data, value(1));
    EXPECT_EQ(skht_rm(h, "key", &data), 3);
    EXPECT_EQ(skht_count(h), 0U);
    EXPECT_EQ(skht_add(h, "key", nullptr), 0);
    EXPECT_EQ(skht_get(h, "key", &data), 0);
    EXPECT_EQ(data, nullptr);
    expect_abort("key != nullptr", [&] { skht_add(h, nullptr, nullptr); });
}

TEST(GkhStr, empty_key_is_legal)
{
    const StrTable h(8);
    EXPECT_EQ(skht_add(h, "", nullptr), 0);
    EXPECT_EQ(skht_get(h, "", nullptr), 0);
    EXPECT_EQ(skht_add(h, "", nullptr), 16);
    EXPECT_EQ(skht_rm(h, "", nullptr), 0);
}

TEST(GkhStr, key_is_copied)
{
    const StrTable h(8);
    char key[] = "first";
    ASSERT_EQ(skht_add(h, key, nullptr), 0);
    strcpy(key, "other");
    EXPECT_EQ(skht_get(h, "first", nullptr), 0);
    EXPECT_EQ(skht_get(h, "other", nullptr), 3);
}

TEST(GkhStr, key_of_254_bytes_is_whole)
{
    const StrTable h(8);
    const std::string key(254, 'k');
    ASSERT_EQ(skht_add(h, key.c_str(), nullptr), 0);
    EXPECT_EQ(skht_get(h, key.c_str(), nullptr), 0);
    EXPECT_EQ(skht_add(h, key.c_str(), nullptr), 16);
    EXPECT_EQ(keys_of(h), std::vector<std::string>{key});
}

TEST(GkhStr, kept_longer_key_is_cut_and_neither_form_finds_it_again)
{
    const std::string cut(254, 'k');
    for (const size_t length : {size_t{255}, size_t{300}}) {
        const std::string key(length, 'k');
        ASSERT_NE(elfHash(key.c_str(), 0) & 4095, elfHash(cut.c_str(), 0) & 4095);
        const StrTable h(4096, elfHash);
        EXPECT_EQ(skht_add(h, key.c_str(), nullptr), 0);
        EXPECT_EQ(skht_add(h, key.c_str(), nullptr), 0);
        EXPECT_EQ(skht_count(h), 2U);
        EXPECT_EQ(skht_get(h, key.c_str(), nullptr), 3);
        EXPECT_EQ(skht_get(h, cut.c_str(), nullptr), 3);
        EXPECT_EQ(keys_of(h), (std::vector<std::string>{cut, cut}));
    }
    const StrTable single(1, one_slot);
    ASSERT_EQ(skht_add(single, std::string(300, 'k').c_str(), nullptr), 0);
    EXPECT_EQ(skht_get(single, cut.c_str(), nullptr), 0) << "one slot: the cut form finds it";
}

TEST(GkhStr, chain_is_sorted_by_unsigned_bytes)
{
    const StrTable h(64, one_slot);
    for (const char* key : {"b", "\xff", "", "ab", "a", "abc"}) {
        ASSERT_EQ(skht_add(h, key, nullptr), 0);
    }
    EXPECT_EQ(keys_of(h), (std::vector<std::string>{"", "a", "ab", "abc", "b", "\xff"}));
}

TEST(GkhStr, hash_gets_the_key_and_the_seed_of_the_table)
{
    static u_long seen_seed;
    static std::string seen_key;
    g_now = 1234567;
    const StrTable h(4, [](const void* key, u_long seed) -> u_long {
        seen_seed = seed;
        seen_key = static_cast<const char*>(key);
        return ULONG_MAX;
    });
    g_now = 0;
    ASSERT_EQ(skht_add(h, "k", nullptr), 0);
    EXPECT_EQ(seen_seed, 1234567U);
    EXPECT_EQ(seen_key, "k");
    EXPECT_EQ(skht_get(h, "k", nullptr), 0);
}

TEST(GkhStr, failed_allocation_leaves_the_table_as_it_was)
{
    const StrTable h(8);
    {
        const support::FailAllocation fail(1);
        EXPECT_EQ(skht_add(h, "k", nullptr), 12);
    }
    EXPECT_EQ(skht_count(h), 0U);
    EXPECT_EQ(skht_get(h, "k", nullptr), 3);
}

// ---- iteration, end, statistics -----------------------------------------------------------------

TEST(GkhIter, visits_every_record_once_and_passes_the_argument)
{
    const NumTable h(64, tw_shift);
    std::map<long, long> expected;
    for (long key = 1; key <= 200; ++key) {
        void* data = value(key * 3);
        ASSERT_EQ(nkht_add(h, key, &data), 0);
        expected[key] = key * 3;
    }
    std::map<long, long> seen;
    EXPECT_EQ(nkht_iter(
                  h,
                  [](const void* key, void* data, void* farg) {
                      (*static_cast<std::map<long, long>*>(farg))[reinterpret_cast<long>(key)] =
                          reinterpret_cast<long>(data);
                  },
                  &seen),
              200U);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(nkht_iter(
                  NumTable(4), [](const void*, void*, void*) { abort(); }, nullptr),
              0U);
}

namespace {
std::vector<void*> g_freed;

void note_free(void* data)
{
    g_freed.push_back(data);
}
} // namespace

TEST(GkhDestroy, every_value_is_handed_out_null_ones_included)
{
    g_freed.clear();
    nkht_t numbers = 0;
    ASSERT_EQ(nkht_create(&numbers, 1, nullptr), 0);
    void* data = value(7);
    ASSERT_EQ(nkht_add(numbers, 2, &data), 0);
    ASSERT_EQ(nkht_add(numbers, 1, nullptr), 0);
    nkht_destroy(numbers, note_free);
    EXPECT_EQ(g_freed, (std::vector<void*>{nullptr, value(7)}));

    g_freed.clear();
    skht_t texts = 0;
    ASSERT_EQ(skht_create(&texts, 1, nullptr, nullptr, 0), 0);
    ASSERT_EQ(skht_add(texts, "k", &data), 0);
    skht_destroy(texts, note_free);
    EXPECT_EQ(g_freed, std::vector<void*>{value(7)});
}

TEST(GkhDestroy, kept_table_of_impossible_size_keeps_its_records)
{
    g_freed.clear();
    void* slots[1] = {nullptr};
    auto* raw = static_cast<RawTable*>(malloc(sizeof(RawTable)));
    *raw = {1, slots, HT_MAX_CAP + 1, 0, 0, nullptr};
    nkht_destroy(reinterpret_cast<nkht_t>(raw), note_free); // would free the array on the stack otherwise
    EXPECT_TRUE(g_freed.empty());
}

TEST(GkhPrint, texts_of_an_empty_table)
{
    g_now = 77;
    const NumTable h(512);
    g_now = 0;
    char head[128];
    snprintf(head, sizeof head, "Hash [%p;seed=77] contains: \n\t0 records; slots: 0/512\n",
             reinterpret_cast<void*>(static_cast<nkht_t>(h)));
    EXPECT_EQ(printed_num(h, 0), std::string(head) + "Max chain length: 0\n");
    EXPECT_EQ(printed_num(h, 1),
              std::string(head) + "Max chain length: 0\n" + "\nHash slots (total=0):\n" + "\n");
}

TEST(GkhPrint, string_slots_show_chain_length_and_last_key)
{
    g_now = 78;
    const StrTable h(4, [](const void* key, u_long) -> u_long {
        return static_cast<u_long>(static_cast<const char*>(key)[0] - 'a');
    });
    g_now = 0;
    for (const char* key : {"a2", "a1", "a3", "d"}) {
        ASSERT_EQ(skht_add(h, key, nullptr), 0);
    }
    char head[160];
    snprintf(head, sizeof head,
             "Hash [%p;seed=78] contains: \n\t4 records; slots: 2/4\nMax chain length: 3\n",
             reinterpret_cast<void*>(static_cast<skht_t>(h)));
    EXPECT_EQ(printed_str(h, 0), head);
    EXPECT_EQ(printed_str(h, 1), std::string(head) + "\nHash slots (total=4):\n0:(3:a3);3:(1:d);\n");
}

TEST(GkhPrint, kept_numeric_slots_show_the_address_of_the_last_key)
{
    const NumTable h(4);
    for (const long key : {4L, 8L, 3L}) {
        ASSERT_EQ(nkht_add(h, key, nullptr), 0);
    }
    const std::string text = printed_num(h, 2);
    const std::string list = text.substr(text.find("(total=3):\n") + 11);
    long first = 0;
    long second = 0;
    int end = 0;
    ASSERT_EQ(sscanf(list.c_str(), "0:(2:%ld);3:(1:%ld);%n", &first, &second, &end), 2) << list;
    EXPECT_EQ(list.substr(static_cast<size_t>(end)), "\n");
    EXPECT_EQ(*reinterpret_cast<long*>(first), 8);
    EXPECT_EQ(*reinterpret_cast<long*>(second), 3);
}

TEST(GkhPrint, lack_of_memory_is_told_in_the_output)
{
    const NumTable h(4);
    char text[256] = "";
    FILE* out = fmemopen(text, sizeof text, "w");
    setvbuf(out, nullptr, _IONBF, 0);
    {
        const support::FailAllocation fail(1);
        nkht_print(h, out, 1);
        EXPECT_TRUE(fail.happened());
    }
    fclose(out);
    EXPECT_STREQ(text, "dump: out of memory\n");
    EXPECT_NE(printed_num(h, 0).find("slots: 0/4"), std::string::npos) << "the next print works";
}

// ---- beside a model ----------------------------------------------------------------------------

namespace {

template <class Key>
struct Calls;

template <>
struct Calls<long> {
    using Handle = nkht_t;

    static long key(uint32_t number) { return 1L + number % 0x7ffffffe; }

    static int add(Handle h, long k, void** pdat) { return nkht_add(h, k, pdat); }

    static int rm(Handle h, long k, void** pdat) { return nkht_rm(h, k, pdat); }

    static int get(Handle h, long k, void** pdat) { return nkht_get(h, k, pdat); }

    static size_t count(Handle h) { return nkht_count(h); }
};

template <>
struct Calls<std::string> {
    using Handle = skht_t;

    static std::string key(uint32_t number)
    {
        return std::to_string(number) + std::string(number % 200, 'x');
    }

    static int add(Handle h, const std::string& k, void** pdat) { return skht_add(h, k.c_str(), pdat); }

    static int rm(Handle h, const std::string& k, void** pdat) { return skht_rm(h, k.c_str(), pdat); }

    static int get(Handle h, const std::string& k, void** pdat) { return skht_get(h, k.c_str(), pdat); }

    static size_t count(Handle h) { return skht_count(h); }
};

// One random operation on both; false when the two differ.
template <class Key>
void step(typename Calls<Key>::Handle h, std::map<Key, void*>& model, std::mt19937& random, uint32_t range)
{
    using C = Calls<Key>;
    // A few keys near each other and a few far ones.
    const uint32_t number = random() % range;
    const Key key = C::key(random() % 4 == 0 ? number * 2654435761U % range * 1000003U : number);
    const auto known = model.find(key);
    void* const fresh = value(static_cast<long>(random()));
    void* data = fresh;
    switch (random() % 3) {
    case 0:
        ASSERT_EQ(C::add(h, key, &data), known != model.end() ? 16 : 0);
        ASSERT_EQ(data, known != model.end() ? known->second : fresh);
        model.emplace(key, fresh);
        break;
    case 1:
        ASSERT_EQ(C::rm(h, key, &data), known != model.end() ? 0 : 3);
        ASSERT_EQ(data, known != model.end() ? known->second : fresh);
        model.erase(key);
        break;
    default:
        ASSERT_EQ(C::get(h, key, &data), known != model.end() ? 0 : 3);
        ASSERT_EQ(data, known != model.end() ? known->second : fresh);
        break;
    }
    ASSERT_EQ(C::count(h), model.size());
}

template <class Key>
void run_model(typename Calls<Key>::Handle h, uint32_t seed, int steps)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::map<Key, void*> model;
    for (int i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
        step<Key>(h, model, random, 200 + seed % 3 * 2000);
    }
    std::vector<Key> keys = keys_of(h);
    std::sort(keys.begin(), keys.end());
    std::vector<Key> expected;
    for (const auto& entry : model) {
        expected.push_back(entry.first);
    }
    EXPECT_EQ(keys, expected);
}

} // namespace

TEST(GkhModel, numbers_beside_a_map)
{
    const khash_t hashes[] = {nullptr, tw_shift, one_slot};
    for (uint32_t seed = 1; seed <= 12; ++seed) {
        const NumTable h(1 + seed * 37, hashes[seed % 3]);
        run_model<long>(h, seed, 8000);
        const std::string text = printed_num(h, 0);
        EXPECT_NE(text.find("\t" + std::to_string(nkht_count(h)) + " records;"), std::string::npos) << text;
    }
}

TEST(GkhModel, texts_beside_a_map)
{
    const khash_t hashes[] = {nullptr, elfHash, one_slot};
    for (uint32_t seed = 101; seed <= 109; ++seed) {
        const StrTable h(1 + seed, hashes[seed % 3]);
        run_model<std::string>(h, seed, 5000);
        const std::string text = printed_str(h, 0);
        EXPECT_NE(text.find("\t" + std::to_string(skht_count(h)) + " records;"), std::string::npos) << text;
    }
}

TEST(GkhModel, a_table_kept_full_of_near_groups_loses_none)
{
    const NumTable h(512, tw_shift);
    std::mt19937 random(9);
    std::vector<long> present;
    for (long i = 0; i < 512; ++i) {
        present.push_back(static_cast<long>(htole32(0x010000e0U + (static_cast<uint32_t>(i) << 16))));
        ASSERT_EQ(nkht_add(h, present.back(), nullptr), 0);
    }
    for (int round = 0; round < 20000; ++round) {
        const size_t i = random() % present.size();
        ASSERT_EQ(nkht_rm(h, present[i], nullptr), 0);
        ASSERT_EQ(nkht_add(h, present[i], nullptr), 0);
    }
    EXPECT_EQ(nkht_count(h), 512U);
}
