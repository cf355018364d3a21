#include "vindra/base/byte_queue.h"
#include "vindra/base/private/block_store.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

std::string take(base::byte_queue& queue, std::size_t most) {
    std::string out(most, '?');
    out.resize(queue.take(out.data(), most));
    return out;
}

TEST(byte_queue, starts_empty) {
    base::byte_queue queue;
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_TRUE(queue == "");
    EXPECT_EQ(take(queue, 10), "");
}

TEST(byte_queue, gives_bytes_in_the_order_they_came) {
    base::byte_queue queue;
    queue += "one ";
    queue.append("two ", 4);
    queue += std::string("three");
    EXPECT_TRUE(queue == "one two three");
    EXPECT_FALSE(queue == "one two thre");
    EXPECT_FALSE(queue == "one two threX");
    EXPECT_EQ(std::string(queue), "one two three");
    EXPECT_EQ(take(queue, 5), "one t");
    EXPECT_EQ(queue.size(), 8U);
    EXPECT_TRUE(queue == "wo three");
    EXPECT_EQ(take(queue, 100), "wo three");
    EXPECT_TRUE(queue.empty());
}

TEST(byte_queue, keeps_zero_bytes) {
    base::byte_queue queue;
    const std::string text("a\0b\0", 4);
    queue += text;
    EXPECT_TRUE(queue == text);
    EXPECT_EQ(take(queue, 9), text);
}

TEST(byte_queue, assign_replaces_what_waits) {
    base::byte_queue queue;
    queue += std::string(200000, 'x');
    queue.assign("new");
    EXPECT_TRUE(queue == "new");
    queue.assign("");
    EXPECT_TRUE(queue.empty());
}

TEST(byte_queue, taking_nothing_changes_nothing) {
    base::byte_queue queue;
    queue += "abc";
    EXPECT_EQ(take(queue, 0), "");
    EXPECT_TRUE(queue == "abc");
    queue += "";
    EXPECT_EQ(queue.size(), 3U);
}

// What gather() shows of the first block.
std::string front(base::byte_queue& queue) {
    iovec piece{};
    if (queue.gather(&piece, 1) == 0) return "";
    return {static_cast<const char*>(piece.iov_base), piece.iov_len};
}

// Has `bytes` put into room made for `most`, as a read would put them there.
void write_in_place(base::byte_queue& queue, std::string_view bytes, std::size_t most) {
    iovec pieces[20];
    const int count = queue.reserve(pieces, 20, most);
    std::string_view rest = bytes;
    for (int i = 0; i < count && !rest.empty(); ++i) {
        const std::size_t part = std::min(rest.size(), pieces[i].iov_len);
        std::memcpy(pieces[i].iov_base, rest.data(), part);
        rest.remove_prefix(part);
    }
    ASSERT_TRUE(rest.empty()) << "there is less room than was asked for";
    queue.commit(pieces, count, bytes.size());
}

TEST(byte_queue, behaves_as_a_string_through_any_mix_of_calls) {
    std::mt19937 random(11);
    std::string model;
    base::byte_queue queue;
    std::string elsewhere_model;
    base::byte_queue elsewhere;
    for (int step = 0; step < 20000; ++step) {
        const std::size_t length = random() % 3 == 0 ? random() % 200000 : random() % 300;
        switch (random() % 9) {
        case 0: {
            const std::string text(length, static_cast<char>('A' + step % 26));
            write_in_place(queue, text, length + random() % 100000);
            model += text;
            break;
        }
        case 1:
        case 2: {
            std::string text(length, static_cast<char>('a' + step % 26));
            queue += text;
            model += text;
            break;
        }
        case 3:
            if (random() % 50 == 0) {
                queue.assign("short");
                model = "short";
            }
            break;
        case 4:
            elsewhere.splice(queue, length);
            elsewhere_model += model.substr(0, length);
            model.erase(0, length);
            break;
        case 5: {
            const std::size_t gone = std::min(length * 2, elsewhere.size());
            const std::string shown = front(elsewhere);
            ASSERT_EQ(shown, elsewhere_model.substr(0, shown.size()));
            elsewhere.drop(gone);
            elsewhere_model.erase(0, gone);
            break;
        }
        default:
            ASSERT_EQ(take(queue, length), model.substr(0, length));
            model.erase(0, length);
        }
        ASSERT_EQ(elsewhere.size(), elsewhere_model.size());
        ASSERT_EQ(queue.size(), model.size());
        ASSERT_EQ(queue.empty(), model.empty());
        if (step % 500 == 0) {
            ASSERT_TRUE(queue == model);
            ASSERT_TRUE(elsewhere == elsewhere_model);
        }
    }
}

