#include "vindra/core/private/registry.h"
#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/far_end.h"
#include "tests/support/held_port.h"
#include "tests/support/interposed_calls.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Two ends of a socket: `near` is the one that goes into the sets.
struct pair_of_ends {
    int near = -1;
    far_end far;

    pair_of_ends() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        near = ends[0];
        far = far_end(ends[1]);
    }
    pair_of_ends(const pair_of_ends&) = delete;
    pair_of_ends& operator=(const pair_of_ends&) = delete;
    ~pair_of_ends() { sockets::close(near); }

    std::string read() const {
        char block[4096];
        const auto count = ::recv(near, block, sizeof block, 0);
        return count > 0 ? std::string(block, static_cast<std::size_t>(count)) : "";
    }

    void fill() const {
        const std::string block(65536, 'x');
        while (::send(near, block.data(), block.size(), 0) > 0) {
        }
    }
};

// Out of the way of what the process opens next.
int number_of_no_descriptor() {
    const int fd = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3000);
    ::close(fd);
    return fd;
}

double seconds_of(const std::function<void()>& what) {
    timespec begin{};
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    what();
    clock_gettime(CLOCK_MONOTONIC, &end);
    return static_cast<double>(end.tv_sec - begin.tv_sec) +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
}

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

TEST(sockets, urgent_data_is_an_exceptional_condition_until_it_is_read) {
    const held_port port;
    int listener = -1;
    {
        const captured_output out;
        ASSERT_TRUE(sockets::listen(listener, true, port.number()));
    }
    const far_end far = far_end::connect_to(port.number());
    const int near = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    ASSERT_GE(near, 0);
    sockets::all()->set(near);
    sockets::select_all();
    EXPECT_FALSE(sockets::errors()->test(near));
    ASSERT_EQ(::send(far.fd(), "!", 1, MSG_OOB), 1);
    for (int wait = 0; wait < 2; ++wait) {
        sockets::select_all();
        EXPECT_TRUE(sockets::errors()->test(near));
    }
    char urgent = 0;
    EXPECT_EQ(::recv(near, &urgent, 1, MSG_OOB), 1);
    sockets::select_all();
    EXPECT_FALSE(sockets::errors()->test(near));
    sockets::close(near);
    sockets::close(listener);
}

TEST(sockets, a_regular_file_is_always_ready) {
    std::FILE* file = std::tmpfile();
    const int fd = fileno(file);
    sockets::all()->set(fd);
    for (int wait = 0; wait < 3; ++wait) {
        sockets::ready()->set(fd);
        const double seconds = seconds_of(sockets::select_all);
        EXPECT_LT(seconds, 0.05);
        EXPECT_TRUE(sockets::readable()->test(fd));
        EXPECT_TRUE(sockets::writable()->test(fd));
        EXPECT_FALSE(sockets::errors()->test(fd));
        EXPECT_EQ(sockets::num_ready(), 2);
    }
    sockets::all()->clear(fd);
    std::fclose(file);
}

TEST(sockets, a_refused_connect_is_readable_and_writable_to_the_end) {
    const held_port nobody_listens;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(nobody_listens.number()));
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), -1);
    sockets::all()->set(fd);
    sockets::ready()->set(fd);
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(fd));
    EXPECT_TRUE(sockets::writable()->test(fd));
    char byte = 0;
    EXPECT_EQ(::recv(fd, &byte, 1, 0), -1);
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(fd)) << "the end that follows the error";
    EXPECT_EQ(::recv(fd, &byte, 1, 0), 0);
    sockets::close(fd);
}

// The way all of this is defined: what select() says of the same descriptors.
struct plain_answer {
    fd_set readable;
    fd_set writable;
    fd_set errors;

    explicit plain_answer(const std::vector<int>& fds) {
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_ZERO(&errors);
        for (const int fd : fds) {
            if (sockets::all()->test(fd)) FD_SET(fd, &readable);
            if (sockets::all()->test(fd)) FD_SET(fd, &errors);
            if (sockets::ready()->test(fd)) FD_SET(fd, &writable);
        }
        timeval at_once{};
        EXPECT_GE(select(FD_SETSIZE, &readable, &writable, &errors, &at_once), 0);
    }

    bool operator==(const plain_answer& other) const {
        return std::memcmp(this, &other, sizeof *this) == 0;
    }
};

