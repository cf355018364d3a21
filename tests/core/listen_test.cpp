#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/held_port.h"

#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

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
