#include "vindra/core/private/registry.h"
#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/socket_ends.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

TEST(descriptor_set, holds_what_was_set_beyond_1024_too) {
    sockets::descriptor_set set;
    for (const int fd : {0, 63, 64, 1023, 1024, 20000}) {
        EXPECT_FALSE(set.test(fd));
        set.set(fd);
        EXPECT_TRUE(set.test(fd));
    }
    set.clear(64);
    EXPECT_FALSE(set.test(64));
    EXPECT_TRUE(set.test(63));
    EXPECT_FALSE(set.test(30000));
    set.clear(30000);
}

TEST(descriptor_set, takes_no_harm_from_a_negative_number) {
    sockets::descriptor_set set;
    set.set(-1);
    set.clear(-1);
    EXPECT_FALSE(set.test(-1));
    EXPECT_FALSE(set.test(0));
}

TEST(sockets, a_wait_with_nothing_registered_sleeps_a_tenth_of_a_second) {
    const double seconds = seconds_of(sockets::select_all);
    EXPECT_GE(seconds, 0.095);
    EXPECT_LT(seconds, 1.0);
    EXPECT_EQ(sockets::num_ready(), 0);
}

TEST(sockets, a_wait_sleeps_on_when_nothing_that_was_asked_for_has_come) {
    const pair_of_ends quiet;
    sockets::all()->set(quiet.near);
    EXPECT_GE(seconds_of(sockets::select_all), 0.095) << "a new socket can be written to";
    EXPECT_EQ(sockets::num_ready(), 0);

    quiet.far.send("a");
    EXPECT_EQ(quiet.read(), "a");
    EXPECT_GE(seconds_of(sockets::select_all), 0.095) << "what had come is read already";
    EXPECT_EQ(sockets::num_ready(), 0);
}

TEST(sockets, bytes_make_a_socket_readable_until_they_are_read) {
    const pair_of_ends p;
    sockets::all()->set(p.near);
    p.far.send("ab");
    for (int wait = 0; wait < 3; ++wait) {
        sockets::select_all();
        EXPECT_TRUE(sockets::readable()->test(p.near)) << "wait " << wait;
        EXPECT_EQ(sockets::num_ready(), 1);
    }
    EXPECT_EQ(p.read(), "ab");
    sockets::select_all();
    EXPECT_FALSE(sockets::readable()->test(p.near)) << "read by others, without a hint";
    EXPECT_EQ(sockets::num_ready(), 0);
    p.far.send("c");
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(p.near));
}

TEST(sockets, an_end_of_stream_stays_readable) {
    pair_of_ends p;
    sockets::all()->set(p.near);
    p.far.close();
    for (int wait = 0; wait < 3; ++wait) {
        sockets::select_all();
        EXPECT_TRUE(sockets::readable()->test(p.near));
    }
}

TEST(sockets, a_socket_not_marked_is_never_writable_and_a_marked_one_once) {
    const pair_of_ends p;
    sockets::all()->set(p.near);
    sockets::select_all();
    EXPECT_FALSE(sockets::writable()->test(p.near));
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::writable()->test(p.near));
    EXPECT_EQ(sockets::num_ready(), 1);
    sockets::select_all();
    EXPECT_FALSE(sockets::writable()->test(p.near)) << "the order was for one wait";
}

TEST(sockets, a_marked_socket_is_writable_though_nobody_watches_it) {
    const pair_of_ends p;
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::writable()->test(p.near));
    p.far.send("x");
    sockets::select_all();
    EXPECT_FALSE(sockets::readable()->test(p.near));
}

TEST(sockets, a_full_socket_is_not_writable_though_marked) {
    pair_of_ends p;
    sockets::all()->set(p.near);
    p.fill();
    for (int wait = 0; wait < 2; ++wait) {
        sockets::ready()->set(p.near);
        sockets::select_all();
        EXPECT_FALSE(sockets::writable()->test(p.near)) << "without a hint";
    }
    p.far.receive();
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::writable()->test(p.near));
}

TEST(sockets, ready_is_empty_after_every_wait_whatever_its_outcome) {
    const pair_of_ends p;
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_FALSE(sockets::ready()->test(p.near));

    sockets::ready()->set(p.near);
    const int closed = number_of_no_descriptor();
    sockets::all()->set(closed);
    const captured_output out;
    sockets::select_all();
    EXPECT_LT(sockets::num_ready(), 0);
    EXPECT_FALSE(sockets::ready()->test(p.near));
    sockets::all()->clear(closed);
}

TEST(sockets, the_hint_drained_waits_for_news_and_misses_none) {
    const pair_of_ends p;
    sockets::all()->set(p.near);
    p.far.send("a");
    sockets::select_all();
    EXPECT_EQ(p.read(), "a");
    EXPECT_EQ(p.read(), "");
    sockets::drained(p.near);
    sockets::select_all();
    EXPECT_FALSE(sockets::readable()->test(p.near));
    p.far.send("b");
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(p.near));
}

