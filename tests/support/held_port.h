#pragma once

#include <cstdint>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/// A free port of 127.0.0.1, kept by a bound socket that shares it and never listens: no
/// other test is given the number while this object lives.
class held_port {
public:
    held_port() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        number_ = ntohs(address.sin_port);
    }
    held_port(const held_port&) = delete;
    held_port& operator=(const held_port&) = delete;
    ~held_port() { ::close(fd_); }

    int number() const { return number_; }

private:
    int fd_;
    int number_ = 0;
};
