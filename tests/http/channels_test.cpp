#include "tests/support/captured_output.h"
#include "tests/support/frames.h"

#include <chrono>
#include <cstdlib>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using members = std::vector<http_connection*>;

members members_of(const std::string& channel) {
    const auto* list = http_connection::channels().get(channel);
    if (!list) return {};
    EXPECT_EQ(list->items[list->count], nullptr);
    return {list->items, list->items + list->count};
}

std::vector<std::string> names_of(const http_connection& conn) {
    std::vector<std::string> names;
    for (unsigned i = 0; i < conn.subscriptions.count; ++i)
        names.push_back(*conn.subscriptions.keys[i]);
    return names;
}

// Does in on_message() what a test tells it to.
class acting_connection : public recording_connection {
public:
    acting_connection() { upgraded = headers_done = written = true; }
    void on_message() override { act(*this); }
    void (*act)(acting_connection& self) = nullptr;
};

// Made before the map of channels, and so destroyed after it. The map leaves its lists behind.
struct outliving {
    std::unique_ptr<recording_connection> conn;
    const void* list = nullptr;
} survivor;

class channels : public testing::Test {
protected:
    ~channels() override { EXPECT_EQ(http_connection::channels().count, 0U) << "a key was left"; }
};

} // namespace

TEST_F(channels, are_one_map_for_the_process) {
    EXPECT_EQ(&http_connection::channels(), &http_connection::channels());
    EXPECT_EQ(http_connection::channels().hash, base::orlix_hash);
}

TEST_F(channels, refuse_a_connection_that_is_not_upgraded) {
    const auto conn = std::make_unique<http_connection>();
    EXPECT_FALSE(conn->subscribe("c"));
    EXPECT_EQ(conn->subscriptions.count, 0U);
    EXPECT_EQ(http_connection::channels().count, 0U);
}

TEST_F(channels, hold_their_members_in_the_order_of_joining) {
    const auto a = upgraded_connection();
    const auto b = upgraded_connection();
    EXPECT_TRUE(b->subscribe("c"));
    EXPECT_TRUE(a->subscribe("c"));
    EXPECT_EQ(members_of("c"), (members{b.get(), a.get()}));
}

TEST_F(channels, count_joining_twice_once) {
    const auto conn = upgraded_connection();
    EXPECT_TRUE(conn->subscribe("c"));
    EXPECT_TRUE(conn->subscribe("c"));
    EXPECT_EQ(members_of("c"), members{conn.get()});
    http_connection::publish("c", "x", 1);
    EXPECT_EQ(drain(*conn).bytes(), "\x81\x01x");
}

TEST_F(channels, exist_until_their_last_member_leaves) {
    const auto a = upgraded_connection();
    const auto b = upgraded_connection();
    a->subscribe("c");
    b->subscribe("c");
    a->unsubscribe("c");
    EXPECT_EQ(members_of("c"), members{b.get()});
    EXPECT_EQ(a->subscriptions.count, 0U);
    b->unsubscribe("c");
    EXPECT_EQ(http_connection::channels().get("c"), nullptr);
    EXPECT_EQ(http_connection::channels().count, 0U);
}

TEST_F(channels, are_left_by_a_connection_that_ends) {
    const auto a = upgraded_connection();
    auto b = upgraded_connection();
    const auto c = upgraded_connection();
    for (auto* conn : {a.get(), b.get(), c.get()}) conn->subscribe("shared");
    b->subscribe("own");
    captured_output output;
    b.reset();
    EXPECT_EQ(members_of("shared"), (members{a.get(), c.get()}));
    EXPECT_EQ(http_connection::channels().get("own"), nullptr);
    EXPECT_EQ(http_connection::channels().count, 1U);
    EXPECT_EQ(output.take(), "");
}

TEST_F(channels, are_left_in_the_order_of_joining) {
    auto conn = upgraded_connection();
    for (const char* name : {"first", "second", "third"}) conn->subscriptions.set(name, 1);
    captured_output output;
    conn.reset();
    EXPECT_EQ(output.take(), "Error! Channel not found: first\nError! Channel not found: second\n"
                             "Error! Channel not found: third\n");
}

TEST_F(channels, are_left_by_a_member_that_was_turned_away) {
    auto conn = upgraded_connection();
    conn->subscribe("c");
    captured_output output;
    feed(*conn, std::string("\x81\x00nomask", 8));
    ASSERT_FALSE(conn->keep_alive);
    EXPECT_EQ(members_of("c"), members{conn.get()}) << "until it ends";
    conn.reset();
    EXPECT_EQ(http_connection::channels().count, 0U);
}

TEST_F(channels, carry_a_message_in_the_order_of_joining) {
    const auto first = upgraded_connection();
    const auto last = upgraded_connection();
    last->subscribe("other");
    first->subscribe("c");
    last->subscribe("c");
    // Both queues now append behind the same node, so it shows which of them did so last.
    auto* const shared = first->parts.head;
    last->parts.tail = shared;
    http_connection::publish("c", "x", 1);
    EXPECT_EQ(shared->next, last->parts.tail);
    shared->next = first->parts.tail;
    last->parts.head->next = last->parts.tail;
}

