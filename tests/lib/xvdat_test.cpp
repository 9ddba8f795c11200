// The containers of fixed-size elements, operation by operation.
#include "xvdat.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "oom.h"

using support::expect_assertion;

namespace {

constexpr size_t kSize = sizeof(long);

void expect_abort_without_words(const std::function<void()>& body)
{
    EXPECT_EQ(support::expect_abort("", body), "");
}

long& element(void* data, size_t index)
{
    return static_cast<long*>(data)[index];
}

long& element(const xvec& v, size_t index)
{
    return element(v.data, index);
}

long& element(const xvlst& l, size_t index)
{
    return element(l.data, index);
}

// What callbacks have seen, and what they answer.
struct Seen {
    std::vector<size_t> indices;
    const void* base = nullptr;
    int answer = 0;
    size_t only = SIZE_MAX; // the answer is for this index alone
    std::function<void(size_t)> act;
};

Seen* g_seen = nullptr;

int see(void* data, size_t index)
{
    g_seen->indices.push_back(index);
    g_seen->base = data;
    if (g_seen->act) {
        g_seen->act(index);
    }
    return g_seen->only == SIZE_MAX || g_seen->only == index ? g_seen->answer : 0;
}

int see_aux(void* data, size_t index, void* aux)
{
    Seen* before = g_seen;
    g_seen = static_cast<Seen*>(aux);
    const int rc = see(data, index);
    g_seen = before;
    return rc;
}

void see_cleanup(void* data, size_t index)
{
    see(data, index);
}

int equals(void* data, size_t index, void* what)
{
    return element(data, index) == *static_cast<long*>(what) ? 9 : 0;
}

class Xvdat : public testing::Test {
  protected:
    Xvdat() { g_seen = &seen; }

    Seen seen;
};

class Xvec : public Xvdat {
  protected:
    ~Xvec() override { xvec_reset(&v); }

    void fill(size_t count, size_t growblk = 4)
    {
        for (size_t i = 0; i < count; ++i) {
            const ssize_t index = xvec_add(&v, kSize, growblk);
            ASSERT_GE(index, 0);
            element(v, static_cast<size_t>(index)) = 100 + index;
        }
    }

    xvec v = NULL_xvec;
};

class Xvlst : public Xvdat {
  protected:
    ~Xvlst() override { xvlst_reset(&l); }

    void fill(size_t count, size_t growblk = 1)
    {
        for (size_t i = 0; i < count; ++i) {
            const ssize_t slot = xvlst_add(&l, kSize, growblk);
            ASSERT_GE(slot, 0);
            element(l, static_cast<size_t>(slot)) = 100 + slot;
        }
    }

    xvlst l = NULL_xvlst;
};

class Emblst : public Xvdat {
  protected:
    emblst* create(size_t count, size_t blksz = kSize)
    {
        return emblst_create(buf, offsetof(emblst, data) + count * (blksz + 1), blksz);
    }

    alignas(long) char buf[1024] = {};
};

// ---- data model ---------------------------------------------------------------------------------

TEST(XvdatTypes, the_values_of_flags_and_codes)
{
    EXPECT_EQ(XV_ABORT_ENOMEM, 1);
    EXPECT_EQ(XV_FIXED_SIZE, 2);
    EXPECT_EQ(XV_MMAP, 4);
    EXPECT_EQ(ERR_XV_FIXED, -11);
    EXPECT_EQ(xvdat_flags, 0U);
}

TEST(XvdatTypes, a_list_begins_with_the_fields_of_a_vector)
{
    EXPECT_EQ(offsetof(xvlst, data), offsetof(xvec, data));
    EXPECT_EQ(offsetof(xvlst, len), offsetof(xvec, len));
    EXPECT_EQ(offsetof(xvlst, max_len), offsetof(xvec, max_len));
    EXPECT_EQ(offsetof(xvlst, flags), offsetof(xvec, flags));
    EXPECT_LT(offsetof(xvlst, flags), offsetof(xvlst, taken));
    EXPECT_LT(offsetof(xvlst, taken), offsetof(xvlst, last));
    EXPECT_LT(offsetof(xvlst, last), offsetof(xvlst, avail));
    EXPECT_LT(offsetof(xvlst, avail), offsetof(xvlst, meta));
}

TEST(XvdatTypes, the_header_of_an_embedded_list)
{
    EXPECT_EQ(offsetof(emblst, count), 0U);
    EXPECT_EQ(offsetof(emblst, max_count), 8U);
    EXPECT_EQ(offsetof(emblst, last), 16U);
    EXPECT_EQ(offsetof(emblst, avail), 24U);
    EXPECT_EQ(offsetof(emblst, flags), 32U);
    EXPECT_EQ(offsetof(emblst, taken_offt), 40U);
    EXPECT_EQ(offsetof(emblst, data), 48U);
}

TEST(XvdatTypes, the_initial_values_are_zeros)
{
    const xvec v = NULL_xvec;
    const xvlst l = NULL_xvlst;
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.len + v.max_len + v.flags, 0U);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.len + l.max_len + l.flags + l.last, 0U);
    EXPECT_EQ(l.taken, nullptr);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(l.meta.num, 0);
}

// ---- vector: capacity -----------------------------------------------------------------------------

TEST_F(Xvec, capacity_is_rounded_up_to_whole_growth_blocks)
{
    EXPECT_EQ(xvec_reserve(&v, 1, kSize, 10), 0);
    EXPECT_EQ(v.max_len, 10U);
    EXPECT_EQ(xvec_reserve(&v, 11, kSize, 10), 0);
    EXPECT_EQ(v.max_len, 20U);
    EXPECT_EQ(xvec_reserve(&v, 30, kSize, 10), 0);
    EXPECT_EQ(v.max_len, 30U);
    EXPECT_EQ(xvec_reserve(&v, 31, kSize, 7), 0);
    EXPECT_EQ(v.max_len, 35U);
    EXPECT_EQ(v.len, 0U);
}

TEST_F(Xvec, new_elements_are_zero_and_old_ones_are_kept)
{
    fill(3, 3);
    ASSERT_EQ(xvec_reserve(&v, 50, kSize, 3), 0);
    EXPECT_EQ(element(v, 0), 100);
    EXPECT_EQ(element(v, 2), 102);
    for (size_t i = 3; i < v.max_len; ++i) {
        EXPECT_EQ(element(v, i), 0) << i;
    }
}

TEST_F(Xvec, a_reserve_below_the_capacity_does_not_shrink)
{
    ASSERT_EQ(xvec_reserve(&v, 20, kSize, 10), 0);
    const void* data = v.data;
    EXPECT_EQ(xvec_reserve(&v, 19, kSize, 10), 0);
    EXPECT_EQ(xvec_reserve(&v, 0, kSize, 10), 0);
    EXPECT_EQ(v.max_len, 20U);
    EXPECT_EQ(v.data, data);
}

TEST_F(Xvec, kept_a_reserve_of_exactly_the_capacity_reallocates_to_the_same_size)
{
    ASSERT_EQ(xvec_reserve(&v, 20, kSize, 10), 0);
    const size_t before = support::allocation_count();
    EXPECT_EQ(xvec_reserve(&v, 20, kSize, 10), 0);
    EXPECT_EQ(support::allocation_count(), before + 1);
    EXPECT_EQ(v.max_len, 20U);
    EXPECT_EQ(xvec_reserve(&v, 19, kSize, 10), 0);
    EXPECT_EQ(support::allocation_count(), before + 1);
}

