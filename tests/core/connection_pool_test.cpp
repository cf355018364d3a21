#include "vindra/core/connection.h"
#include "vindra/core/private/connection_pool.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

constexpr std::size_t mib = 1048576;
constexpr std::size_t page = 4096;

bool all_zero(const char* begin, std::size_t size) {
    return std::all_of(begin, begin + size, [](char c) { return c == 0; });
}

// Pages of [begin, begin + size) that are in memory.
std::size_t resident_pages(const char* begin, std::size_t size) {
    char* const first = const_cast<char*>(begin) - reinterpret_cast<std::uintptr_t>(begin) % page;
    const std::size_t pages = (static_cast<std::size_t>(begin - first) + size + page - 1) / page;
    std::vector<unsigned char> state(pages);
    EXPECT_EQ(mincore(first, pages * page, state.data()), 0);
    return static_cast<std::size_t>(
        std::count_if(state.begin(), state.end(), [](unsigned char s) { return (s & 1) != 0; }));
}

TEST(connection_pool, a_new_slot_is_zero_and_aligned) {
    char* slot = static_cast<char*>(connection_pool::allocate(mib + 500));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(slot) % 64, 0U);
    EXPECT_TRUE(all_zero(slot, mib + 500));
    connection_pool::deallocate(slot, mib + 500);
}

TEST(connection_pool, a_slot_used_again_carries_nothing_over) {
    for (const std::size_t size :
         {std::size_t{100}, std::size_t{5000}, mib, mib + 90, mib + 1000}) {
        char* slot = static_cast<char*>(connection_pool::allocate(size));
        std::memset(slot, 'x', size);
        connection_pool::deallocate(slot, size);
        char* again = static_cast<char*>(connection_pool::allocate(size));
        EXPECT_EQ(again, slot) << "the warmest slot comes first";
        EXPECT_TRUE(all_zero(again, size)) << size;
        connection_pool::deallocate(again, size);
    }
}

TEST(connection_pool, a_slot_wiped_beside_used_neighbours_leaves_them_alone) {
    std::vector<char*> slots(200);
    constexpr std::size_t size = mib + 700;
    for (char*& slot : slots) slot = static_cast<char*>(connection_pool::allocate(size));
    for (char* slot : slots) std::memset(slot, 'x', size);
    for (std::size_t i = 0; i < slots.size(); i += 2) connection_pool::deallocate(slots[i], size);
    for (std::size_t i = 1; i < slots.size(); i += 2)
        EXPECT_EQ(std::count(slots[i], slots[i] + size, 'x'), static_cast<std::ptrdiff_t>(size));
    for (std::size_t i = 1; i < slots.size(); i += 2) connection_pool::deallocate(slots[i], size);
}

TEST(connection_pool, a_slot_that_grew_gives_its_pages_back) {
    constexpr std::size_t size = mib + 700;
    char* slot = static_cast<char*>(connection_pool::allocate(size));
    std::memset(slot, 'x', size);
    EXPECT_GE(resident_pages(slot, size), mib / page);
    connection_pool::deallocate(slot, size);
    EXPECT_LE(resident_pages(slot, size), 4U);
}

TEST(connection_pool, a_slot_is_wiped_around_what_is_said_to_be_untouched) {
    constexpr std::size_t size = mib + 700;
    for (const std::size_t used : {std::size_t{0}, std::size_t{900}, page, 5 * page, mib / 2}) {
        char* slot = static_cast<char*>(connection_pool::allocate(size));
        std::memset(slot, 'x', used);
        std::memset(slot + mib, 'y', 700);
        connection_pool::note_untouched(slot + used, slot + mib);
        connection_pool::deallocate(slot, size);

        slot = static_cast<char*>(connection_pool::allocate(size));
        EXPECT_EQ(std::count(slot, slot + size, '\0'), static_cast<std::ptrdiff_t>(size)) << used;
        connection_pool::deallocate(slot, size);
    }
}

TEST(connection_pool, a_note_about_one_slot_says_nothing_of_another_or_of_its_next_owner) {
    constexpr std::size_t size = mib + 700;
    char* noted = static_cast<char*>(connection_pool::allocate(size));
    char* other = static_cast<char*>(connection_pool::allocate(size));
    std::memset(other, 'x', size);
    connection_pool::note_untouched(noted, noted + size);
    connection_pool::deallocate(other, size);
    EXPECT_LE(resident_pages(other, size), 4U);
    connection_pool::deallocate(noted, size);

    char* again = static_cast<char*>(connection_pool::allocate(size));
    ASSERT_EQ(again, noted);
    std::memset(again, 'x', size);
    connection_pool::deallocate(again, size);
    EXPECT_LE(resident_pages(again, size), 4U);
}

