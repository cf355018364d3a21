#pragma once

#include "vindra/core/sockets.h"

#include "tests/support/far_end.h"

#include <ctime>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

/// Two ends of a socket: `near` is the one that goes into the sets.
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

/// A number that no descriptor has, out of the way of what the process opens next.
inline int number_of_no_descriptor() {
    const int fd = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3000);
    ::close(fd);
    return fd;
}

/// How long `what` takes.
inline double seconds_of(const std::function<void()>& what) {
    timespec begin{};
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    what();
    clock_gettime(CLOCK_MONOTONIC, &end);
    return static_cast<double>(end.tv_sec - begin.tv_sec) +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
}
