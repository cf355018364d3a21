// Waits that must not spin, sleep over work, or be refused.

#include "vindra/core/private/registry.h"
#include "vindra/core/sockets.h"

#include "tests/support/far_end.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/socket_ends.h"

#include <cerrno>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class waits_test : public testing::Test {
protected:
    waits_test() {
        sockets::select_all(); // the first one of a process opens a descriptor
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        near_ = ends[0];
        far_ = far_end(ends[1]);
        sockets::all()->set(near_);
        sockets::select_all();
    }

    ~waits_test() override {
        interposed::wait_error = 0;
        for (const int fd : opened_) sockets::close(fd);
        sockets::close(near_);
    }

    // One wait: its milliseconds, and how often it has asked.
    static std::pair<long, int> wait(const std::function<void()>& select = sockets::select_all) {
        interposed::poll_calls = 0;
        const auto begin = std::chrono::steady_clock::now();
        select();
        const auto time = std::chrono::steady_clock::now() - begin;
        return {std::chrono::duration_cast<std::chrono::milliseconds>(time).count(),
                interposed::poll_calls};
    }

    void expect_sleep() {
        const auto [milliseconds, asked] = wait();
        EXPECT_GE(milliseconds, 95);
        EXPECT_LE(asked, 5) << "it spins";
        EXPECT_EQ(sockets::num_ready(), 0);
    }

    // The reading end of a pipe that nobody writes to any more, or one that somebody could.
    int reading_end(bool open) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
        opened_.push_back(ends[0]);
        if (open) {
            opened_.push_back(ends[1]);
        } else {
            ::close(ends[1]);
        }
        return ends[0];
    }

    void fill() const {
        const std::string block(65536, 'x');
        while (::send(near_, block.data(), block.size(), 0) > 0) {
        }
    }

    int near_ = -1;
    far_end far_;
    std::vector<int> opened_;
};

TEST_F(waits_test, sleep_though_what_is_marked_can_never_take_bytes) {
    for (const int fd : {reading_end(true), reading_end(false), number_of_no_descriptor()}) {
        SCOPED_TRACE(fd);
        for (int i = 0; i < 2; ++i) {
            sockets::ready()->set(fd);
            expect_sleep();
        }
    }
}

TEST_F(waits_test, end_for_others_beside_what_can_never_take_bytes) {
    sockets::ready()->set(reading_end(false));
    sockets::ready()->set(number_of_no_descriptor());
    far_.send("x");
    sockets::select_all();
    EXPECT_TRUE(sockets::readable()->test(near_));
    EXPECT_EQ(sockets::num_ready(), 1);
}

TEST_F(waits_test, sleep_though_a_watched_reading_end_is_marked) {
    const int fd = reading_end(true);
    sockets::all()->set(fd);
    sockets::ready()->set(fd);
    expect_sleep();
}

TEST_F(waits_test, that_are_hurried_only_look) {
    sockets::hurry();
    EXPECT_LT(wait().first, 95);
    EXPECT_FALSE(sockets::registry::instance().idle()) << "which on_idle() follows";
    expect_sleep();
    EXPECT_TRUE(sockets::registry::instance().idle());
}

TEST_F(waits_test, that_fail_leave_the_hurry_to_the_next_one) {
    for (const int error : {EINTR, ENOMEM}) {
        sockets::hurry();
        interposed::wait_error = error;
        testing::internal::CaptureStdout();
        sockets::select_all();
        testing::internal::GetCapturedStdout();
        interposed::wait_error = 0;
        EXPECT_LT(sockets::num_ready(), 0);
        EXPECT_LT(wait().first, 95) << error;
    }
    expect_sleep();
}

// More questions than the limit allows in one call: it was lowered while they were open.
class low_limit : public waits_test {
protected:
    static constexpr rlim_t crowd = 200;

    low_limit() {
        for (rlim_t i = 0; i < crowd; ++i) {
            int ends[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
            nears_.push_back(ends[0]);
            fars_.emplace_back(ends[1]);
            sockets::all()->set(ends[0]);
        }
        sockets::select_all();
    }

    ~low_limit() override {
        for (const int fd : nears_) sockets::close(fd);
    }

    void mark_all() const {
        for (const int fd : nears_) sockets::ready()->set(fd);
    }

    void fill_all() const {
        const std::string block(65536, 'x');
        for (const int fd : nears_) {
            while (::send(fd, block.data(), block.size(), 0) > 0) {
            }
        }
    }

    // For the wait alone: the sanitizers open descriptors as well.
    static std::pair<long, int> wait_below_limit() {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        rlimit low = limit;
        low.rlim_cur = crowd / 8;
        return wait([&] {
            setrlimit(RLIMIT_NOFILE, &low);
            sockets::select_all();
            setrlimit(RLIMIT_NOFILE, &limit);
        });
    }

    std::vector<int> nears_;
    std::vector<far_end> fars_;
};

TEST_F(low_limit, asks_in_portions) {
    for (const far_end& far : fars_) far.send("x");
    for (int i = 0; i < 2; ++i) {
        mark_all();
        wait_below_limit();
        EXPECT_EQ(sockets::num_ready(), static_cast<int>(2 * crowd));
        for (const int fd : nears_) EXPECT_TRUE(sockets::readable()->test(fd));
    }
}

TEST_F(low_limit, sleeps_when_no_portion_has_an_answer) {
    fill_all();
    mark_all();
    const auto [milliseconds, asked] = wait_below_limit();
    EXPECT_GE(milliseconds, 95);
    EXPECT_LE(asked, 30);
    EXPECT_EQ(sockets::num_ready(), 0);
}

TEST_F(low_limit, ends_a_sleep_for_the_one_that_has_room_again) {
    fill_all();
    mark_all();
    wait_below_limit();
    fars_[100].receive();
    mark_all();
    EXPECT_LT(wait_below_limit().first, 95);
    EXPECT_EQ(sockets::num_ready(), 1);
    EXPECT_TRUE(sockets::writable()->test(nears_[100]));
}

} // namespace