TEST(sockets, news_between_the_read_and_the_hint_is_not_lost) {
    const pair_of_ends p;
    sockets::all()->set(p.near);
    p.far.send("a");
    sockets::select_all();
    EXPECT_EQ(p.read(), "a");
    EXPECT_EQ(p.read(), "");
    p.far.send("b");
    sockets::drained(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(p.near));
}

TEST(sockets, the_bell_is_one_watched_descriptor_of_the_process) {
    EXPECT_EQ(sockets::bell(), sockets::bell());
    EXPECT_TRUE(sockets::all()->test(sockets::bell()));
    EXPECT_EQ(fcntl(sockets::bell(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(sockets, the_bell_ends_the_wait_in_progress) {
    const int bell = sockets::bell();
    std::thread other([bell] { eventfd_write(bell, 1); });
    for (int waits = 0; !sockets::readable()->test(bell); ++waits) {
        ASSERT_LT(waits, 100) << "never heard";
        sockets::select_all();
    }
    other.join();
    EXPECT_EQ(sockets::num_ready(), 1);
    sockets::select_all();
    sockets::select_all();
}

TEST(sockets, each_ring_of_the_bell_ends_two_waits) {
    const int bell = sockets::bell();
    const struct {
        const char* name;
        std::vector<int> rings;  // before each wait
        std::vector<bool> ended; // before its time
    } cases[] = {
        {"silence", {0, 0}, {false, false}},
        {"one", {1, 0, 0, 0}, {true, true, false, false}},
        {"many at once", {5, 0, 0}, {true, true, false}},
        {"one behind the other", {1, 1, 0, 0}, {true, true, true, false}},
        {"one behind the second wait", {1, 0, 1, 0, 0}, {true, true, true, true, false}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (std::size_t i = 0; i < c.rings.size(); ++i) {
            for (int n = 0; n < c.rings[i]; ++n) eventfd_write(bell, 1);
            sockets::select_all();
            EXPECT_EQ(!sockets::registry::instance().idle(), c.ended[i]) << "wait " << i;
        }
    }
}

TEST(sockets, the_hint_filled_waits_for_room_and_misses_none) {
    pair_of_ends p;
    sockets::all()->set(p.near);
    p.fill();
    sockets::filled(p.near);
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_FALSE(sockets::writable()->test(p.near));
    p.far.receive();
    sockets::select_all(); // the news comes while nobody asks for it
    EXPECT_FALSE(sockets::writable()->test(p.near));
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::writable()->test(p.near));
}

TEST(sockets, hints_about_strangers_are_harmless) {
    sockets::drained(-1);
    sockets::filled(-1);
    sockets::drained(999);
    sockets::filled(999);
    const pair_of_ends p;
    sockets::filled(p.near);
    sockets::ready()->set(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::writable()->test(p.near));
}

TEST(sockets, close_clears_the_number_in_all_five_sets) {
    pair_of_ends p;
    const int number = p.near;
    sockets::all()->set(number);
    p.far.send("x");
    sockets::ready()->set(number);
    sockets::select_all();
    sockets::errors()->set(number);
    sockets::ready()->set(number);
    ASSERT_TRUE(sockets::readable()->test(number));
    ASSERT_TRUE(sockets::writable()->test(number));
    sockets::close(number);
    p.near = -1;
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    for (sockets::descriptor_set* set : {sockets::all(), sockets::ready(), sockets::readable(),
                                         sockets::writable(), sockets::errors()})
        EXPECT_FALSE(set->test(number));
}

TEST(sockets, a_number_used_again_inherits_nothing) {
    pair_of_ends old;
    const int number = old.near;
    sockets::all()->set(number);
    old.far.send("x");
    sockets::ready()->set(number);
    sockets::select_all();
    sockets::close(number);
    old.near = -1;

    const pair_of_ends fresh;
    ASSERT_EQ(fresh.near, number) << "the kernel hands out the lowest number";
    sockets::all()->set(fresh.near);
    EXPECT_FALSE(sockets::readable()->test(number));
    EXPECT_FALSE(sockets::writable()->test(number));
    sockets::select_all();
    EXPECT_FALSE(sockets::readable()->test(number));
    fresh.far.send("y");
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(number));
}

TEST(sockets, setting_a_number_again_drops_what_was_found_and_asks_anew) {
    const pair_of_ends p;
    sockets::all()->set(p.near);
    p.far.send("x");
    sockets::ready()->set(p.near);
    sockets::select_all();
    sockets::drained(p.near);
    sockets::all()->set(p.near);
    EXPECT_FALSE(sockets::readable()->test(p.near));
    EXPECT_FALSE(sockets::writable()->test(p.near));
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(p.near));
}

TEST(sockets, a_socket_taken_out_and_put_back_is_watched_again) {
    const pair_of_ends p;
    sockets::all()->set(p.near);
    sockets::select_all();
    sockets::all()->clear(p.near);
    p.far.send("x");
    sockets::select_all();
    EXPECT_FALSE(sockets::readable()->test(p.near));
    sockets::all()->set(p.near);
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(p.near));
}

TEST(sockets, events_of_a_copy_that_outlives_its_number_reach_nobody) {
    pair_of_ends p;
    const int number = p.near;
    const int copy = fcntl(number, F_DUPFD_CLOEXEC, 500);
    sockets::all()->set(number);
    sockets::select_all();
    sockets::close(number);
    const pair_of_ends next;
    p.near = copy;
    ASSERT_EQ(next.near, number);
    sockets::all()->set(next.near);
    p.far.send("phantom");
    sockets::select_all();
    EXPECT_FALSE(sockets::readable()->test(number));
    EXPECT_EQ(sockets::num_ready(), 0);
}

TEST(sockets, every_descriptor_of_a_large_crowd_is_reported) {
    constexpr int crowd = 1500;
    std::vector<pair_of_ends> pairs(crowd);
    for (const pair_of_ends& p : pairs) {
        sockets::all()->set(p.near);
        sockets::ready()->set(p.near);
        p.far.send("x");
    }
    ASSERT_GT(pairs.back().near, 1024);
    sockets::select_all();
    EXPECT_EQ(sockets::num_ready(), 2 * crowd);
    for (const pair_of_ends& p : pairs) EXPECT_TRUE(sockets::readable()->test(p.near));
}

// Numbers at both ends of what one word, and one word of words, of a set can name.
TEST(sockets, numbers_far_apart_are_reported_and_forgotten_alike) {
    constexpr rlim_t highest = 9000;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < highest) GTEST_SKIP() << "no descriptor may have so high a number";
    rlimit enough = limit;
    enough.rlim_cur = std::max(limit.rlim_cur, highest);
    setrlimit(RLIMIT_NOFILE, &enough);

    const pair_of_ends p;
    p.far.send("x");
    std::vector<int> fds;
    for (const int least : {0, 191, 192, 4031, 4095, 4096, 8191, 8192})
        fds.push_back(fcntl(p.near, F_DUPFD_CLOEXEC, least));
    const auto is_result = [](int fd) {
        return sockets::readable()->test(fd) && sockets::writable()->test(fd);
    };

    for (const int fd : fds) sockets::all()->set(fd);
    for (std::size_t members = fds.size();; --members) {
        for (std::size_t i = 0; i < members; ++i) sockets::ready()->set(fds[i]);
        sockets::select_all();
        EXPECT_EQ(sockets::num_ready(), static_cast<int>(2 * members));
        for (std::size_t i = 0; i < fds.size(); ++i) EXPECT_EQ(is_result(fds[i]), i < members) << i;

        sockets::select_all();
        EXPECT_EQ(sockets::num_ready(), static_cast<int>(members)) << "none is marked any more";
        for (const int fd : fds) EXPECT_FALSE(sockets::writable()->test(fd));
        if (members == 0) break;
        sockets::close(fds[members - 1]);
    }
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(sockets, reading_and_writing_of_all_that_a_process_may_have_open_is_asked_for_at_once) {
    constexpr int crowd = 300;
    const std::vector<pair_of_ends> pairs(crowd);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    rlimit low = limit;
    low.rlim_cur = crowd + 100;
    sockets::select_all(); // the first one of a process opens a descriptor
    for (const pair_of_ends& p : pairs) {
        sockets::all()->set(p.near);
        p.far.send("x");
    }
    for (int wait = 0; wait < 3; ++wait) {
        for (const pair_of_ends& p : pairs) sockets::ready()->set(p.near);
        setrlimit(RLIMIT_NOFILE, &low);
        sockets::select_all();
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(sockets::num_ready(), 2 * crowd) << "wait " << wait;
    }
}

TEST(sockets, a_write_to_a_closed_peer_fails_instead_of_ending_the_process) {
    pair_of_ends p;
    p.far.close();
    EXPECT_EQ(::send(p.near, "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(sockets, the_wait_writes_out_what_was_printed) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    std::printf("a line\n");
    sockets::select_all();
    char text[16] = "";
    EXPECT_EQ(::read(ends[0], text, sizeof text), 7);
    EXPECT_STREQ(text, "a line\n");
    dup2(saved, STDOUT_FILENO);
    for (const int fd : {saved, ends[0], ends[1]}) ::close(fd);
}

} // namespace