TEST_F(channels, may_be_joined_again) {
    const auto a = upgraded_connection();
    const auto b = upgraded_connection();
    a->subscribe("c");
    b->subscribe("c");
    a->unsubscribe("c");
    a->subscribe("c");
    EXPECT_EQ(members_of("c"), (members{b.get(), a.get()}));
}

TEST_F(channels, ignore_the_leaving_of_one_who_is_no_member) {
    const auto a = upgraded_connection();
    const auto b = upgraded_connection();
    a->subscribe("c");
    captured_output output;
    b->unsubscribe("c");
    b->unsubscribe("unknown");
    EXPECT_EQ(members_of("c"), members{a.get()});
    EXPECT_EQ(output.take(), "");
}

TEST_F(channels, may_be_left_by_the_name_that_a_map_holds) {
    const auto conn = upgraded_connection();
    conn->subscribe("a name that is too long to be stored inside its string");
    conn->unsubscribe(*conn->subscriptions.keys[0]);
    conn->subscribe("a name that is too long to be stored inside its string");
    conn->unsubscribe(*http_connection::channels().keys[0]);
    EXPECT_EQ(conn->subscriptions.count, 0U);
}

TEST_F(channels, take_any_name) {
    const auto conn = upgraded_connection();
    for (const std::string& name : {""s, "a\0b"s, "a"s, std::string(1000, 'x')}) {
        EXPECT_TRUE(conn->subscribe(name));
        EXPECT_EQ(members_of(name), members{conn.get()});
    }
    EXPECT_EQ(names_of(*conn).size(), 4U);
}

TEST_F(channels, report_a_subscription_without_a_channel) {
    auto conn = upgraded_connection();
    conn->subscriptions.set("lost", 1);
    conn->subscribe("found");
    captured_output output;
    conn.reset();
    EXPECT_EQ(output.take(), "Error! Channel not found: lost\n");
}

TEST_F(channels, report_a_channel_without_the_member) {
    const auto other = upgraded_connection();
    auto conn = upgraded_connection();
    conn->fd = 17;
    other->subscribe("c");
    conn->subscriptions.set("c", 1);
    conn->subscribe("d");
    captured_output output;
    conn.reset();
    EXPECT_EQ(output.take(), "Error! Subscription for 17 to c not found!\n");
    EXPECT_EQ(members_of("c"), members{other.get()});
}

TEST_F(channels, are_not_looked_at_by_a_connection_that_was_never_upgraded) {
    auto conn = std::make_unique<http_connection>();
    conn->subscriptions.set("c", 1);
    captured_output output;
    conn.reset();
    EXPECT_EQ(output.take(), "");
}

TEST_F(channels, carry_one_message_to_every_member) {
    const auto a = upgraded_connection();
    const auto b = upgraded_connection();
    const auto outside = upgraded_connection();
    a->subscribe("c");
    b->subscribe("c");
    outside->subscribe("other");
    http_connection::publish("c", "hello", 2);
    EXPECT_EQ(drain(*a).bytes(), "\x82\x05hello");
    EXPECT_EQ(drain(*b).bytes(), "\x82\x05hello");
    EXPECT_EQ(drain(*outside).bytes(), "");
}

TEST_F(channels, deliver_what_was_published_before_a_member_left) {
    const auto stays = upgraded_connection();
    const auto leaves = upgraded_connection();
    auto ends = upgraded_connection();
    for (auto* conn : {ends.get(), leaves.get(), stays.get()}) conn->subscribe("c");
    http_connection::publish("c", "1", 1);
    leaves->unsubscribe("c");
    ends.reset();
    http_connection::publish("c", "2", 1);
    EXPECT_EQ(drain(*leaves).bytes(), "\x81\x01"
                                      "1");
    EXPECT_EQ(drain(*stays).bytes(), "\x81\x01"
                                     "1\x81\x01"
                                     "2");
    EXPECT_EQ(members_of("c"), members{stays.get()});
}

TEST_F(channels, do_nothing_for_a_name_that_nobody_joined) {
    captured_output output;
    http_connection::publish("nobody", "hello", 1);
    EXPECT_EQ(output.take(), "");
    EXPECT_EQ(http_connection::channels().count, 0U);
}

TEST_F(channels, may_be_published_to_from_a_message) {
    const auto a = std::make_unique<acting_connection>();
    const auto b = std::make_unique<acting_connection>();
    a->act =
        b->act = [](acting_connection& self) { http_connection::publish("c", self.message, 1); };
    a->subscribe("c");
    b->subscribe("c");
    feed(*a, short_frame(0x81, "from a"));
    EXPECT_EQ(drain(*a).bytes(), "\x81\x06"
                                 "from a");
    EXPECT_EQ(drain(*b).bytes(), "\x81\x06"
                                 "from a");
}

