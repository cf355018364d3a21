#pragma once

#include "vindra/core/sockets.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/// The test's own end of a connection: a socket that never blocks and is no member of any
/// set of the registry.
class far_end {
public:
    explicit far_end(int fd = -1) : fd_(fd) {
        if (fd_ >= 0) fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
    }
    far_end(far_end&& other) noexcept : fd_(other.fd_), closed_by_peer_(other.closed_by_peer_) {
        other.fd_ = -1;
    }
    far_end& operator=(far_end&& other) noexcept {
        close();
        fd_ = other.fd_;
        closed_by_peer_ = other.closed_by_peer_;
        other.fd_ = -1;
        return *this;
    }
    ~far_end() { close(); }

    /// Connects to `port` of 127.0.0.1, whose backlog takes the connection at once, from an
    /// address of the loopback range.
    static far_end connect_to(int port, in_addr_t from = INADDR_LOOPBACK) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(from);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return far_end(fd);
    }

    int fd() const { return fd_; }

    /// The local port of a TCP socket.
    int port() const {
        sockaddr_in own{};
        socklen_t length = sizeof own;
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &length), 0);
        return ntohs(own.sin_port);
    }

    /// Writes all of `bytes`; the test fails when the socket does not take them at once.
    void send(std::string_view bytes) const {
        const auto count = ::send(fd_, bytes.data(), bytes.size(), 0);
        EXPECT_EQ(count, static_cast<ssize_t>(bytes.size()));
    }

    /// Writes what the socket takes of `bytes` now and returns how much that was.
    std::size_t send_some(std::string_view bytes) const {
        const auto count = ::send(fd_, bytes.data(), bytes.size(), 0);
        return count < 0 ? 0 : static_cast<std::size_t>(count);
    }

    /// All that has arrived by now.
    std::string receive() {
        std::string text;
        char block[65536];
        ssize_t count = 0;
        while ((count = ::recv(fd_, block, sizeof block, 0)) > 0)
            text.append(block, static_cast<std::size_t>(count));
        if (count == 0 || (count < 0 && errno != EAGAIN)) closed_by_peer_ = true;
        return text;
    }

    /// True once receive() has met the end of the stream, or a reset.
    bool closed_by_peer() const { return closed_by_peer_; }

    void finish_sending() const { shutdown(fd_, SHUT_WR); }

    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    /// Ends the connection with a reset instead of an end of stream.
    void reset() {
        const linger at_once{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close();
    }

private:
    int fd_;
    bool closed_by_peer_ = false;
};