TEST_F(Xvec, a_reserve_of_exactly_the_capacity_with_another_block_rounds_up_anew)
{
    ASSERT_EQ(xvec_reserve(&v, 20, kSize, 10), 0);
    EXPECT_EQ(xvec_reserve(&v, 20, kSize, 16), 0);
    EXPECT_EQ(v.max_len, 32U);
}

TEST_F(Xvec, a_reserve_of_nothing_for_an_empty_vector_allocates_nothing)
{
    EXPECT_EQ(xvec_reserve(&v, 0, kSize, 10), 0);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.max_len, 0U);
}

TEST_F(Xvec, a_size_that_cannot_be_counted_is_refused)
{
    fill(2);
    const xvec before = v;
    errno = 0;
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX / 4, kSize, 1), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX, 1, 1), -1);
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX - 1, 1, SIZE_MAX / 2), -1);
    EXPECT_EQ(xvec_reserve(&v, static_cast<size_t>(PTRDIFF_MAX) + 1, 1, 1), -1);
    EXPECT_EQ(xvec_reserve(&v, 8, SIZE_MAX / 2, 1), -1);
    EXPECT_EQ(xvec_expand(&v, SIZE_MAX, kSize, 4), -1);
    EXPECT_EQ(memcmp(&before, &v, sizeof v), 0);
    EXPECT_EQ(element(v, 1), 101);
}

TEST_F(Xvec, elements_of_no_size_have_indices_alone)
{
    EXPECT_EQ(xvec_reserve(&v, 3, 0, 4), 0);
    EXPECT_EQ(xvec_reserve(&v, 4, 0, 4), 0);
    EXPECT_EQ(xvec_reserve(&v, 9, 0, 4), 0);
    EXPECT_EQ(v.max_len, 12U);
    EXPECT_NE(v.data, nullptr);
}

TEST_F(Xvec, a_failed_reallocation_leaves_the_vector_as_it_was)
{
    fill(4);
    const xvec before = v;
    const support::FailAllocation fail(1);
    EXPECT_EQ(xvec_reserve(&v, 5, kSize, 4), -1);
    EXPECT_TRUE(fail.happened());
    EXPECT_EQ(memcmp(&before, &v, sizeof v), 0);
    EXPECT_EQ(element(v, 3), 103);
}

TEST_F(Xvec, an_add_answers_minus_one_when_memory_runs_out_and_goes_on_later)
{
    fill(3);
    {
        const support::FailAllocation fail(1);
        EXPECT_EQ(xvec_add(&v, kSize, 4), -1); // room for the fourth, but the test of a reserve is strict
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(v.len, 3U);
    EXPECT_EQ(xvec_add(&v, kSize, 4), 3);
}

TEST_F(Xvec, a_failed_reallocation_aborts_where_the_application_says_so)
{
    expect_abort_without_words([this] {
        xvdat_flags = XV_ABORT_ENOMEM;
        const support::FailAllocation fail(1);
        xvec_add(&v, kSize, 4);
    });
    expect_abort_without_words([this] {
        xvdat_flags = XV_ABORT_ENOMEM;
        xvec_reserve(&v, SIZE_MAX, kSize, 4);
    });
}

TEST_F(Xvec, kept_the_flag_in_the_containers_own_flags_does_not_abort)
{
    v.flags = XV_ABORT_ENOMEM;
    const support::FailAllocation fail(1);
    EXPECT_EQ(xvec_add(&v, kSize, 4), -1);
}

// ---- vector: adds -------------------------------------------------------------------------------

TEST_F(Xvec, adds_give_consecutive_indices_and_allocate_at_block_boundaries_alone)
{
    const size_t before = support::allocation_count();
    fill(8, 8);
    // The first add makes the block; the last finds the capacity equal to what it asks for.
    EXPECT_EQ(support::allocation_count(), before + 2);
    EXPECT_EQ(v.max_len, 8U);
    EXPECT_EQ(v.len, 8U);
    EXPECT_EQ(xvec_add(&v, kSize, 8), 8);
    EXPECT_EQ(v.max_len, 16U);
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(element(v, i), static_cast<long>(100 + i));
    }
    EXPECT_EQ(element(v, 8), 0);
}

TEST_F(Xvec, expand_counts_from_the_length)
{
    fill(3);
    EXPECT_EQ(xvec_expand(&v, 5, kSize, 4), 0);
    EXPECT_EQ(v.max_len, 8U);
    EXPECT_EQ(v.len, 3U);
}

// ---- vector: bound ------------------------------------------------------------------------------

TEST_F(Xvec, binding_takes_the_whole_elements_of_a_buffer_and_zeroes_all_of_it)
{
    alignas(long) char buf[43];
    memset(buf, 'x', sizeof buf);
    v.len = 77;
    ASSERT_EQ(xvec_bind(&v, buf, sizeof buf, kSize), 0);
    EXPECT_EQ(v.data, buf);
    EXPECT_EQ(v.max_len, 5U);
    EXPECT_EQ(v.len, 0U);
    EXPECT_EQ(v.flags, static_cast<uint32_t>(XV_FIXED_SIZE));
    for (const char c : buf) {
        EXPECT_EQ(c, 0);
    }
}

TEST_F(Xvec, kept_binding_a_buffer_that_is_too_small_fails_with_data_left_set)
{
    char buf[7] = {'x'};
    EXPECT_EQ(xvec_bind(&v, buf, sizeof buf, 8), -1);
    EXPECT_EQ(v.data, buf);
    EXPECT_EQ(v.max_len, 0U);
    EXPECT_EQ(v.flags, 0U);
    EXPECT_EQ(buf[0], 'x');
    EXPECT_EQ(xvec_bind(&v, buf, sizeof buf, 0), -1);
    v = NULL_xvec;
}

TEST_F(Xvec, kept_binding_adds_its_flag_to_those_that_are_there)
{
    char buf[8];
    v.flags = 0x100;
    ASSERT_EQ(xvec_bind(&v, buf, sizeof buf, 1), 0);
    EXPECT_EQ(v.flags, 0x100U | XV_FIXED_SIZE);
}

TEST_F(Xvec, kept_a_fixed_vector_with_room_adds_but_neither_expands_nor_reserves_its_capacity)
{
    alignas(long) char buf[4 * kSize];
    ASSERT_EQ(xvec_bind(&v, buf, sizeof buf, kSize), 0);
    EXPECT_EQ(xvec_add(&v, kSize, 1), 0);
    EXPECT_EQ(xvec_expand(&v, 1, kSize, 1), ERR_XV_FIXED);
    EXPECT_EQ(xvec_reserve(&v, 4, kSize, 1), ERR_XV_FIXED);
    EXPECT_EQ(xvec_reserve(&v, 3, kSize, 1), 0);
    EXPECT_EQ(xvec_reserve(&v, 5, kSize, 1), ERR_XV_FIXED);
    alignas(long) char other[4 * (kSize + 1)];
    xvlst l = NULL_xvlst;
    ASSERT_EQ(xvlst_bind(&l, other, sizeof other, kSize), 0);
    ASSERT_EQ(l.max_len, 4U);
    EXPECT_EQ(xvlst_reserve(&l, 4, kSize, 1), 0);
    EXPECT_EQ(xvlst_reserve(&l, 5, kSize, 1), ERR_XV_FIXED);
}