TEST_F(channels, may_be_left_and_joined_around_a_publish_from_a_message) {
    const auto a = std::make_unique<acting_connection>();
    const auto b = std::make_unique<acting_connection>();
    a->act = [](acting_connection& self) {
        http_connection::publish("c", "1", 1);
        self.unsubscribe("c");
        http_connection::publish("c", "2", 1);
        self.subscribe("c");
        http_connection::publish("c", "3", 1);
    };
    a->subscribe("c");
    b->subscribe("c");
    feed(*a, short_frame(0x81, "go"));
    EXPECT_EQ(drain(*a).bytes(), "\x81\x01"
                                 "1\x81\x01"
                                 "3");
    EXPECT_EQ(drain(*b).bytes(), "\x81\x01"
                                 "1\x81\x01"
                                 "2\x81\x01"
                                 "3");
    EXPECT_EQ(members_of("c"), (members{b.get(), a.get()}));
}

TEST_F(channels, may_vanish_while_their_only_member_reads_messages) {
    const auto a = std::make_unique<acting_connection>();
    a->act = [](acting_connection& self) {
        self.unsubscribe("c");
        http_connection::publish("c", "nobody hears", 1);
    };
    a->subscribe("c");
    feed(*a, short_frame(0x81, "go") + short_frame(0x81, "go"));
    EXPECT_EQ(drain(*a).bytes(), "");
    EXPECT_EQ(http_connection::channels().count, 0U);
}

TEST_F(channels, carry_a_payload_that_is_a_name_of_theirs) {
    const auto a = upgraded_connection();
    a->subscribe("c");
    const std::string& key = *http_connection::channels().keys[0];
    http_connection::publish(key, key, 1);
    EXPECT_EQ(drain(*a).bytes(), "\x81\x01"
                                 "c");
}

TEST_F(channels, hold_ten_thousand_subscriptions_of_one_connection) {
    const auto stays = upgraded_connection();
    auto leaves = upgraded_connection();
    for (int i = 0; i < 10000; ++i) leaves->subscribe("channel " + std::to_string(i));
    stays->subscribe("channel 77");
    EXPECT_EQ(http_connection::channels().count, 10000U);
    EXPECT_EQ(names_of(*leaves)[9999], "channel 9999");
    leaves.reset();
    EXPECT_EQ(http_connection::channels().count, 1U);
    EXPECT_EQ(members_of("channel 77"), members{stays.get()});
}

TEST_F(channels, are_left_in_linear_time) {
    const auto stays = upgraded_connection();
    for (int i = 0; i < 30000; ++i) stays->subscribe("other " + std::to_string(i));
    auto leaves = upgraded_connection();
    for (int i = 0; i < 40000; ++i) leaves->subscribe("channel " + std::to_string(i));
    const auto start = std::chrono::steady_clock::now();
    leaves.reset();
    // One by one it is a minute.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(http_connection::channels().count, 30000U);
}

TEST_F(channels, stand_in_the_order_of_their_first_joining_when_some_have_gone) {
    const auto stays = upgraded_connection();
    auto leaves = upgraded_connection();
    for (const char* name : {"a", "x", "b", "y", "c"}) leaves->subscribe(name);
    for (const char* name : {"c", "d", "x"}) stays->subscribe(name);
    leaves.reset();
    std::vector<std::string> left;
    for (unsigned i = 0; i < http_connection::channels().count; ++i)
        left.push_back(*http_connection::channels().keys[i]);
    EXPECT_EQ(left, (std::vector<std::string>{"x", "c", "d"}));
    EXPECT_EQ(http_connection::channels().keys[3], nullptr);
}

TEST_F(channels, hold_ten_thousand_subscriptions_of_a_hundred_connections) {
    std::vector<std::unique_ptr<recording_connection>> all;
    for (int i = 0; i < 100; ++i) {
        all.push_back(upgraded_connection());
        for (int j = 0; j < 100; ++j) all.back()->subscribe("channel " + std::to_string(j));
    }
    members expected;
    for (std::size_t i = 0; i < all.size(); ++i) {
        // Two of three leave, from all over the lists.
        if (i % 3 != 0) {
            all[i].reset();
        } else {
            expected.push_back(all[i].get());
        }
    }
    for (int j = 0; j < 100; ++j) EXPECT_EQ(members_of("channel " + std::to_string(j)), expected);

    http_connection::publish("channel 99", "x", 1);
    for (const auto& conn : all) {
        if (conn) {
            EXPECT_EQ(conn->parts.count, 1);
        }
    }
}

TEST(channels_at_exit, are_left_alone_by_a_connection_that_outlives_them) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto leave_subscribed = [] {
        survivor.conn = upgraded_connection();
        survivor.conn->subscribe("c");
        survivor.list = http_connection::channels().get("c");
        std::exit(3);
    };
    EXPECT_EXIT(leave_subscribed(), testing::ExitedWithCode(3), "");
}