TEST(connection_pool, a_note_about_memory_of_somebody_else_is_ignored) {
    constexpr std::size_t size = mib + 700;
    char* slot = static_cast<char*>(connection_pool::allocate(size));
    std::vector<char> elsewhere(64);
    connection_pool::note_untouched(elsewhere.data(), elsewhere.data() + elsewhere.size());
    connection_pool::note_untouched(slot - 64 * mib, slot - 63 * mib);
    connection_pool::deallocate(slot, size);
}

TEST(connection_pool, a_part_of_a_slot_in_use_gives_its_pages_back) {
    constexpr std::size_t size = mib + 700;
    char* slot = static_cast<char*>(connection_pool::allocate(size));
    std::memset(slot, 'x', size);
    connection_pool::release_pages(slot + 57, slot + mib, slot + mib);
    EXPECT_EQ(std::count(slot, slot + 57, 'x'), 57) << "what lies before it stays";
    EXPECT_EQ(std::count(slot + mib, slot + size, 'x'), 700) << "and what lies behind";
    EXPECT_LE(resident_pages(slot, size), 4U);
    connection_pool::deallocate(slot, size);
}

TEST(connection_pool, a_crowd_that_has_left_leaves_little_behind) {
    constexpr std::size_t size = mib + 700;
    constexpr std::size_t crowd = 1000;
    std::vector<char*> slots;
    for (std::size_t i = 0; i < crowd; ++i) {
        slots.push_back(static_cast<char*>(connection_pool::allocate(size)));
        slots.back()[0] = slots.back()[size - 1] = 'x';
    }
    for (char* slot : slots) connection_pool::deallocate(slot, size);
    std::size_t pages = 0;
    for (char* slot : slots) pages += resident_pages(slot, size);
    EXPECT_LE(pages, 4 * (connection_pool::warm_slots_max + 64));
}

TEST(connection_pool, slots_stand_at_many_offsets_of_a_page) {
    std::set<std::uintptr_t> offsets;
    std::vector<void*> slots;
    for (int i = 0; i < 64; ++i) {
        slots.push_back(connection_pool::allocate(mib + 300));
        offsets.insert(reinterpret_cast<std::uintptr_t>(slots.back()) % page);
    }
    EXPECT_GE(offsets.size(), 32U);
    for (void* slot : slots) connection_pool::deallocate(slot, mib + 300);
}

struct untidy_connection : connection {
    // Without initialisers: they read what the storage held.
    int number;
    void* pointer;
    char tail[500];

    void on_recv(char* /*data*/, int /*length*/) override {}
    bool on_send(char* /*buffer*/, int /*capacity*/, int* /*length*/) override { return true; }
};

TEST(connection, fields_without_initialiser_read_zero_in_every_life) {
    for (int life = 0; life < 3; ++life) {
        auto* conn = new untidy_connection;
        EXPECT_EQ(conn->number, 0);
        EXPECT_EQ(conn->pointer, nullptr);
        EXPECT_TRUE(all_zero(conn->tail, sizeof conn->tail));
        EXPECT_TRUE(all_zero(conn->send_buffer, sizeof conn->send_buffer));
        EXPECT_FALSE(conn->more);
        conn->number = 7;
        conn->pointer = conn;
        conn->more = true;
        std::memset(conn->tail, 'x', sizeof conn->tail);
        std::memset(conn->send_buffer, 'x', sizeof conn->send_buffer);
        delete conn;
    }
}

TEST(connection, starts_detached_active_now_and_with_ten_seconds) {
    const std::time_t before = std::time(nullptr);
    auto* conn = new untidy_connection;
    EXPECT_EQ(conn->fd, -1);
    EXPECT_EQ(conn->address, 0U);
    EXPECT_EQ(conn->port, 0);
    EXPECT_GE(conn->last_active, before);
    EXPECT_EQ(conn->server, nullptr);
    EXPECT_EQ(conn->ssl, nullptr);
    EXPECT_EQ(conn->send_length, 0);
    EXPECT_EQ(conn->send_offset, 0);
    EXPECT_EQ(conn->timeout, 10);
    EXPECT_EQ(sizeof conn->send_buffer, 1048576U);
    delete conn;
}

} // namespace