TEST_F(Xvec, a_full_fixed_vector_answers_minus_one)
{
    alignas(long) char buf[2 * kSize];
    ASSERT_EQ(xvec_bind(&v, buf, sizeof buf, kSize), 0);
    EXPECT_EQ(xvec_add(&v, kSize, 1), 0);
    EXPECT_EQ(xvec_add(&v, kSize, 1), 1);
    EXPECT_EQ(xvec_add(&v, kSize, 1), -1);
    EXPECT_EQ(v.len, 2U);
}

// ---- vector: reset ------------------------------------------------------------------------------

TEST_F(Xvec, reset_frees_a_growing_vector_and_keeps_its_flags)
{
    fill(5);
    v.flags = 0x80;
    xvec_reset(&v);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.len, 0U);
    EXPECT_EQ(v.max_len, 0U);
    EXPECT_EQ(v.flags, 0x80U);
    fill(2);
    EXPECT_EQ(element(v, 1), 101);
}

TEST_F(Xvec, kept_a_bound_vector_stays_bound_after_reset_and_its_elements_are_not_cleared)
{
    alignas(long) char buf[2 * kSize];
    ASSERT_EQ(xvec_bind(&v, buf, sizeof buf, kSize), 0);
    fill(2);
    xvec_reset(&v);
    EXPECT_EQ(v.data, buf);
    EXPECT_EQ(v.max_len, 2U);
    EXPECT_EQ(v.len, 0U);
    EXPECT_EQ(v.flags, static_cast<uint32_t>(XV_FIXED_SIZE));
    EXPECT_EQ(xvec_add(&v, kSize, 1), 0);
    EXPECT_EQ(element(v, 0), 100);
}

TEST_F(Xvec, reset_of_nothing_is_accepted)
{
    xvec_reset(nullptr);
    xvec_reset(&v);
    EXPECT_EQ(v.data, nullptr);
}

// ---- vector: walks ------------------------------------------------------------------------------

TEST_F(Xvec, each_without_pos_visits_all_and_returns_the_last_result)
{
    fill(3);
    seen.answer = 7;
    EXPECT_EQ(xvec_each(&v, see, nullptr), 7);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 1, 2}));
    EXPECT_EQ(seen.base, v.data);
    seen.only = 1;
    EXPECT_EQ(xvec_each(&v, see, nullptr), 0);
}

TEST_F(Xvec, each_with_pos_stops_at_the_first_result)
{
    fill(3);
    seen.answer = 7;
    size_t pos = 99;
    EXPECT_EQ(xvec_each(&v, see, &pos), 7);
    EXPECT_EQ(pos, 0U);
    EXPECT_EQ(seen.indices.size(), 1U);
    seen.only = 2;
    EXPECT_EQ(xvec_each(&v, see, &pos), 7);
    EXPECT_EQ(pos, 2U);
}

TEST_F(Xvec, each_with_pos_leaves_it_alone_where_nothing_stops)
{
    fill(2);
    size_t pos = 99;
    EXPECT_EQ(xvec_each(&v, see, &pos), 0);
    EXPECT_EQ(pos, 99U);
}

TEST_F(Xvec, walks_of_an_empty_vector_call_nothing)
{
    size_t pos = 99;
    long what = 0;
    seen.answer = 5;
    EXPECT_EQ(xvec_each(&v, see, &pos), 0);
    EXPECT_EQ(xvec_each_aux(&v, see_aux, &seen, &pos), 0);
    EXPECT_EQ(xvec_find(&v, &what, equals, &pos), 0);
    EXPECT_EQ(xvec_each(&v, see, nullptr), 0);
    EXPECT_EQ(pos, 99U);
    EXPECT_TRUE(seen.indices.empty());
}

TEST_F(Xvec, each_aux_hands_its_word_on)
{
    fill(3);
    Seen other;
    other.answer = 4;
    other.only = 1;
    size_t pos = 99;
    EXPECT_EQ(xvec_each_aux(&v, see_aux, &other, &pos), 4);
    EXPECT_EQ(pos, 1U);
    EXPECT_EQ(other.indices, (std::vector<size_t>{0, 1}));
    other.indices.clear();
    EXPECT_EQ(xvec_each_aux(&v, see_aux, &other, nullptr), 0);
    EXPECT_EQ(other.indices.size(), 3U);
}

TEST_F(Xvec, find_with_pos_gives_the_first_match)
{
    fill(4);
    element(v, 3) = 101;
    long what = 101;
    size_t pos = 99;
    EXPECT_EQ(xvec_find(&v, &what, equals, &pos), 9);
    EXPECT_EQ(pos, 1U);
    what = 5;
    pos = 99;
    EXPECT_EQ(xvec_find(&v, &what, equals, &pos), 0);
    EXPECT_EQ(pos, 99U);
}

TEST_F(Xvec, kept_find_without_pos_does_not_stop_at_a_match)
{
    fill(3);
    long what = 101;
    EXPECT_EQ(xvec_find(&v, &what, equals, nullptr), 0);
    what = 102;
    EXPECT_EQ(xvec_find(&v, &what, equals, nullptr), 9);
}

TEST_F(Xvec, what_a_callback_adds_is_not_visited_in_that_pass)
{
    fill(3, 1);
    seen.act = [this](size_t) {
        EXPECT_EQ(seen.base, v.data) << "the storage as it stands now";
        ASSERT_GE(xvec_add(&v, kSize, 1), 0);
    };
    EXPECT_EQ(xvec_each(&v, see, nullptr), 0);
    EXPECT_EQ(seen.indices.size(), 3U);
    EXPECT_EQ(v.len, 6U);
}

TEST_F(Xvec, a_callback_that_resets_the_vector_ends_the_walk)
{
    fill(3);
    seen.answer = 5;
    seen.act = [this](size_t index) {
        if (index == 1) {
            xvec_reset(&v);
        }
    };
    EXPECT_EQ(xvec_each(&v, see, nullptr), 5);
    EXPECT_EQ(seen.indices.size(), 2U);
}

TEST_F(Xvec, a_callback_that_makes_a_smaller_vector_keeps_the_walk_inside)
{
    fill(9, 1);
    seen.act = [this](size_t index) {
        if (index == 4) {
            xvec_reset(&v);
            ASSERT_EQ(xvec_add(&v, kSize, 1), 0);
        }
    };
    EXPECT_EQ(xvec_each(&v, see, nullptr), 0);
    EXPECT_EQ(seen.indices.size(), 5U);
}

// ---- list: slots --------------------------------------------------------------------------------

TEST_F(Xvlst, the_first_two_adds_of_a_new_list_grow_it_slot_by_slot)
{
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 0);
    EXPECT_EQ(l.max_len, 1U);
    EXPECT_EQ(l.last, 0U);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 1);
    EXPECT_EQ(l.max_len, 2U);
    EXPECT_EQ(l.last, 1U);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(l.len, 2U);
}