TEST(byte_queue, describes_all_its_blocks_or_as_many_as_there_is_room_for) {
    base::byte_queue queue;
    iovec pieces[8];
    EXPECT_EQ(queue.gather(pieces, 8), 0);
    const std::string text(200000, 'x');
    queue += text;
    const int count = queue.gather(pieces, 8);
    ASSERT_GE(count, 4);
    std::size_t sum = 0;
    for (int i = 0; i < count; ++i) sum += pieces[i].iov_len;
    EXPECT_EQ(sum, text.size());
    EXPECT_EQ(queue.gather(pieces, 2), 2);
    EXPECT_EQ(queue.size(), text.size()) << "nothing is taken";
}

TEST(byte_queue, moves_blocks_from_another_and_calls_no_listener) {
    base::byte_queue from;
    base::byte_queue to;
    int calls = 0;
    const std::string text(100000, 'x');
    from += text;
    iovec piece;
    from.gather(&piece, 1);
    const void* const first = piece.iov_base;
    to.set_listener([](void* count) { ++*static_cast<int*>(count); }, &calls);
    to.splice(from, 1000000);
    to.gather(&piece, 1);
    EXPECT_EQ(piece.iov_base, first) << "it was copied";
    EXPECT_TRUE(to == text);
    EXPECT_TRUE(from.empty());
    to.clear();
    from += text;
    to.splice(from, 5);
    EXPECT_TRUE(to == "xxxxx");
    EXPECT_EQ(from.size(), text.size() - 5);
    EXPECT_EQ(calls, 0);
}

TEST(byte_queue, makes_exactly_the_room_that_is_asked_for) {
    for (const std::size_t waiting : {0U, 1U, 30000U, 65000U, 100000U}) {
        for (const std::size_t most : {0U, 1U, 65536U, 300000U, 1048576U}) {
            SCOPED_TRACE(waiting);
            SCOPED_TRACE(most);
            base::byte_queue queue;
            queue += std::string(waiting, 'x');
            iovec pieces[20];
            const int count = queue.reserve(pieces, 20, most);
            std::size_t room = 0;
            for (int i = 0; i < count; ++i) room += pieces[i].iov_len;
            EXPECT_EQ(room, most);
            EXPECT_EQ(queue.size(), waiting) << "nothing has come yet";
            queue.commit(pieces, count, 0);
            EXPECT_TRUE(queue == std::string(waiting, 'x'));
        }
    }
}

TEST(byte_queue, makes_as_much_room_as_fits_in_the_pieces) {
    base::byte_queue queue;
    queue += "x";
    iovec pieces[3];
    EXPECT_EQ(queue.reserve(pieces, 0, 1000000), 0);
    queue.commit(pieces, 0, 0);
    ASSERT_EQ(queue.reserve(pieces, 3, 1000000), 3);
    queue.commit(pieces, 3, 1);
    EXPECT_EQ(queue.size(), 2U);
}

TEST(byte_queue, fills_the_last_block_before_it_takes_another) {
    base::byte_queue queue;
    queue += "x";
    for (int i = 0; i < 1000; ++i) write_in_place(queue, "0123456789", 1048576);
    iovec piece;
    EXPECT_EQ(queue.gather(&piece, 1), 1);
    EXPECT_EQ(piece.iov_len, 10001U);
}

TEST(byte_queue, returns_room_that_was_not_needed) {
    const std::size_t before = base::block_store::shared().in_use();
    base::byte_queue queue;
    write_in_place(queue, std::string(100000, 'x'), 1048576);
    EXPECT_EQ(base::block_store::shared().in_use(), before + 2);
    write_in_place(queue, "", 1048576);
    EXPECT_EQ(base::block_store::shared().in_use(), before + 2);
    queue.clear();
    EXPECT_EQ(base::block_store::shared().in_use(), before);
}

TEST(byte_queue, tells_its_listener_of_bytes_that_were_written_in_place) {
    base::byte_queue queue;
    int calls = 0;
    queue.set_listener([](void* count) { ++*static_cast<int*>(count); }, &calls);
    write_in_place(queue, "", 100);
    EXPECT_EQ(calls, 0);
    write_in_place(queue, "x", 100);
    EXPECT_EQ(calls, 1);
    write_in_place(queue, "y", 100);
    EXPECT_EQ(calls, 1) << "some were waiting already";
}