class odd_descriptors {
public:
    odd_descriptors() {
        for (int i = 0; i < 3; ++i) add_pair(AF_UNIX);
        for (int i = 0; i < 3; ++i) add_tcp();
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
        near.insert(near.end(), {ends[0], ends[1]});
        near.push_back(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        near.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        near.push_back(fileno(file));
    }
    odd_descriptors(const odd_descriptors&) = delete;
    odd_descriptors& operator=(const odd_descriptors&) = delete;
    ~odd_descriptors() {
        near.pop_back();
        sockets::all()->clear(fileno(file));
        std::fclose(file);
        for (const int fd : near) sockets::close(fd);
        for (const int fd : far) ::close(fd);
    }

    std::vector<int> near;
    std::vector<int> far;

private:
    void add_pair(int family) {
        int ends[2];
        EXPECT_EQ(socketpair(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        near.push_back(ends[0]);
        far.push_back(ends[1]);
    }

    void add_tcp() {
        const held_port port;
        int listener = -1;
        {
            const captured_output out;
            ASSERT_TRUE(sockets::listen(listener, true, port.number()));
        }
        const far_end client = far_end::connect_to(port.number());
        near.push_back(fcntl(client.fd(), F_DUPFD_CLOEXEC, 0));
        far.push_back(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        ::close(listener);
    }

    std::FILE* file = std::tmpfile();
};

TEST(sockets, answer_as_the_classic_wait_does_whatever_happens) {
    std::mt19937 random(7);
    const auto one_of = [&random](const std::vector<int>& fds) {
        return fds[random() % fds.size()];
    };
    std::string block(300000, 'x');
    int compared = 0;

    for (int round = 0; round < 12; ++round) {
        odd_descriptors d;
        for (const int fd : d.near) sockets::all()->set(fd);
        for (int step = 0; step < 250; ++step) {
            const int fd = one_of(random() % 2 == 0 ? d.near : d.far);
            const bool is_near = std::find(d.near.begin(), d.near.end(), fd) != d.near.end();
            switch (random() % 12) {
            case 0:
                (void)!::write(fd, block.data(), 1 + random() % 20);
                break;
            case 1:
                (void)!::write(fd, block.data(), block.size());
                break;
            case 2:
                (void)!::read(fd, block.data(), 1 + random() % 20);
                break;
            case 3:
                (void)!::read(fd, block.data(), block.size());
                break;
            case 4:
                if (step > 200) shutdown(fd, random() % 2 == 0 ? SHUT_WR : SHUT_RDWR);
                break;
            case 5:
                (void)!::send(fd, "!", 1, MSG_OOB);
                break;
            case 6: // read to the bottom, and say so only when the socket says so
                while (::recv(fd, block.data(), block.size(), 0) > 0) {
                }
                if (is_near && errno == EAGAIN) sockets::drained(fd);
                break;
            case 7:
                while (::send(fd, block.data(), block.size(), 0) > 0) {
                }
                if (is_near && errno == EAGAIN) sockets::filled(fd);
                break;
            case 8:
                sockets::all()->set(one_of(d.near));
                break;
            case 9:
                sockets::all()->clear(one_of(d.near));
                break;
            default:
                break;
            }
            sockets::all()->set(d.near.back()); // the file, so that no wait sleeps
            std::vector<int> marked;
            for (const int n : d.near)
                if (random() % 3 == 0) marked.push_back(n);
            for (const int n : marked) sockets::ready()->set(n);

            const plain_answer before(d.near);
            sockets::select_all();
            for (const int n : marked) sockets::ready()->set(n);
            const plain_answer after(d.near);
            sockets::ready()->clear(-1);
            for (const int n : marked) sockets::ready()->clear(n);
            if (!(before == after)) continue; // the kernel was still at work

            ++compared;
            int bits = 0;
            for (const int n : d.near) {
                ASSERT_EQ(sockets::readable()->test(n), FD_ISSET(n, &before.readable) != 0) << n;
                ASSERT_EQ(sockets::writable()->test(n), FD_ISSET(n, &before.writable) != 0) << n;
                ASSERT_EQ(sockets::errors()->test(n), FD_ISSET(n, &before.errors) != 0) << n;
                bits += sockets::readable()->test(n) + sockets::writable()->test(n) +
                        sockets::errors()->test(n);
            }
            ASSERT_EQ(sockets::num_ready(), bits);
        }
    }
    EXPECT_GT(compared, 2000);
}

void ignore_signal(int /*number*/) {}

TEST(sockets, a_signal_during_the_wait_leaves_a_negative_count_and_prints_nothing) {
    const auto old = std::signal(SIGALRM, ignore_signal);
    captured_output out;
    itimerval soon{};
    soon.it_value.tv_usec = 20000;
    setitimer(ITIMER_REAL, &soon, nullptr);
    sockets::select_all();
    EXPECT_EQ(errno, EINTR);
    EXPECT_LT(sockets::num_ready(), 0);
    EXPECT_EQ(out.take(), "");
    std::signal(SIGALRM, old);
}

TEST(sockets, a_descriptor_that_is_none_fails_the_wait_with_its_error) {
    const int closed = number_of_no_descriptor();
    sockets::all()->set(closed);
    captured_output out;
    sockets::select_all();
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(sockets::num_ready(), -1);
    EXPECT_EQ(out.take(), "select() failed! " + std::to_string(EBADF) + "\n");
    sockets::all()->clear(closed);
    sockets::select_all();
    EXPECT_EQ(sockets::num_ready(), 0);
}

TEST(sockets, a_wait_that_fails_half_way_leaves_nothing_ready) {
    pair_of_ends known;
    known.far.send("x");
    sockets::all()->set(known.near);
    sockets::select_all();
    ASSERT_TRUE(sockets::readable()->test(known.near));

    const pair_of_ends fresh;
    sockets::all()->set(fresh.near);
    interposed::news_error = ENOMEM;
    {
        const captured_output out;
        sockets::select_all();
    }
    interposed::news_error = 0;
    EXPECT_EQ(sockets::num_ready(), -1);
    EXPECT_FALSE(sockets::readable()->test(known.near));
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(known.near));
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

std::string addresses_of_this_machine() {
    std::string text;
    ifaddrs* list = nullptr;
    EXPECT_EQ(getifaddrs(&list), 0);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        char host[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, host,
                  sizeof host);
        text += host + std::string("\n");
    }
    freeifaddrs(list);
    return text.empty() ? "\n" : text;
}

TEST(listen, on_all_adapters_prints_their_ipv4_addresses_in_order) {
    const held_port port;
    int fd = -1;
    captured_output out;
    EXPECT_TRUE(sockets::listen(fd, false, port.number()));
    EXPECT_EQ(out.take(), "Binding to port " + std::to_string(port.number()) +
                              " on all adapters:\n" + addresses_of_this_machine());
    EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);
    EXPECT_TRUE((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
    EXPECT_FALSE(sockets::all()->test(fd)) << "that is the caller's step";
    sockets::close(fd);
}

TEST(listen, on_localhost_binds_the_loopback_address_alone) {
    const held_port port;
    int fd = -1;
    captured_output out;
    EXPECT_TRUE(sockets::listen(fd, true, port.number()));
    EXPECT_EQ(out.take(),
              "Binding to port " + std::to_string(port.number()) + " on localhost only\n");
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    EXPECT_EQ(ntohl(bound.sin_addr.s_addr), INADDR_LOOPBACK);
    sockets::close(fd);
}

TEST(listen, a_port_in_use_prints_the_failure_and_two_hints_and_leaves_no_socket) {
    const int owner = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); // shares with nobody
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(owner, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(owner, 1), 0);
    getsockname(owner, reinterpret_cast<sockaddr*>(&address), &length);
    const int port = ntohs(address.sin_port);

    int fd = 77;
    captured_output out;
    EXPECT_FALSE(sockets::listen(fd, true, port));
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(out.take(), "Binding to port " + std::to_string(port) +
                              " on localhost only\nbind() failed: -1 " + gai_strerror(-1) +
                              "\nCheck that the port isn't already taken.\n"
                              "This can be done with 'netstat -an' on windows/mac/linux.\n");
    ::close(owner);
}

TEST(listen, a_port_out_of_range_is_the_resolver_s_failure_and_leaves_fd_alone) {
    int fd = 77;
    captured_output out;
    const bool opened = sockets::listen(fd, true, -5);
    const std::string text = out.take();
    if (opened) {
        sockets::close(fd);
        GTEST_FAIL() << "this resolver takes -5 for a port: " << text;
    }
    EXPECT_EQ(fd, 77);
    EXPECT_NE(text.find("getaddrinfo() failed: "), std::string::npos) << text;
}

TEST(listen, two_sockets_of_one_user_share_a_port) {
    const held_port port;
    int first = -1;
    int second = -1;
    const captured_output out;
    EXPECT_TRUE(sockets::listen(first, true, port.number()));
    EXPECT_TRUE(sockets::listen(second, true, port.number()));
    sockets::close(first);
    sockets::close(second);
}

} // namespace