TEST_F(Xvlst, free_slots_are_taken_again_lowest_first)
{
    fill(6);
    EXPECT_EQ(xvlst_del(&l, 3, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 1);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 3);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 6);
}

TEST_F(Xvlst, a_slot_that_is_taken_again_holds_what_its_last_owner_left)
{
    fill(3);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 1);
    EXPECT_EQ(element(l, 1), 101);
    EXPECT_EQ(xvlst_add(&l, kSize, 8), 3);
    EXPECT_EQ(element(l, 3), 0);
}

TEST_F(Xvlst, kept_emptied_slot_by_slot_a_list_keeps_last_and_a_purge_does_nothing)
{
    fill(4);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(xvlst_del(&l, i, nullptr), 0);
    }
    EXPECT_EQ(l.len, 0U);
    EXPECT_EQ(l.last, 3U);
    xvlst_purge_all(&l, see_cleanup);
    EXPECT_EQ(l.last, 3U);
    EXPECT_EQ(l.avail, 0);
    EXPECT_TRUE(seen.indices.empty());
    // A walk still goes up to last: what stands there is found.
    ASSERT_EQ(xvlst_add(&l, kSize, 1), 0);
    ASSERT_EQ(xvlst_del(&l, 0, nullptr), 0);
    EXPECT_EQ(l.last, 3U);
}

TEST_F(Xvlst, deleting_above_last_and_deleting_a_free_slot_have_codes_of_their_own)
{
    fill(3, 8);
    EXPECT_EQ(xvlst_del(&l, 3, nullptr), 34);
    EXPECT_EQ(xvlst_del(&l, SIZE_MAX, nullptr), 34);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 114);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 114);
    EXPECT_EQ(l.len, 1U);
    EXPECT_EQ(l.avail, 1);
}

TEST_F(Xvlst, cleanup_of_a_delete_sees_the_slot_free_and_still_counted)
{
    fill(3);
    seen.act = [this](size_t index) {
        EXPECT_EQ(l.taken[index], 0);
        EXPECT_EQ(l.len, 3U);
        EXPECT_EQ(l.avail, -1);
        EXPECT_EQ(element(l, index), 101);
    };
    EXPECT_EQ(xvlst_del(&l, 1, see_cleanup), 0);
    EXPECT_EQ(seen.indices, std::vector<size_t>{1});
    EXPECT_EQ(seen.base, l.data);
    EXPECT_EQ(l.len, 2U);
    EXPECT_EQ(l.avail, 1);
}

TEST_F(Xvlst, cleanup_is_not_called_for_a_delete_that_fails)
{
    fill(2);
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 0, see_cleanup), 114);
    EXPECT_EQ(xvlst_del(&l, 9, see_cleanup), 34);
    EXPECT_TRUE(seen.indices.empty());
}

TEST_F(Xvlst, a_cleanup_may_add_and_even_take_the_slot_again)
{
    fill(6);
    ASSERT_EQ(xvlst_del(&l, 1, nullptr), 0);
    std::vector<ssize_t> added;
    seen.act = [&](size_t) {
        added.push_back(xvlst_add(&l, kSize, 1));
        added.push_back(xvlst_add(&l, kSize, 1));
    };
    ASSERT_EQ(xvlst_del(&l, 3, see_cleanup), 0);
    // Slot 1 was free and is filled; the count still holds the slot that is going, so the list grows for the
    // second, whose place is the slot that is going.
    EXPECT_EQ(added, (std::vector<ssize_t>{1, 3}));
    EXPECT_EQ(l.len, 6U);
    EXPECT_EQ(l.max_len, 7U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 6);
    EXPECT_EQ(l.len, 7U);
}

TEST_F(Xvlst, a_cleanup_may_delete_further_slots)
{
    fill(6);
    seen.act = [this](size_t index) {
        if (index == 3) {
            EXPECT_EQ(xvlst_del(&l, 5, nullptr), 0);
            EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
        }
    };
    ASSERT_EQ(xvlst_del(&l, 3, see_cleanup), 0);
    EXPECT_EQ(l.len, 3U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 1);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 3);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 5);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 6);
}

TEST_F(Xvlst, a_cleanup_may_empty_the_list)
{
    fill(4);
    seen.act = [this](size_t) { xvlst_reset(&l); };
    EXPECT_EQ(xvlst_del(&l, 2, see_cleanup), 0);
    EXPECT_EQ(l.len, 0U);
    EXPECT_EQ(l.data, nullptr);
    seen.act = nullptr;
    fill(4);
    seen.act = [this](size_t) { xvlst_purge_all(&l, nullptr); };
    EXPECT_EQ(xvlst_del(&l, 2, see_cleanup), 0);
    EXPECT_EQ(l.len, 0U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 0);
}

TEST_F(Xvlst, a_cleanup_may_leave_a_list_that_ends_before_the_slot)
{
    fill(4);
    seen.act = [this](size_t) {
        xvlst_reset(&l);
        fill(2, 2);
    };
    EXPECT_EQ(xvlst_del(&l, 2, see_cleanup), 0);
    ASSERT_EQ(l.max_len, 2U) << "the slot would be the first behind the end";
    EXPECT_EQ(l.len, 2U);
    EXPECT_EQ(l.avail, -1);
}

// ---- list: capacity -------------------------------------------------------------------------------

TEST_F(Xvlst, reserve_is_content_with_exactly_the_capacity)
{
    ASSERT_EQ(xvlst_reserve(&l, 20, kSize, 10), 0);
    EXPECT_EQ(l.max_len, 20U);
    EXPECT_EQ(l.avail, 0);
    const size_t before = support::allocation_count();
    EXPECT_EQ(xvlst_reserve(&l, 20, kSize, 16), 0);
    EXPECT_EQ(support::allocation_count(), before);
    EXPECT_EQ(l.max_len, 20U);
    EXPECT_EQ(xvlst_reserve(&l, 21, kSize, 16), 0);
    EXPECT_EQ(l.max_len, 32U);
    EXPECT_EQ(l.avail, 0);
}

TEST_F(Xvlst, growth_of_a_full_list_makes_the_old_capacity_the_next_slot)
{
    fill(2);
    ASSERT_EQ(l.avail, -1);
    ASSERT_EQ(xvlst_reserve(&l, 3, kSize, 2), 0);
    EXPECT_EQ(l.avail, 2);
    EXPECT_EQ(l.max_len, 4U);
    EXPECT_EQ(l.taken[0] + l.taken[1], 2);
    EXPECT_EQ(l.taken[2] + l.taken[3], 0);
}

TEST_F(Xvlst, expand_counts_from_len_and_not_from_last)
{
    fill(4);
    for (const size_t i : {0U, 1U, 2U}) {
        ASSERT_EQ(xvlst_del(&l, i, nullptr), 0);
    }
    EXPECT_EQ(xvlst_expand(&l, 3, kSize, 1), 0);
    EXPECT_EQ(l.max_len, 4U);
    EXPECT_EQ(xvlst_expand(&l, 4, kSize, 1), 0);
    EXPECT_EQ(l.max_len, 5U);
}