TEST(byte_queue, block_boundaries_lose_and_repeat_nothing) {
    for (std::size_t length = 65536 - 5000; length < 65536 + 200; length += 61) {
        base::byte_queue queue;
        std::string text(length, ' ');
        for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 7 % 251);
        for (std::size_t i = 0; i < length; i += 1000)
            queue.append(text.data() + i, std::min<std::size_t>(1000, length - i));
        ASSERT_TRUE(queue == text) << length;
        ASSERT_EQ(take(queue, length - 1), text.substr(0, length - 1));
        ASSERT_EQ(take(queue, 2), text.substr(length - 1));
    }
}

std::size_t resident_bytes() {
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    long pages = 0;
    EXPECT_EQ(std::fscanf(file, "%*s %ld", &pages), 1);
    std::fclose(file);
    return static_cast<std::size_t>(pages) * 4096;
}

TEST(byte_queue, a_large_backlog_costs_little_more_than_its_bytes_and_is_given_back) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own memory stands in the way of the measure";
#endif
    constexpr std::size_t mib = 1048576;
    constexpr std::size_t backlog = 128 * mib;
    const std::string block(mib, 'x');
    const std::size_t before = resident_bytes();
    base::byte_queue queue;
    while (queue.size() < backlog) queue += block;
    EXPECT_LE(resident_bytes() - before, backlog + backlog / 10);

    std::string out(mib, ' ');
    while (!queue.empty()) queue.take(out.data(), mib);
    base::byte_queue::release_pages();
    EXPECT_GE(resident_bytes() - before, backlog) << "it was needed a moment ago";
    base::byte_queue::release_pages();
    EXPECT_LE(resident_bytes(), before + 8 * mib);
}

TEST(byte_queue, a_backlog_that_drains_slowly_is_given_back_on_the_way) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own memory stands in the way of the measure";
#endif
    constexpr std::size_t mib = 1048576;
    const std::string block(mib, 'x');
    const std::size_t before = resident_bytes();
    base::byte_queue queue;
    for (int i = 0; i < 64; ++i) queue += block;
    std::string out(mib, ' ');
    for (int i = 0; i < 64; ++i) {
        queue.take(out.data(), mib);
        base::byte_queue::release_pages();
        EXPECT_LE(resident_bytes(), before + queue.size() + 8 * mib);
    }
}

TEST(byte_queue, many_queues_share_what_one_has_given_back) {
    std::vector<std::unique_ptr<base::byte_queue>> queues;
    for (int i = 0; i < 500; ++i) {
        queues.push_back(std::make_unique<base::byte_queue>());
        *queues.back() += "queue " + std::to_string(i);
    }
    for (std::size_t i = 0; i < queues.size(); i += 3) queues[i]->clear();
    for (std::size_t i = 0; i < queues.size(); i += 3) *queues[i] += "again";
    for (std::size_t i = 0; i < queues.size(); ++i)
        EXPECT_TRUE(*queues[i] == (i % 3 == 0 ? "again" : "queue " + std::to_string(i)));
}

TEST(byte_queue, tells_its_listener_when_bytes_come_to_wait_where_none_did) {
    struct listener {
        std::string seen;
        base::byte_queue queue;
    } ear;
    ear.queue.set_listener(
        [](void* context) {
            auto& self = *static_cast<listener*>(context);
            self.seen += std::string(self.queue) + ";";
        },
        &ear);

    ear.queue += "a";
    ear.queue += "b";
    EXPECT_EQ(ear.seen, "a;") << "some were waiting already";
    ear.queue += "";
    char out[2];
    ear.queue.take(out, 2);
    ear.queue += "";
    EXPECT_EQ(ear.seen, "a;") << "nothing came";
    ear.queue.assign("c");
    ear.queue.assign("d");
    EXPECT_EQ(ear.seen, "a;c;d;");
    ear.queue.announce();
    EXPECT_EQ(ear.seen, "a;c;d;d;");

    ear.queue.set_listener(nullptr, nullptr);
    ear.queue.clear();
    ear.queue += "e";
    ear.queue.announce();
    EXPECT_EQ(ear.seen, "a;c;d;d;") << "nobody listens any more";
}

} // namespace
