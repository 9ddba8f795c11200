#include "gkh.h"
#include <gtest/gtest.h>

TEST(Gkh, Basic)
{
    nkht_t h;
    ASSERT_EQ(nkht_create(&h, 512, tw_shift), 0);
    nkht_destroy(h, nullptr);
}