TEST_F(Xvlst, a_size_that_cannot_be_counted_is_refused)
{
    fill(2);
    EXPECT_EQ(xvlst_reserve(&l, SIZE_MAX / 4, kSize, 1), -1);
    EXPECT_EQ(xvlst_expand(&l, SIZE_MAX, kSize, 1), -1);
    EXPECT_EQ(l.max_len, 2U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 2);
}

TEST_F(Xvlst, a_failed_growth_of_the_storage_leaves_the_list_as_it_was)
{
    fill(2);
    {
        const support::FailAllocation fail(1);
        EXPECT_EQ(xvlst_add(&l, kSize, 1), -1);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(l.max_len, 2U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 2);
    EXPECT_EQ(element(l, 1), 101);
}

TEST_F(Xvlst, kept_a_failed_growth_of_the_map_leaves_it_null_with_the_capacity_raised)
{
    fill(2);
    {
        const support::FailAllocation fail(2);
        EXPECT_EQ(xvlst_add(&l, kSize, 1), -1);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(l.taken, nullptr);
    EXPECT_EQ(l.max_len, 3U);
    EXPECT_EQ(l.len, 2U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), -1);
    EXPECT_EQ(xvlst_reserve(&l, 3, kSize, 1), 0);
    EXPECT_EQ(xvlst_reserve(&l, 4, kSize, 1), -1);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 114);
    seen.answer = 1;
    size_t pos = 99;
    EXPECT_EQ(xvlst_each(&l, see, &pos), 0);
    EXPECT_EQ(xvlst_find(&l, &seen, see_aux, &pos), 0);
    EXPECT_EQ(xvlst_rmif(&l, &seen, see_aux, &pos), 0);
    EXPECT_TRUE(seen.indices.empty());
    xvlst_purge_all(&l, nullptr);
    EXPECT_EQ(l.len, 0U);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), -1);
    xvlst_reset(&l);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 0);
}

TEST_F(Xvlst, a_failed_first_growth_of_the_map_makes_adds_answer_minus_one)
{
    {
        const support::FailAllocation fail(2);
        EXPECT_EQ(xvlst_add(&l, kSize, 4), -1);
    }
    EXPECT_EQ(l.max_len, 4U);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(xvlst_add(&l, kSize, 4), -1);
    EXPECT_EQ(l.len, 0U);
}

TEST_F(Xvlst, a_failed_growth_aborts_where_the_application_says_so)
{
    for (const size_t n : {1U, 2U}) {
        expect_abort_without_words([this, n] {
            xvdat_flags = XV_ABORT_ENOMEM;
            const support::FailAllocation fail(n);
            xvlst_add(&l, kSize, 4);
        });
    }
}

// ---- list: bound and mapped -----------------------------------------------------------------------

TEST_F(Xvlst, a_buffer_of_1000_bytes_holds_100_slots_of_9)
{
    char buf[1000];
    memset(buf, 'x', sizeof buf);
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof buf, 9), 0);
    EXPECT_EQ(l.max_len, 100U);
    EXPECT_EQ(l.data, buf);
    EXPECT_EQ(l.taken, buf + 900);
    EXPECT_EQ(l.len, 0U);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(l.last, 0U);
    EXPECT_EQ(l.flags, static_cast<uint32_t>(XV_FIXED_SIZE));
    for (const char c : buf) {
        EXPECT_EQ(c, 0);
    }
}

TEST_F(Xvlst, the_count_of_a_bound_list_is_that_of_counting_down)
{
    char buf[200];
    for (size_t buflen = 0; buflen <= sizeof buf; ++buflen) {
        for (size_t blksz = 1; blksz <= 40; ++blksz) {
            size_t count = buflen / blksz;
            while (count > 0 && buflen - count * blksz < count) {
                --count;
            }
            xvlst list = NULL_xvlst;
            EXPECT_EQ(xvlst_bind(&list, buf, buflen, blksz), count > 0 ? 0 : -1) << buflen << " " << blksz;
            EXPECT_EQ(list.max_len, count) << buflen << " " << blksz;
        }
    }
}

TEST_F(Xvlst, binding_a_buffer_that_is_too_small_fails)
{
    char buf[8];
    EXPECT_EQ(xvlst_bind(&l, buf, 8, 8), -1);
    EXPECT_EQ(xvlst_bind(&l, buf, 8, 0), -1);
    EXPECT_EQ(xvlst_bind(&l, buf, 8, SIZE_MAX), -1);
    EXPECT_EQ(l.flags, 0U);
    EXPECT_EQ(l.max_len, 0U);
}

TEST_F(Xvlst, kept_binding_and_mapping_add_their_flags_to_those_that_are_there)
{
    char buf[27];
    l.flags = 0x100;
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof buf, 8), 0);
    EXPECT_EQ(l.flags, 0x100U | XV_FIXED_SIZE);
    xvlst_reset(&l);
    l.flags = 0x100;
    ASSERT_EQ(xvlst_mmap_fixed(&l, 3, 8), 0);
    EXPECT_EQ(l.flags, 0x100U | XV_FIXED_SIZE | XV_MMAP);
}

TEST_F(Xvlst, a_full_fixed_list_answers_that_it_is_fixed)
{
    char buf[27];
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof buf, 8), 0);
    ASSERT_EQ(l.max_len, 3U);
    for (ssize_t i = 0; i < 3; ++i) {
        EXPECT_EQ(xvlst_add(&l, 8, 1), i);
    }
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_add(&l, 8, 1), ERR_XV_FIXED);
    EXPECT_EQ(xvlst_expand(&l, 1, 8, 1), ERR_XV_FIXED);
    EXPECT_EQ(xvlst_expand(&l, SIZE_MAX, 8, 1), ERR_XV_FIXED);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, 8, 1), 1);
}

TEST_F(Xvlst, reset_of_a_bound_list_frees_nothing_and_zeroes_the_record)
{
    char buf[100];
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof buf, 8), 0);
    ASSERT_EQ(xvlst_add(&l, 8, 1), 0);
    l.meta.num = 5;
    xvlst_reset(&l);
    const xvlst zero = NULL_xvlst;
    EXPECT_EQ(memcmp(&l, &zero, sizeof l), 0);
    EXPECT_EQ(xvlst_add(&l, 8, 1), 0) << "a growing list again";
}

TEST_F(Xvlst, a_mapped_list_is_fixed_zeroed_and_owns_its_mapping)
{
    ASSERT_EQ(xvlst_mmap_fixed(&l, 5000, kSize), 0);
    EXPECT_EQ(l.max_len, 5000U);
    EXPECT_EQ(l.flags, static_cast<uint32_t>(XV_FIXED_SIZE | XV_MMAP));
    EXPECT_EQ(l.taken, static_cast<char*>(l.data) + 5000 * kSize);
    EXPECT_EQ(l.meta.num, static_cast<long>(kSize));
    EXPECT_EQ(l.avail, 0);
    for (size_t i = 0; i < 5000; ++i) {
        ASSERT_EQ(xvlst_add(&l, kSize, 1), static_cast<ssize_t>(i));
        ASSERT_EQ(element(l, i), 0);
        element(l, i) = 1;
    }
    EXPECT_EQ(xvlst_add(&l, kSize, 1), ERR_XV_FIXED);
    xvlst_reset(&l);
    const xvlst zero = NULL_xvlst;
    EXPECT_EQ(memcmp(&l, &zero, sizeof l), 0);
}

