// Random operations on the three containers beside models that do everything the plain way: no note of the
// last delete, no skipping of free stretches. After each operation all fields are compared. Reallocations
// fail at every n in turn.
#include "xvdat.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "oom.h"

namespace {

constexpr size_t kSize = sizeof(long);

using Random = std::mt19937_64;

uint64_t below(Random& random, uint64_t limit)
{
    return random() % limit;
}

// Which reallocation fails, counted on both sides.
struct Failure {
    size_t at = 0; // 0: none
    size_t count = 0;

    bool next_fails() { return ++count == at; }
};

// ---- slot list, step by step -----------------------------------------------------------------------

struct PlainList {
    size_t len = 0;
    size_t max_len = 0;
    size_t last = 0;
    ssize_t avail = 0;
    bool fixed = false;
    bool lost = false; // the map could not grow
    std::vector<char> taken;
    std::vector<long> data;

    int reserve(size_t new_max, size_t growblk, Failure& failure)
    {
        if (max_len >= new_max) {
            return 0;
        }
        if (fixed) {
            return ERR_XV_FIXED;
        }
        if (lost || failure.next_fails()) {
            return -1;
        }
        const size_t old_max = max_len;
        max_len = ((new_max - 1) / growblk + 1) * growblk;
        data.resize(max_len);
        if (failure.next_fails()) {
            lost = true;
            return -1;
        }
        taken.resize(max_len);
        if (avail < 0) {
            avail = static_cast<ssize_t>(old_max);
        }
        return 0;
    }

    void find_avail(size_t s)
    {
        avail = -1;
        for (size_t i = s + 1; i < max_len; ++i) {
            if (taken[i] == 0) {
                avail = static_cast<ssize_t>(i);
                return;
            }
        }
    }

    ssize_t take()
    {
        if (avail < 0 || lost) {
            return -1;
        }
        const auto s = static_cast<size_t>(avail);
        EXPECT_EQ(taken[s], 0);
        taken[s] = 1;
        last = std::max(last, s);
        find_avail(s);
        ++len;
        return static_cast<ssize_t>(s);
    }

    ssize_t add(size_t growblk, Failure& failure)
    {
        const int rc = reserve(len + 1, growblk, failure);
        return rc != 0 ? rc : take();
    }

    int del(size_t index)
    {
        if (index > last) {
            return ERANGE;
        }
        if (lost || taken[index] == 0) {
            return EALREADY;
        }
        taken[index] = 0;
        if (avail < 0 || static_cast<size_t>(avail) > index) {
            avail = static_cast<ssize_t>(index);
        }
        --len;
        return 0;
    }

    void purge()
    {
        if (len == 0) {
            return;
        }
        last = 0;
        len = 0;
        avail = max_len != 0 ? 0 : -1;
        std::fill(taken.begin(), taken.end(), 0);
    }

    std::vector<size_t> walk() const
    {
        std::vector<size_t> slots;
        for (size_t i = 0; !lost && i <= last && i < taken.size(); ++i) {
            if (taken[i] != 0) {
                slots.push_back(i);
            }
        }
        return slots;
    }
};

struct Visit {
    std::vector<size_t> slots;
    std::vector<long> values;
};

int visit(void* data, size_t index, void* aux)
{
    auto* v = static_cast<Visit*>(aux);
    v->slots.push_back(index);
    v->values.push_back(static_cast<long*>(data)[index]);
    return 0;
}

int visit_in_vector(void* data, size_t index, void* aux)
{
    return visit(data, index, aux);
}

int is_multiple(void* data, size_t index, void* of)
{
    return static_cast<long*>(data)[index] % *static_cast<long*>(of) == 0 ? 1 : 0;
}

int g_cleaned = 0;

void count_cleanup(void*, size_t)
{
    ++g_cleaned;
}

// What the fields and the elements say, beside the model.
void compare(const xvlst& l, const PlainList& m)
{
    ASSERT_EQ(l.len, m.len);
    ASSERT_EQ(l.max_len, m.max_len);
    ASSERT_EQ(l.last, m.last);
    ASSERT_EQ(l.avail, m.avail);
    ASSERT_EQ(l.taken == nullptr, m.lost || m.max_len == 0);
    if (l.taken != nullptr) {
        ASSERT_EQ(memcmp(l.taken, m.taken.data(), m.max_len), 0);
    }
    ASSERT_TRUE(m.max_len == 0 || memcmp(l.data, m.data.data(), m.max_len * kSize) == 0);
}

// One list with its model.
struct Pair {
    xvlst l = NULL_xvlst;
    PlainList m;
    std::unique_ptr<char[]> buffer;

