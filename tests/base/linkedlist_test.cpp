#include "vindra/base/linkedlist.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

using list_of_int = base::linkedlist<int>;

void fill(list_of_int& list, int n) {
    for (int i = 1; i <= n; ++i) list.add(i);
}

std::vector<int> values(const list_of_int& list) {
    std::vector<int> all;
    for (const list_of_int::node* n = list.head->next; n; n = n->next) all.push_back(n->value);
    return all;
}

TEST(linkedlist, starts_with_its_tail_at_the_sentinel_and_a_spent_cursor) {
    const list_of_int list;
    EXPECT_EQ(list.tail, list.head);
    EXPECT_EQ(list.head->next, nullptr);
    EXPECT_EQ(list.prev, nullptr);
    EXPECT_EQ(list.next, nullptr);
    EXPECT_EQ(list.count, 0);
}

TEST(linkedlist, hands_out_in_the_order_of_arrival) {
    list_of_int list;
    fill(list, 3);
    EXPECT_EQ(list.count, 3);
    EXPECT_EQ(list.pop(), 1);
    list.add(4);
    EXPECT_EQ(list.pop(), 2);
    EXPECT_EQ(list.pop(), 3);
    EXPECT_EQ(list.pop(), 4);
    EXPECT_EQ(list.count, 0);
}

TEST(linkedlist, pop_of_an_empty_list_gives_zero) {
    list_of_int list;
    EXPECT_EQ(list.pop(), 0);
    EXPECT_EQ(list.count, 0);
    base::linkedlist<int*> pointers;
    EXPECT_EQ(pointers.pop(), nullptr);
}

TEST(linkedlist, adds_behind_the_sentinel_after_the_last_element_was_popped) {
    list_of_int list;
    fill(list, 1);
    list.pop();
    EXPECT_EQ(list.tail, list.head);
    list.add(2);
    EXPECT_EQ(list.head->next->value, 2);
    EXPECT_EQ(list.tail, list.head->next);
}

TEST(linkedlist, pop_moves_a_cursor_off_the_popped_node) {
    list_of_int list;
    fill(list, 3);
    list.prev = list.head->next;
    list.pop();
    EXPECT_EQ(list.prev, list.head);
    list.prev = list.head->next;
    list.pop();
    EXPECT_EQ(list.prev, list.head);
}

TEST(linkedlist, pop_leaves_a_cursor_further_on_alone) {
    list_of_int list;
    fill(list, 3);
    list_of_int::node* second = list.head->next->next;
    list.prev = second;
    list.pop();
    EXPECT_EQ(list.prev, second);
}

TEST(linkedlist, remove_takes_out_the_element_behind_the_cursor_and_spends_it) {
    list_of_int list;
    fill(list, 3);
    list.prev = list.head->next;
    list_of_int::node* third = list.tail;
    list.remove();
    EXPECT_EQ(values(list), (std::vector<int>{1, 3}));
    EXPECT_EQ(list.count, 2);
    EXPECT_EQ(list.prev, nullptr);
    EXPECT_EQ(list.next, third);
    EXPECT_EQ(list.tail, third);
}

TEST(linkedlist, remove_of_the_last_element_moves_the_tail_back) {
    list_of_int list;
    fill(list, 2);
    list.prev = list.head->next;
    list.remove();
    EXPECT_EQ(list.tail, list.head->next);
    EXPECT_EQ(list.next, nullptr);
    list.add(5);
    EXPECT_EQ(values(list), (std::vector<int>{1, 5}));
}

TEST(linkedlist, remove_of_the_only_element_moves_the_tail_to_the_sentinel) {
    list_of_int list;
    fill(list, 1);
    list.prev = list.head;
    list.remove();
    EXPECT_EQ(list.tail, list.head);
    EXPECT_EQ(list.count, 0);
}

TEST(linkedlist, remove_with_a_spent_cursor_does_nothing) {
    list_of_int list;
    fill(list, 2);
    list.next = list.tail;
    list.remove();
    EXPECT_EQ(values(list), (std::vector<int>{1, 2}));
    EXPECT_EQ(list.next, list.tail);
}

TEST(linkedlist, remove_with_the_cursor_at_the_last_node_does_nothing) {
    list_of_int list;
    fill(list, 2);
    list.prev = list.tail;
    list.remove();
    EXPECT_EQ(list.count, 2);
    EXPECT_EQ(list.prev, list.tail);
}

TEST(linkedlist, leaves_what_its_values_point_at_alone) {
    int value = 1;
    {
        base::linkedlist<int*> list;
        list.add(&value);
    }
    EXPECT_EQ(value, 1);
}

TEST(linkedlist, of_a_million_elements_ends_without_a_million_stack_frames) {
    list_of_int list;
    for (int i = 0; i < 1000000; ++i) list.add(i);
    EXPECT_EQ(list.count, 1000000);
}

TEST(linkedlist, a_node_ends_the_chain_behind_it) {
    auto* chain = new list_of_int::node(1);
    chain->next = new list_of_int::node(2);
    chain->next->next = new list_of_int::node(3);
    // The leak checker is the witness.
    delete chain;
}

TEST(linkedlist, counts_what_has_been_taken_out) {
    base::linkedlist<int> list;
    EXPECT_EQ(list.pop(), 0);
    EXPECT_EQ(list.removals(), 0U) << "there was nothing to take";
    for (const int value : {1, 2, 3}) list.add(value);
    list.pop();
    list.prev = list.head;
    list.remove();
    EXPECT_EQ(list.removals(), 2U);
}

} // namespace