TEST_F(Xvlst, a_mapping_that_fails_gives_the_positive_code_and_changes_nothing)
{
    const xvlst before = l;
    EXPECT_EQ(xvlst_mmap_fixed(&l, SIZE_MAX / 4, 8), 12);
    EXPECT_EQ(xvlst_mmap_fixed(&l, 1, SIZE_MAX), 12);
    EXPECT_EQ(xvlst_mmap_fixed(&l, size_t{1} << 60, 1), 12);
    EXPECT_EQ(xvlst_mmap_fixed(&l, 0, 8), 12);
    EXPECT_EQ(memcmp(&before, &l, sizeof l), 0);
}

TEST_F(Xvlst, reset_of_a_mapped_list_needs_the_element_size)
{
    ASSERT_EQ(xvlst_mmap_fixed(&l, 10, kSize), 0);
    expect_assertion("xvlst_reset", "blksz", [this] {
        l.meta.num = 0;
        xvlst_reset(&l);
    });
}

TEST_F(Xvlst, a_mapping_that_cannot_be_unmapped_ends_the_process)
{
    ASSERT_EQ(xvlst_mmap_fixed(&l, 10, kSize), 0);
    expect_abort_without_words([this] {
        l.data = static_cast<char*>(l.data) + 1;
        xvlst_reset(&l);
    });
    expect_abort_without_words([this] {
        l.meta.num = -2;
        xvlst_reset(&l);
    });
}

TEST_F(Xvlst, reset_frees_a_growing_list_and_accepts_nothing)
{
    xvlst_reset(nullptr);
    fill(5);
    l.flags |= 0x40;
    xvlst_reset(&l);
    const xvlst zero = NULL_xvlst;
    EXPECT_EQ(memcmp(&l, &zero, sizeof l), 0);
}

// ---- list: purge ----------------------------------------------------------------------------------

TEST_F(Xvlst, purge_cleans_up_each_taken_slot_and_keeps_the_storage)
{
    fill(5);
    ASSERT_EQ(xvlst_del(&l, 2, nullptr), 0);
    const void* data = l.data;
    xvlst_purge_all(&l, see_cleanup);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 1, 3, 4}));
    EXPECT_EQ(l.len, 0U);
    EXPECT_EQ(l.last, 0U);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(l.max_len, 5U);
    EXPECT_EQ(l.data, data);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(l.taken[i], 0);
    }
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 0);
}

TEST_F(Xvlst, purge_without_cleanup_calls_nothing)
{
    fill(3);
    xvlst_purge_all(&l, nullptr);
    EXPECT_EQ(l.len, 0U);
    xvlst_purge_all(&l, nullptr);
    xvlst fresh = NULL_xvlst;
    xvlst_purge_all(&fresh, see_cleanup);
    EXPECT_EQ(fresh.avail, 0);
}

TEST_F(Xvlst, a_cleanup_that_resets_the_list_ends_the_purge)
{
    fill(3);
    seen.act = [this](size_t) { xvlst_reset(&l); };
    xvlst_purge_all(&l, see_cleanup);
    EXPECT_EQ(seen.indices.size(), 1U);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_add(&l, kSize, 1), 0);
}

// ---- list: walks ----------------------------------------------------------------------------------

TEST_F(Xvlst, each_skips_free_slots_and_keeps_the_rules_of_pos)
{
    fill(40);
    for (size_t i = 1; i < 39; ++i) {
        ASSERT_EQ(xvlst_del(&l, i, nullptr), 0);
    }
    seen.answer = 7;
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 7);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 39}));
    seen.indices.clear();
    size_t pos = 99;
    EXPECT_EQ(xvlst_each(&l, see, &pos), 7);
    EXPECT_EQ(pos, 0U);
    seen.only = 39;
    EXPECT_EQ(xvlst_each(&l, see, &pos), 7);
    EXPECT_EQ(pos, 39U);
    seen.only = 0;
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 0) << "the last result";
}

TEST_F(Xvlst, each_aux_takes_its_word_before_the_function)
{
    fill(3);
    Seen other;
    other.answer = 4;
    other.only = 1;
    size_t pos = 99;
    EXPECT_EQ(xvlst_each_aux(&l, &other, see_aux, &pos), 4);
    EXPECT_EQ(pos, 1U);
    EXPECT_EQ(xvlst_each_aux(&l, &other, see_aux, nullptr), 0);
    EXPECT_EQ(other.indices.size(), 5U);
}

TEST_F(Xvlst, walks_of_a_list_without_storage_read_nothing)
{
    size_t pos = 99;
    seen.answer = 1;
    EXPECT_EQ(xvlst_each(&l, see, &pos), 0);
    EXPECT_EQ(xvlst_each_aux(&l, &seen, see_aux, &pos), 0);
    EXPECT_EQ(xvlst_rmif(&l, &seen, see_aux, &pos), 0);
    EXPECT_EQ(xvlst_find(&l, &seen, see_aux, &pos), 0);
    EXPECT_EQ(xvlst_find(&l, &seen, see_aux, nullptr), 0);
    EXPECT_TRUE(seen.indices.empty());
    EXPECT_EQ(pos, 99U);
}

TEST_F(Xvlst, a_callback_that_resets_the_list_ends_the_walk)
{
    fill(4);
    seen.answer = 3;
    seen.act = [this](size_t index) {
        if (index == 1) {
            xvlst_reset(&l);
        }
    };
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 3);
    EXPECT_EQ(seen.indices.size(), 2U);
}

TEST_F(Xvlst, a_callback_that_makes_a_smaller_list_keeps_the_walk_inside)
{
    fill(20);
    seen.act = [this](size_t index) {
        if (index == 5) {
            xvlst_reset(&l);
            ASSERT_EQ(xvlst_add(&l, kSize, 1), 0);
        }
    };
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 0);
    EXPECT_EQ(seen.indices.size(), 6U);
}

TEST_F(Xvlst, what_a_callback_adds_above_last_is_not_visited_and_what_it_deletes_is_skipped)
{
    fill(4);
    seen.act = [this](size_t index) {
        if (index == 1) {
            ASSERT_EQ(xvlst_add(&l, kSize, 1), 4);
            ASSERT_EQ(xvlst_del(&l, 2, nullptr), 0);
        }
    };
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 0);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 1, 3}));
}

TEST_F(Xvlst, what_a_callback_adds_below_last_is_visited)
{
    fill(4);
    ASSERT_EQ(xvlst_del(&l, 2, nullptr), 0);
    seen.act = [this](size_t index) {
        if (index == 0) {
            ASSERT_EQ(xvlst_add(&l, kSize, 1), 2);
        }
    };
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 0);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 1, 2, 3}));
}

TEST_F(Xvlst, find_stops_with_and_without_pos)
{
    fill(4);
    seen.answer = 6;
    seen.only = 2;
    size_t pos = 99;
    EXPECT_EQ(xvlst_find(&l, &seen, see_aux, nullptr), 6);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 1, 2}));
    EXPECT_EQ(xvlst_find(&l, &seen, see_aux, &pos), 6);
    EXPECT_EQ(pos, 2U);
    long what = 1;
    pos = 99;
    EXPECT_EQ(xvlst_find(&l, &what, equals, &pos), 0);
    EXPECT_EQ(pos, 99U);
}