    ~Pair() { xvlst_reset(&l); }

    // A list that grows, one in a buffer or a mapped one.
    void make(unsigned kind, size_t count)
    {
        xvlst_reset(&l);
        buffer.reset();
        m = {};
        if (kind == 0) {
            return;
        }
        if (kind == 1) {
            const size_t bytes = count * (kSize + 1);
            buffer = std::make_unique<char[]>(bytes);
            ASSERT_EQ(xvlst_bind(&l, buffer.get(), bytes, kSize), 0);
        } else {
            ASSERT_EQ(xvlst_mmap_fixed(&l, count, kSize), 0);
        }
        m.fixed = true;
        m.max_len = count;
        m.taken.assign(count, 0);
        m.data.assign(count, 0);
    }
};

void add_one(Pair& p, size_t growblk, long value, Failure& failure)
{
    const ssize_t want = p.m.add(growblk, failure);
    const ssize_t slot = xvlst_add(&p.l, kSize, growblk);
    ASSERT_EQ(slot, want);
    if (slot >= 0) {
        static_cast<long*>(p.l.data)[slot] = value;
        p.m.data[static_cast<size_t>(slot)] = value;
    }
}

void delete_one(Pair& p, size_t index, bool with_cleanup)
{
    if (p.m.len == 0) {
        return;
    }
    const int want = p.m.del(index);
    g_cleaned = 0;
    ASSERT_EQ(xvlst_del(&p.l, index, with_cleanup ? count_cleanup : nullptr), want) << index;
    ASSERT_EQ(g_cleaned, with_cleanup && want == 0 ? 1 : 0);
}

void walk_all(Pair& p)
{
    const std::vector<size_t> slots = p.m.walk();
    Visit seen;
    ASSERT_EQ(xvlst_each_aux(&p.l, &seen, visit, nullptr), 0);
    ASSERT_EQ(seen.slots, slots);
    Visit found;
    ASSERT_EQ(xvlst_find(&p.l, &found, visit, nullptr), 0);
    ASSERT_EQ(found.slots, slots);
    for (size_t i = 0; i < slots.size(); ++i) {
        ASSERT_EQ(seen.values[i], p.m.data[slots[i]]);
    }
}

void remove_multiples(Pair& p, long of)
{
    int removed = 0;
    for (const size_t i : p.m.walk()) {
        if (p.m.data[i] % of == 0) {
            ASSERT_EQ(p.m.del(i), 0);
            ++removed;
        }
    }
    ASSERT_EQ(xvlst_rmif(&p.l, &of, is_multiple, nullptr), removed);
}

size_t some_slot(Random& random, const PlainList& m)
{
    const std::vector<size_t> slots = m.walk();
    if (slots.empty() || below(random, 8) == 0) {
        return below(random, m.last + 3);
    }
    return slots[below(random, slots.size())];
}

void purge(Pair& p, bool with_cleanup)
{
    const bool cleanup = with_cleanup && !p.m.lost;
    g_cleaned = 0;
    const int want = cleanup ? static_cast<int>(p.m.len) : 0;
    p.m.purge();
    xvlst_purge_all(&p.l, cleanup ? count_cleanup : nullptr);
    ASSERT_EQ(g_cleaned, want);
}

void step(Random& random, Pair& p, Failure& failure, unsigned adds)
{
    const uint64_t what = below(random, 100);
    const size_t growblk = 1 + below(random, 9);
    if (what < adds) {
        add_one(p, growblk, static_cast<long>(random() >> 8), failure);
    } else if (what < 90) {
        delete_one(p, some_slot(random, p.m), below(random, 4) == 0);
    } else if (what < 94) {
        const size_t new_max = below(random, p.m.max_len + 12);
        const int want = p.m.reserve(new_max, growblk, failure);
        ASSERT_EQ(xvlst_reserve(&p.l, new_max, kSize, growblk), want);
    } else if (what < 96) {
        remove_multiples(p, static_cast<long>(2 + below(random, 5)));
    } else if (what < 97) {
        purge(p, below(random, 2) == 0);
    } else {
        walk_all(p);
    }
    compare(p.l, p.m);
}

void swap_records(Pair& a, Pair& b)
{
    std::swap(a.l, b.l);
    std::swap(a.m, b.m);
    std::swap(a.buffer, b.buffer);
}

// Two lists in turn, whose records also change places: what is remembered of one must not be taken for the
// other's. kinds: 1 for growing lists alone, 3 for all.
void run_lists(uint64_t seed, size_t steps, unsigned kinds, Failure& failure)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    Pair pairs[2];
    for (Pair& p : pairs) {
        p.make(static_cast<unsigned>(below(random, 4)) % kinds, 1 + below(random, 60));
    }
    const auto adds = static_cast<unsigned>(40 + below(random, 25));
    for (size_t i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
        Pair& p = pairs[below(random, 5) == 0 ? 1 : 0];
        if (below(random, 200) == 0) {
            p.make(static_cast<unsigned>(below(random, kinds)), 1 + below(random, 60));
        }
        if (below(random, 20) == 0) {
            swap_records(pairs[0], pairs[1]);
        }
        step(random, p, failure, adds);
    }
}

