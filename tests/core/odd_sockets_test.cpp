// Descriptors that are no quiet sockets, beside what select() says of them; and waits that fail.

#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/far_end.h"
#include "tests/support/held_port.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/socket_ends.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

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

} // namespace