TEST_F(Xvlst, rmif_frees_the_matches_and_counts_them)
{
    fill(6);
    element(l, 1) = element(l, 4) = 7;
    long what = 7;
    size_t pos = 99;
    EXPECT_EQ(xvlst_rmif(&l, &what, equals, &pos), 2);
    EXPECT_EQ(pos, 99U);
    EXPECT_EQ(l.len, 4U);
    EXPECT_EQ(l.avail, 1);
    EXPECT_EQ(xvlst_rmif(&l, &what, equals, nullptr), 0);
}

TEST_F(Xvlst, rmif_tells_where_a_delete_failed)
{
    fill(4);
    seen.answer = 1;
    seen.only = 2;
    seen.act = [this](size_t index) {
        if (index == 2) {
            ASSERT_EQ(xvlst_del(&l, 2, nullptr), 0);
        }
    };
    size_t pos = 99;
    EXPECT_EQ(xvlst_rmif(&l, &seen, see_aux, &pos), -1);
    EXPECT_EQ(pos, 2U);
    EXPECT_EQ(l.len, 3U);
    ASSERT_EQ(xvlst_add(&l, kSize, 1), 2);
    EXPECT_EQ(xvlst_rmif(&l, &seen, see_aux, nullptr), -1);
}

// ---- embedded list --------------------------------------------------------------------------------

TEST_F(Emblst, the_buffer_is_header_slots_and_map)
{
    memset(buf + offsetof(emblst, data), 'x', sizeof buf - offsetof(emblst, data));
    emblst* el = emblst_create(buf, offsetof(emblst, data) + 5UL * 9 + 3, 8);
    ASSERT_EQ(static_cast<void*>(el), buf);
    EXPECT_EQ(el->max_count, 5U);
    EXPECT_EQ(el->count, 0U);
    EXPECT_EQ(el->last, 0U);
    EXPECT_EQ(el->avail, 0);
    EXPECT_EQ(el->flags, static_cast<uint32_t>(XV_FIXED_SIZE));
    EXPECT_EQ(el->taken_offt, static_cast<off_t>(48 + 5 * 8));
    for (size_t i = 48; i < 48 + 45; ++i) {
        EXPECT_EQ(buf[i], 0) << i;
    }
    EXPECT_EQ(buf[48 + 45], 'x') << "the bytes behind the map are not the list's";
}

TEST_F(Emblst, the_count_is_that_of_counting_down)
{
    for (size_t len = 0; len <= 160; ++len) {
        for (size_t blksz = 1; blksz <= 30; ++blksz) {
            const long room = static_cast<long>(len) - 48;
            long count = room > 0 ? room / static_cast<long>(blksz) : 0;
            while (count > 0 && room - count * static_cast<long>(blksz) < count) {
                --count;
            }
            const emblst* el = emblst_create(buf, len, blksz);
            if (count == 0) {
                EXPECT_EQ(el, nullptr) << len << " " << blksz;
                continue;
            }
            ASSERT_NE(el, nullptr) << len << " " << blksz;
            EXPECT_EQ(el->max_count, static_cast<size_t>(count)) << len << " " << blksz;
        }
    }
}

TEST_F(Emblst, a_buffer_that_is_too_small_gives_no_list)
{
    EXPECT_EQ(emblst_create(buf, 0, 1), nullptr);
    EXPECT_EQ(emblst_create(buf, 48, 1), nullptr);
    EXPECT_EQ(emblst_create(buf, 49, 1), nullptr);
    EXPECT_NE(emblst_create(buf, 50, 1), nullptr);
    EXPECT_EQ(emblst_create(buf, SIZE_MAX, 1), nullptr) << "no signed room";
    EXPECT_EQ(emblst_create(buf, sizeof buf, 0), nullptr);
    EXPECT_EQ(emblst_create(buf, sizeof buf, SIZE_MAX), nullptr);
}

TEST_F(Emblst, kept_creating_adds_its_flag_to_what_the_buffer_holds)
{
    auto* el = reinterpret_cast<emblst*>(buf);
    el->flags = 0x1000;
    ASSERT_NE(create(3), nullptr);
    EXPECT_EQ(el->flags, 0x1000U | XV_FIXED_SIZE);
}

TEST_F(Emblst, slots_are_taken_lowest_first_and_a_full_list_answers_minus_one)
{
    emblst* el = create(4);
    for (ssize_t i = 0; i < 4; ++i) {
        EXPECT_EQ(emblst_add(el), i);
    }
    EXPECT_EQ(el->avail, -1);
    EXPECT_EQ(el->last, 3U);
    EXPECT_EQ(emblst_add(el), -1);
    EXPECT_EQ(emblst_del(el, 2, nullptr), 0);
    EXPECT_EQ(emblst_del(el, 0, nullptr), 0);
    EXPECT_EQ(emblst_add(el), 0);
    EXPECT_EQ(el->avail, 2);
    EXPECT_EQ(emblst_add(el), 2);
    EXPECT_EQ(emblst_add(el), -1);
    EXPECT_EQ(el->count, 4U);
}

TEST_F(Emblst, delete_has_the_codes_of_the_list_and_cleans_up_with_the_address_of_data)
{
    emblst* el = create(8);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(emblst_add(el), i);
    }
    EXPECT_EQ(emblst_del(el, 3, see_cleanup), 34);
    EXPECT_EQ(emblst_del(el, 1, see_cleanup), 0);
    EXPECT_EQ(emblst_del(el, 1, see_cleanup), 114);
    EXPECT_EQ(seen.indices, std::vector<size_t>{1});
    EXPECT_EQ(seen.base, &el->data);
    EXPECT_EQ(el->count, 2U);
    EXPECT_EQ(el->avail, 1);
}

TEST_F(Emblst, walks_keep_the_rules_of_pos)
{
    emblst* el = create(8);
    size_t pos = 99;
    EXPECT_EQ(emblst_each(el, see, &pos), 0);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(emblst_add(el), i);
    }
    ASSERT_EQ(emblst_del(el, 1, nullptr), 0);
    seen.answer = 7;
    EXPECT_EQ(emblst_each(el, see, nullptr), 7);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{0, 2, 3, 4}));
    EXPECT_EQ(seen.base, &el->data);
    EXPECT_EQ(pos, 99U);
    seen.only = 3;
    EXPECT_EQ(emblst_each(el, see, &pos), 7);
    EXPECT_EQ(pos, 3U);
    Seen other;
    other.answer = 2;
    EXPECT_EQ(emblst_each_aux(el, &other, see_aux, &pos), 2);
    EXPECT_EQ(pos, 0U);
    EXPECT_EQ(emblst_each_aux(el, &other, see_aux, nullptr), 2);
    EXPECT_EQ(other.indices.size(), 5U);
}