TEST(XvlstModel, random_operations_equal_the_plain_algorithm)
{
    for (uint64_t seed = 1; seed <= 150 && !HasFatalFailure(); ++seed) {
        Failure none;
        run_lists(seed, 600, 3, none);
    }
    std::random_device device;
    const uint64_t seed = device();
    printf("seed %lu\n", static_cast<unsigned long>(seed));
    Failure none;
    run_lists(seed, 5000, 3, none);
}

TEST(XvlstModel, random_operations_with_a_reallocation_failing_at_every_n)
{
    bool happened = true;
    for (size_t n = 1; happened && !HasFatalFailure(); ++n) {
        Failure failure{n};
        const support::FailAllocation fail(n);
        run_lists(1000 + n % 7, 1000, 1, failure);
        happened = fail.happened();
        ASSERT_EQ(happened, failure.count >= n);
        ASSERT_TRUE(happened || n > 50) << n;
    }
}

// Delete and add in turn on a full list, on one with one hole and on one with many: the paths of the
// remembered delete.
TEST(XvlstModel, churn_at_every_fill_equals_the_plain_algorithm)
{
    Failure none;
    for (const size_t holes : {0U, 1U, 2U, 100U}) {
        Random random(77 + holes);
        Pair p;
        for (size_t i = 0; i < 500; ++i) {
            add_one(p, 64, static_cast<long>(i), none);
        }
        for (size_t i = 0; i < holes; ++i) {
            delete_one(p, some_slot(random, p.m), false);
        }
        for (size_t i = 0; i < 1500 && !HasFatalFailure(); ++i) {
            delete_one(p, some_slot(random, p.m), i % 16 == 0);
            compare(p.l, p.m);
            add_one(p, 64, static_cast<long>(i), none);
            compare(p.l, p.m);
        }
    }
}

// ---- vector -------------------------------------------------------------------------------------------

struct PlainVector {
    std::vector<long> data;
    size_t len = 0;
    bool fixed = false;

    int reserve(size_t new_max, size_t growblk, Failure& failure)
    {
        if (data.size() > new_max) {
            return 0;
        }
        if (fixed) {
            return ERR_XV_FIXED;
        }
        if (new_max == 0) {
            return 0;
        }
        if (failure.next_fails()) {
            return -1;
        }
        data.resize(((new_max - 1) / growblk + 1) * growblk);
        return 0;
    }

    int expand(size_t plus, size_t growblk, Failure& failure)
    {
        return fixed ? static_cast<int>(ERR_XV_FIXED) : reserve(len + plus, growblk, failure);
    }

    ssize_t add(size_t growblk, Failure& failure)
    {
        const bool room = fixed ? len < data.size() : expand(1, growblk, failure) == 0;
        return room ? static_cast<ssize_t>(len++) : -1;
    }

    void reset()
    {
        if (!fixed) {
            data.clear();
        }
        len = 0;
    }
};

