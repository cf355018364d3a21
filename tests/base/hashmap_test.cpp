#include "vindra/base/hashmap.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using map_of_int = base::hashmap<int>;

int calls;

// Four hashes for all keys, and a count of how often it was asked.
std::uint32_t bad_hash(const char* bytes, unsigned length) {
    ++calls;
    return length == 0 ? 0 : static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[0]) & 3U);
}

std::uint32_t one_hash(const char*, unsigned) {
    return 7;
}

// The last places of every table whose capacity is 3 times a power of two.
std::uint32_t end_hash(const char* bytes, unsigned length) {
    return 3U * 65536U - 1U - bad_hash(bytes, length);
}

std::vector<std::string> keys_of(const map_of_int& map) {
    std::vector<std::string> all;
    if (!map.keys) return all;
    for (std::string** key = map.keys; *key; ++key) all.push_back(**key);
    return all;
}

// What has left the process when `act` returns: not what waits in the stream's buffer.
template <typename Act>
std::string flushed_output(const Act& act) {
    std::fflush(stdout);
    const int own = dup(STDOUT_FILENO);
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    dup2(ends[1], STDOUT_FILENO);
    act();
    dup2(own, STDOUT_FILENO);
    char text[256];
    const ssize_t length = read(ends[0], text, sizeof text);
    for (const int fd : {own, ends[0], ends[1]}) close(fd);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

TEST(hashmap, starts_all_zero_with_the_standard_hash) {
    const map_of_int map;
    EXPECT_EQ(map.slots, nullptr);
    EXPECT_EQ(map.keys, nullptr);
    EXPECT_EQ(map.count, 0U);
    EXPECT_EQ(map.capacity, 0U);
    EXPECT_EQ(map.collisions, 0U);
    EXPECT_EQ(map.hash, &base::orlix_hash);
}

TEST(hashmap, asks_for_no_hash_while_it_is_empty) {
    map_of_int map(bad_hash);
    calls = 0;
    EXPECT_EQ(map.get("a"), 0);
    EXPECT_EQ(map.unset("a"), 0);
    map.set("a", 1);
    map.unset("a");
    calls = 0;
    EXPECT_EQ(map.get("a"), 0);
    EXPECT_EQ(map.unset("a"), 0);
    EXPECT_EQ(calls, 0);
}

TEST(hashmap, takes_an_empty_key) {
    map_of_int map;
    map.set("", 5);
    EXPECT_EQ(map.get(""), 5);
    EXPECT_EQ(map.slots[843 % 3].hash, 843U);
    EXPECT_EQ(map.unset(""), 5);
    EXPECT_EQ(map.get(""), 0);
}

TEST(hashmap, capacity_runs_3_6_12_24) {
    map_of_int map;
    const unsigned expected[] = {3, 6, 6, 12, 12, 12, 24};
    for (unsigned i = 0; i < 7; ++i) {
        map.set(std::to_string(i), 1);
        EXPECT_EQ(map.capacity, expected[i]) << "after key " << i + 1;
    }
}

TEST(hashmap, grows_before_it_looks_whether_the_key_is_there) {
    map_of_int map;
    map.set("a", 1);
    map.set("a", 2);
    EXPECT_EQ(map.count, 1U);
    EXPECT_EQ(map.capacity, 6U);
}

TEST(hashmap, an_existing_key_takes_the_new_value_and_keeps_its_place) {
    map_of_int map;
    map.set("a", 1);
    map.set("b", 2);
    const std::string* first = map.keys[0];
    map.set("a", 3);
    EXPECT_EQ(map.get("a"), 3);
    EXPECT_EQ(map.count, 2U);
    EXPECT_EQ(map.keys[0], first);
    EXPECT_EQ(keys_of(map), (std::vector<std::string>{"a", "b"}));
}

TEST(hashmap, tells_keys_by_case_length_and_bytes_behind_a_zero) {
    map_of_int map(one_hash);
    const std::string keys[] = {"a", "A", "aa", std::string("a\0b", 3), std::string("a\0c", 3), ""};
    int value = 0;
    for (const auto& key : keys) map.set(key, ++value);
    value = 0;
    for (const auto& key : keys) EXPECT_EQ(map.get(key), ++value);
    EXPECT_EQ(map.get("b"), 0);
}

TEST(hashmap, slots_share_the_strings_of_the_key_list) {
    map_of_int map;
    for (int i = 0; i < 20; ++i) map.set("key" + std::to_string(i), i);
    unsigned occupied = 0;
    for (unsigned i = 0; i < map.capacity; ++i) {
        if (!map.slots[i].key) continue;
        ++occupied;
        EXPECT_EQ(std::count(map.keys, map.keys + map.count, map.slots[i].key), 1);
    }
    EXPECT_EQ(occupied, 20U);
}

TEST(hashmap, counts_the_slots_that_insertions_step_over) {
    map_of_int map(one_hash);
    map.set("a", 1);
    EXPECT_EQ(map.collisions, 0U);
    map.set("b", 1);
    EXPECT_EQ(map.collisions, 1U);
    map.set("b", 2);
    EXPECT_EQ(map.collisions, 2U);
    map.reserve(100);
    map.get("b");
    map.unset("a");
    EXPECT_EQ(map.collisions, 2U);
}

TEST(hashmap, still_finds_what_its_chain_led_to_through_a_removed_slot) {
    map_of_int map(one_hash);
    for (const char* key : {"a", "b", "c", "d"}) map.set(key, key[0]);
    const unsigned capacity = map.capacity;
    EXPECT_EQ(map.unset("b"), 'b');
    EXPECT_EQ(keys_of(map), (std::vector<std::string>{"a", "c", "d"}));
    for (const char* key : {"a", "c", "d"}) EXPECT_EQ(map.get(key), key[0]);
    EXPECT_EQ(map.get("b"), 0);
    EXPECT_EQ(map.capacity, capacity);
}

TEST(hashmap, a_chain_runs_across_the_end_of_the_table) {
    map_of_int map([](const char*, unsigned) -> std::uint32_t { return 5; });
    for (const char* key : {"a", "b", "c"}) map.set(key, key[0]);
    ASSERT_EQ(map.capacity, 6U);
    EXPECT_EQ(map.slots[5].value, 'a');
    EXPECT_EQ(map.slots[0].value, 'b');
    EXPECT_EQ(map.slots[1].value, 'c');
    EXPECT_EQ(map.unset("a"), 'a');
    EXPECT_EQ(map.get("c"), 'c');
}

TEST(hashmap, unset_takes_the_map_s_own_key) {
    map_of_int map;
    map.set("first", 1);
    map.set("second", 2);
    EXPECT_EQ(map.unset(*map.keys[0]), 1);
    EXPECT_EQ(keys_of(map), (std::vector<std::string>{"second"}));
}

TEST(hashmap, reserve_grows_exactly_and_never_shrinks) {
    map_of_int map;
    map.reserve(10);
    EXPECT_EQ(map.capacity, 10U);
    EXPECT_EQ(map.keys[0], nullptr);
    map.set("a", 1);
    map.reserve(2);
    EXPECT_EQ(map.capacity, 10U);
    map.reserve(11);
    EXPECT_EQ(map.capacity, 11U);
    EXPECT_EQ(map.get("a"), 1);
}

TEST(hashmap, keeps_pointers_without_owning_them) {
    std::string one = "1";
    {
        base::hashmap<std::string*> map;
        map.set("one", &one);
        EXPECT_EQ(map.get("one"), &one);
        EXPECT_EQ(map.get("two"), nullptr);
    }
    EXPECT_EQ(one, "1");
}

TEST(hashmap, says_so_when_a_tampered_count_left_no_room) {
    map_of_int map(one_hash);
    std::vector<std::string*> strings;
    for (const char* key : {"a", "b", "c"}) {
        map.set(key, 1);
        strings.push_back(map.keys[0]);
        map.count = 0;
    }
    ASSERT_EQ(map.capacity, 3U);
    EXPECT_EQ(flushed_output([&] { map.set("d", 1); }), "Error! Out of space!\n");
    std::copy(strings.begin(), strings.end(), map.keys);
    map.count = 3;
    EXPECT_EQ(map.get("d"), 0);
}

// Two maps of the same history, of which one loses keys one by one and the other in one call.
class hashmap_removals : public testing::TestWithParam<map_of_int::hash_function*> {
protected:
    void unset_both(const std::vector<std::string>& names) {
        std::vector<const std::string*> doomed;
        for (const std::string& name : names) {
            one_by_one_.unset(name);
            doomed.push_back(&name);
        }
        together_.unset_all(doomed.data(), static_cast<unsigned>(doomed.size()));
    }

    void expect_same_tables() const {
        ASSERT_EQ(keys_of(together_), keys_of(one_by_one_));
        ASSERT_EQ(together_.count, one_by_one_.count);
        ASSERT_EQ(together_.capacity, one_by_one_.capacity);
        ASSERT_EQ(together_.collisions, one_by_one_.collisions);
        for (unsigned i = 0; i < together_.capacity; ++i) {
            const map_of_int::slot& a = together_.slots[i];
            const map_of_int::slot& b = one_by_one_.slots[i];
            ASSERT_EQ(!a.key, !b.key) << "slot " << i;
            if (!a.key) continue;
            ASSERT_EQ(*a.key, *b.key) << "slot " << i;
            ASSERT_EQ(a.hash, b.hash);
            ASSERT_EQ(a.value, b.value);
        }
    }

    map_of_int one_by_one_{GetParam()};
    map_of_int together_{GetParam()};
};

TEST_P(hashmap_removals, together_leave_what_one_by_one_leave) {
    std::mt19937 random(20250301);
    for (int round = 0; round < 2000; ++round) {
        for (auto i = random() % 8; i > 0; --i) {
            const std::string key = std::to_string(random() % 40);
            one_by_one_.set(key, round);
            together_.set(key, round);
        }
        // Some are not there, and some named twice.
        std::vector<std::string> names;
        for (auto i = random() % 9; i > 0; --i) names.push_back(std::to_string(random() % 40));
        unset_both(names);
        ASSERT_NO_FATAL_FAILURE(expect_same_tables()) << "round " << round;
    }
}

TEST(hashmap, takes_many_keys_out_in_linear_time) {
    constexpr int keys = 50000;
    map_of_int map;
    std::vector<std::string> names;
    names.reserve(keys);
    for (int i = 0; i < keys; ++i) names.push_back("key " + std::to_string(i));
    for (const std::string& name : names) map.set(name, 1);
    map.set("stays", 2);
    std::vector<const std::string*> doomed;
    doomed.reserve(keys);
    for (const std::string& name : names) doomed.push_back(&name);
    const auto start = std::chrono::steady_clock::now();
    map.unset_all(doomed.data(), keys);
    // One by one it is a minute.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(keys_of(map), std::vector<std::string>{"stays"});
    EXPECT_EQ(map.get("stays"), 2);
    EXPECT_EQ(map.capacity, 196608U);
}

// The map beside a std::map and a list of keys, after every step of a random script.
class hashmap_script : public testing::TestWithParam<map_of_int::hash_function*> {
protected:
    void set(const std::string& key, int value) {
        map_.set(key, value);
        if (model_.emplace(key, value).second) {
            order_.push_back(key);
        } else {
            model_[key] = value;
        }
    }

    void unset(const std::string& key) {
        const auto it = model_.find(key);
        EXPECT_EQ(map_.unset(key), it == model_.end() ? 0 : it->second);
        if (it == model_.end()) return;
        model_.erase(it);
        order_.erase(std::find(order_.begin(), order_.end(), key));
    }

    void expect_same() const {
        ASSERT_EQ(keys_of(map_), order_);
        ASSERT_EQ(map_.count, order_.size());
        for (const auto& [key, value] : model_) ASSERT_EQ(map_.get(key), value) << key;
    }

    map_of_int map_{GetParam()};
    std::map<std::string, int> model_;
    std::vector<std::string> order_;
};

TEST_P(hashmap_script, agrees_with_an_ordered_map_at_every_step) {
    std::mt19937 random(20240607);
    for (int step = 1; step <= 4000; ++step) {
        const std::string key = std::to_string(random() % 60);
        // Waves: more insertions than removals for 500 steps, then the other way round.
        const bool filling = step / 500 % 2 == 0;
        if (random() % 10 < (filling ? 7U : 3U)) {
            set(key, step);
        } else {
            unset(key);
        }
        ASSERT_NO_FATAL_FAILURE(expect_same()) << "step " << step;
        const std::string other = std::to_string(random() % 60);
        if (!model_.count(other)) {
            ASSERT_EQ(map_.get(other), 0);
        }
    }
}

std::string hash_name(const testing::TestParamInfo<map_of_int::hash_function*>& info) {
    if (info.param == &bad_hash) return "bad_hash";
    if (info.param == &end_hash) return "end_hash";
    return info.param == &one_hash ? "one_hash" : "orlix_hash";
}

INSTANTIATE_TEST_SUITE_P(with, hashmap_removals,
                         testing::Values(&base::orlix_hash, &bad_hash, &end_hash, &one_hash),
                         hash_name);
INSTANTIATE_TEST_SUITE_P(with, hashmap_script,
                         testing::Values(&base::orlix_hash, &bad_hash, &one_hash), hash_name);

} // namespace
