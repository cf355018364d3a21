#include "vindra/base/arraylist.h"

#include <gtest/gtest.h>

namespace {

TEST(arraylist, starts_without_a_block) {
    const base::arraylist<int> list;
    EXPECT_EQ(list.items, nullptr);
    EXPECT_EQ(list.count, 0U);
    EXPECT_EQ(list.capacity, 0U);
}

TEST(arraylist, doubles_from_two_and_closes_with_a_zero_after_every_add) {
    base::arraylist<int> list;
    for (unsigned n = 1; n <= 100; ++n) {
        list.add(static_cast<int>(n));
        unsigned capacity = 2;
        while (capacity < n) capacity *= 2;
        ASSERT_EQ(list.count, n);
        ASSERT_EQ(list.capacity, capacity);
        ASSERT_EQ(list.items[n], 0);
    }
    for (int i = 0; i < 100; ++i) EXPECT_EQ(list.items[i], i + 1);
}

TEST(arraylist, of_pointers_can_be_walked_up_to_its_first_null) {
    int values[] = {5, 6, 7, 8};
    base::arraylist<int*> list;
    for (int& value : values) list.add(&value);
    int seen = 0;
    for (int** p = list.items; *p; ++p) EXPECT_EQ(**p, values[seen++]);
    EXPECT_EQ(seen, 4);
}

TEST(arraylist, takes_an_element_of_its_own) {
    base::arraylist<long> list;
    list.add(1);
    list.add(2);
    list.add(list.items[0]);
    EXPECT_EQ(list.items[2], 1);
}

TEST(arraylist, grows_again_from_a_count_that_its_user_lowered) {
    base::arraylist<int> list;
    for (int i = 1; i <= 4; ++i) list.add(i);
    list.items[1] = list.items[2];
    list.items[2] = list.items[3];
    list.items[3] = 0;
    list.count = 3;
    list.add(9);
    EXPECT_EQ(list.capacity, 4U);
    EXPECT_EQ(list.items[3], 9);
    EXPECT_EQ(list.items[4], 0);
}

} // namespace