void compare(xvec& v, const PlainVector& m)
{
    ASSERT_EQ(v.len, m.len);
    ASSERT_EQ(v.max_len, m.data.size());
    ASSERT_EQ(v.data == nullptr, m.data.empty());
    ASSERT_TRUE(m.data.empty() || memcmp(v.data, m.data.data(), m.data.size() * kSize) == 0);
    Visit seen;
    ASSERT_EQ(xvec_each_aux(&v, visit_in_vector, &seen, nullptr), 0);
    ASSERT_EQ(seen.values, std::vector<long>(m.data.begin(), m.data.begin() + static_cast<long>(m.len)));
}

void run_vector(uint64_t seed, size_t steps, Failure& failure)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    alignas(long) char buffer[40 * kSize];
    xvec v = NULL_xvec;
    PlainVector m;
    if (seed % 4 == 0) {
        const size_t count = 1 + below(random, 40);
        ASSERT_EQ(xvec_bind(&v, buffer, count * kSize, kSize), 0);
        m.data.resize(count);
        m.fixed = true;
    }
    for (size_t i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
        const uint64_t what = below(random, 100);
        const size_t growblk = 1 + below(random, 9);
        if (what < 80) {
            const ssize_t want = m.add(growblk, failure);
            const ssize_t index = xvec_add(&v, kSize, growblk);
            ASSERT_EQ(index, want);
            if (index >= 0) {
                const auto value = static_cast<long>(random());
                static_cast<long*>(v.data)[index] = value;
                m.data[static_cast<size_t>(index)] = value;
            }
        } else if (what < 88) {
            const size_t new_max = below(random, m.data.size() + 12);
            const int want = m.reserve(new_max, growblk, failure);
            ASSERT_EQ(xvec_reserve(&v, new_max, kSize, growblk), want);
        } else if (what < 96) {
            const size_t plus = 1 + below(random, 20);
            const int want = m.expand(plus, growblk, failure);
            ASSERT_EQ(xvec_expand(&v, plus, kSize, growblk), want);
        } else {
            m.reset();
            xvec_reset(&v);
        }
        compare(v, m);
    }
    v.flags &= ~static_cast<uint32_t>(m.fixed ? 0 : XV_FIXED_SIZE);
    xvec_reset(&v);
}

TEST(XvecModel, random_operations_equal_the_plain_algorithm)
{
    for (uint64_t seed = 1; seed <= 100 && !HasFatalFailure(); ++seed) {
        Failure none;
        run_vector(seed, 200, none);
    }
    std::random_device device;
    const uint64_t seed = device();
    printf("seed %lu\n", static_cast<unsigned long>(seed));
    Failure none;
    run_vector(seed, 2000, none);
}

TEST(XvecModel, random_operations_with_a_reallocation_failing_at_every_n)
{
    bool happened = true;
    for (size_t n = 1; happened && !HasFatalFailure(); ++n) {
        Failure failure{n};
        const support::FailAllocation fail(n);
        run_vector(1001 + 4 * (n % 5), 200, failure);
        happened = fail.happened();
        ASSERT_EQ(happened, failure.count >= n);
        ASSERT_TRUE(happened || n > 20) << n;
    }
}

// ---- embedded list --------------------------------------------------------------------------------------

void compare(const emblst* el, const PlainList& m)
{
    ASSERT_EQ(el->count, m.len);
    ASSERT_EQ(el->max_count, m.max_len);
    ASSERT_EQ(el->last, m.last);
    ASSERT_EQ(el->avail, m.avail);
    const char* bytes = reinterpret_cast<const char*>(el);
    ASSERT_EQ(memcmp(bytes + el->taken_offt, m.taken.data(), m.max_len), 0);
    ASSERT_EQ(memcmp(&el->data, m.data.data(), m.max_len * kSize), 0);
}

