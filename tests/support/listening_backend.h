#pragma once

#include "tests/support/far_end.h"
#include "tests/support/held_port.h"

#include <cstdint>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/// A backend whose every byte the test writes itself: a listening socket on an address of the
/// loopback range, and the far ends of the connections that come in.
class listening_backend {
public:
    listening_backend() { listen_at_(INADDR_LOOPBACK, own_.number()); }
    listening_backend(in_addr_t host, int port) { listen_at_(host, port); }
    listening_backend(const listening_backend&) = delete;
    listening_backend& operator=(const listening_backend&) = delete;
    ~listening_backend() { ::close(fd_); }

    int port() const { return port_; }

    /// The next connection that waits. The test fails when there is none.
    far_end accept() const {
        const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(fd, 0) << "nobody has connected";
        return far_end(fd);
    }

    /// True when nobody is waiting to be accepted.
    bool nobody_waits() const { return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) < 0; }

private:
    void listen_at_(in_addr_t host, int port) {
        port_ = port;
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(host);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 16), 0);
    }

    held_port own_;
    int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int port_ = 0;
};