TEST_F(Emblst, a_copy_needs_exactly_the_lists_bytes_and_is_a_list)
{
    emblst* el = create(6);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(emblst_add(el), i);
        element(&el->data, static_cast<size_t>(i)) = 200 + i;
    }
    ASSERT_EQ(emblst_del(el, 2, nullptr), 0);
    const size_t bytes = static_cast<size_t>(el->taken_offt) + el->max_count;
    const std::unique_ptr<long[]> block(new long[(bytes + 7) / 8]);
    errno = 0;
    EXPECT_EQ(emblst_copy(el, block.get(), bytes - 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(emblst_copy(el, block.get(), bytes), block.get());
    memset(buf, 'x', sizeof buf);
    auto* copy = reinterpret_cast<emblst*>(block.get());
    EXPECT_EQ(copy->count, 3U);
    EXPECT_EQ(element(&copy->data, 3), 203);
    EXPECT_EQ(emblst_add(copy), 2);
    EXPECT_EQ(emblst_add(copy), 4);
    EXPECT_EQ(emblst_del(copy, 0, nullptr), 0);
    EXPECT_EQ(emblst_each(copy, see, nullptr), 0);
    EXPECT_EQ(seen.indices, (std::vector<size_t>{1, 2, 3, 4}));
}

TEST_F(Emblst, the_map_is_found_by_its_offset_alone)
{
    emblst* el = create(4);
    ASSERT_EQ(emblst_add(el), 0);
    // Moved ten bytes down: only the offset tells.
    memcpy(buf + el->taken_offt + 10, buf + el->taken_offt, 4);
    memset(buf + el->taken_offt, 0, 4);
    el->taken_offt += 10;
    EXPECT_EQ(emblst_add(el), 1);
    EXPECT_EQ(buf[el->taken_offt + 1], 1);
    EXPECT_EQ(emblst_del(el, 0, nullptr), 0);
}

// ---- preconditions --------------------------------------------------------------------------------

TEST_F(Xvec, preconditions_of_the_vector_are_asserted)
{
    expect_assertion("xvec_reserve", "v && (growblk > 0)", [] { xvec_reserve(nullptr, 1, 1, 1); });
    expect_assertion("xvec_reserve", "v && (growblk > 0)", [this] { xvec_reserve(&v, 1, 1, 0); });
    const std::string expand = "v && plus && blksz && growblk > 0";
    expect_assertion("xvec_expand", expand, [] { xvec_expand(nullptr, 1, 1, 1); });
    expect_assertion("xvec_expand", expand, [this] { xvec_expand(&v, 0, 1, 1); });
    expect_assertion("xvec_expand", expand, [this] { xvec_expand(&v, 1, 0, 1); });
    expect_assertion("xvec_expand", expand, [this] { xvec_expand(&v, 1, 1, 0); });
    ASSERT_EQ(xvec_reserve(&v, 10, 1, 1), 0);
    expect_assertion("xvec_expand", expand, [this] { xvec_add(&v, 0, 1); });
    expect_assertion("xvec_expand", expand, [this] { xvec_add(&v, 1, 0); });
    expect_assertion("xvec_each", "v && f", [] { xvec_each(nullptr, see, nullptr); });
    expect_assertion("xvec_each", "v && f", [this] { xvec_each(&v, nullptr, nullptr); });
    expect_assertion("xvec_each_aux", "v && f", [this] { xvec_each_aux(&v, nullptr, nullptr, nullptr); });
    expect_assertion("xvec_find", "v && f", [this] { xvec_find(&v, nullptr, nullptr, nullptr); });
}

TEST_F(Xvlst, preconditions_of_the_list_are_asserted)
{
    expect_assertion("xvlst_reserve", "l", [] { xvlst_reserve(nullptr, 1, 1, 1); });
    expect_assertion("xvlst_add", "l", [] { xvlst_add(nullptr, 1, 1); });
    expect_assertion("xvlst_del", "l", [] { xvlst_del(nullptr, 1, nullptr); });
    expect_assertion("xvlst_purge_all", "l", [] { xvlst_purge_all(nullptr, nullptr); });
    const std::string expand = "l && plus && blksz && growblk";
    expect_assertion("xvlst_expand", expand, [] { xvlst_expand(nullptr, 1, 1, 1); });
    expect_assertion("xvlst_expand", expand, [this] { xvlst_expand(&l, 0, 1, 1); });
    expect_assertion("xvlst_expand", expand, [this] { xvlst_expand(&l, 1, 0, 1); });
    expect_assertion("xvlst_expand", expand, [this] { xvlst_expand(&l, 1, 1, 0); });
    expect_assertion("xvlst_del", "l->len", [this] { xvlst_del(&l, 0, nullptr); });
    expect_assertion("xvlst_each", "l && f", [this] { xvlst_each(&l, nullptr, nullptr); });
    expect_assertion("xvlst_each_aux", "l && f", [this] { xvlst_each_aux(&l, nullptr, nullptr, nullptr); });
    expect_assertion("xvlst_find", "l && f", [this] { xvlst_find(&l, nullptr, nullptr, nullptr); });
    expect_assertion("xvlst_find", "l && f", [] { xvlst_find(nullptr, nullptr, see_aux, nullptr); });
    expect_assertion("xvlst_rmif", "l && is_match", [this] { xvlst_rmif(&l, nullptr, nullptr, nullptr); });
    ASSERT_EQ(xvlst_reserve(&l, 4, 1, 1), 0);
    expect_assertion("xvlst_expand", expand, [this] { xvlst_add(&l, 0, 1); });
    expect_assertion("xvlst_expand", expand, [this] { xvlst_add(&l, 1, 0); });
}

TEST_F(Xvlst, a_broken_record_is_asserted)
{
    fill(2, 8);
    expect_assertion("xvlst_add", "(0 == l->max_len) || (l->avail < (ssize_t)l->max_len)", [this] {
        l.avail = 8;
        xvlst_add(&l, kSize, 8);
    });
    expect_assertion("xvlst_add", "0 == l->taken[l->avail]", [this] {
        l.avail = 1;
        xvlst_add(&l, kSize, 8);
    });
    expect_assertion("xvlst_purge_all", "l->taken", [this] {
        l.taken = nullptr;
        xvlst_purge_all(&l, see_cleanup);
    });
}

TEST_F(Emblst, preconditions_of_the_embedded_list_are_asserted)
{
    expect_assertion("emblst_create", "0 == ((u_long)buf % sizeof(long))",
                     [this] { emblst_create(buf + 1, 500, 8); });
    emblst* el = create(4);
    ASSERT_EQ(emblst_add(el), 0);
    expect_assertion("emblst_add", "(0 == el->max_count) || (el->avail < (ssize_t)el->max_count)", [el] {
        el->avail = 4;
        emblst_add(el);
    });
    expect_assertion("emblst_add", "0 == taken[el->avail]", [el] {
        el->avail = 0;
        emblst_add(el);
    });
    expect_assertion("emblst_each", "el && f", [el] { emblst_each(el, nullptr, nullptr); });
    expect_assertion("emblst_each_aux", "el && f",
                     [] { emblst_each_aux(nullptr, nullptr, see_aux, nullptr); });
    ASSERT_EQ(emblst_del(el, 0, nullptr), 0);
    expect_assertion("emblst_del", "el->count", [el] { emblst_del(el, 0, nullptr); });
}

} // namespace