void run_embedded(uint64_t seed, size_t steps)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    const size_t count = 1 + below(random, 80);
    const size_t bytes = offsetof(emblst, data) + count * (kSize + 1);
    std::unique_ptr<long[]> buffer(new long[(bytes + 7) / 8]());
    emblst* el = emblst_create(buffer.get(), bytes, kSize);
    ASSERT_NE(el, nullptr);
    PlainList m;
    m.max_len = count;
    m.taken.resize(count);
    m.data.resize(count);
    const auto adds = static_cast<unsigned>(45 + below(random, 15));
    for (size_t i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
        const uint64_t what = below(random, 100);
        if (what < adds) {
            const ssize_t want = m.take();
            const ssize_t slot = emblst_add(el);
            ASSERT_EQ(slot, want);
            if (slot >= 0) {
                (&el->data.lval)[slot] = m.data[static_cast<size_t>(slot)] = static_cast<long>(random());
            }
        } else if (what < 95) {
            const size_t index = some_slot(random, m);
            if (m.len > 0) {
                const int want = m.del(index);
                ASSERT_EQ(emblst_del(el, index, nullptr), want);
            }
        } else if (what < 98) {
            Visit seen;
            ASSERT_EQ(emblst_each_aux(el, &seen, visit, nullptr), 0);
            ASSERT_EQ(seen.slots, m.walk());
        } else {
            std::unique_ptr<long[]> copy(new long[(bytes + 7) / 8]());
            ASSERT_EQ(emblst_copy(el, copy.get(), bytes), copy.get());
            buffer = std::move(copy);
            el = reinterpret_cast<emblst*>(buffer.get());
        }
        compare(el, m);
    }
}

namespace {

std::vector<size_t> walked(const struct xvlst& l)
{
    std::vector<size_t> slots;
    struct xvlst_walk walk = {0, 0};
    for (ssize_t slot = xvlst_next(&l, &walk); slot >= 0; slot = xvlst_next(&l, &walk)) {
        slots.push_back(static_cast<size_t>(slot));
    }
    return slots;
}

} // namespace

TEST(XvlstNext, gives_what_is_taken_in_lists_of_any_length)
{
    Random random(5);
    for (size_t slots = 1; slots < 200; ++slots) {
        std::vector<char> room(slots * (kSize + 1)); // just the map's length: a look behind it is seen
        struct xvlst l = NULL_xvlst;
        ASSERT_EQ(xvlst_bind(&l, room.data(), room.size(), kSize), 0);
        EXPECT_TRUE(walked(l).empty());
        std::vector<size_t> taken;
        for (size_t i = 0; i < slots; ++i) {
            ASSERT_EQ(xvlst_add(&l, kSize, 1), static_cast<ssize_t>(i));
            taken.push_back(i);
        }
        EXPECT_EQ(walked(l), taken);
        const uint64_t one_in = 1 + below(random, 8);
        for (size_t i = taken.size(); i-- > 0 && taken.size() > 1;) {
            if (below(random, one_in) == 0) {
                ASSERT_EQ(xvlst_del(&l, taken[i], nullptr), 0);
                taken.erase(taken.begin() + static_cast<ptrdiff_t>(i));
            }
        }
        EXPECT_EQ(walked(l), taken) << slots;
    }
}

TEST(XvlstNext, body_may_free_the_slot_that_it_is_given)
{
    struct xvlst l = NULL_xvlst;
    EXPECT_TRUE(walked(l).empty());
    for (size_t i = 0; i < 150; ++i) {
        ASSERT_GE(xvlst_add(&l, kSize, 7), 0);
    }
    size_t given = 0;
    struct xvlst_walk walk = {0, 0};
    for (ssize_t slot = xvlst_next(&l, &walk); slot >= 0; slot = xvlst_next(&l, &walk)) {
        EXPECT_EQ(slot, static_cast<ssize_t>(given++));
        if (slot % 2 == 0) {
            EXPECT_EQ(xvlst_del(&l, static_cast<size_t>(slot), nullptr), 0);
        }
    }
    EXPECT_EQ(given, 150U);
    EXPECT_EQ(l.len, 75U);
    EXPECT_EQ(walked(l).size(), 75U);
    xvlst_reset(&l);
    EXPECT_TRUE(walked(l).empty());
}

TEST(EmblstModel, random_operations_equal_the_plain_algorithm)
{
    for (uint64_t seed = 1; seed <= 150 && !HasFatalFailure(); ++seed) {
        run_embedded(seed, 400);
    }
    std::random_device device;
    const uint64_t seed = device();
    printf("seed %lu\n", static_cast<unsigned long>(seed));
    run_embedded(seed, 5000);
}

} // namespace
