// What the containers answer when they are full: three answers for three kinds, and callers know them.
#include "xvdat.h"

#include <gtest/gtest.h>

namespace {

constexpr size_t kSize = sizeof(long);

TEST(FullContainers, kept_what_is_full_answers_in_three_ways)
{
    alignas(long) char room[4 * kSize + 64];

    xvec vector = {};
    ASSERT_EQ(xvec_bind(&vector, room, 2 * kSize, kSize), 0);
    EXPECT_NE(xvec_add(&vector, kSize, 1), -1);
    EXPECT_NE(xvec_add(&vector, kSize, 1), -1);
    EXPECT_EQ(xvec_add(&vector, kSize, 1), -1);

    xvlst list = NULL_xvlst;
    ASSERT_EQ(xvlst_bind(&list, room, 2 * (kSize + 1), kSize), 0);
    EXPECT_EQ(xvlst_add(&list, kSize, 1), 0);
    EXPECT_EQ(xvlst_add(&list, kSize, 1), 1);
    EXPECT_EQ(xvlst_add(&list, kSize, 1), ERR_XV_FIXED);

    alignas(8) char inside[sizeof(emblst) + 3 * (kSize + 1)];
    emblst* const embedded = emblst_create(inside, sizeof inside, kSize);
    ASSERT_NE(embedded, nullptr);
    while (embedded->avail >= 0) {
        ASSERT_GE(emblst_add(embedded), 0);
    }
    EXPECT_EQ(emblst_add(embedded), -1);

    EXPECT_EQ(xvlst_del(&list, 5, nullptr), 34) << "positive numbers of errors from a delete";
}

} // namespace
