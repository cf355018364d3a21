#pragma once

// What the tests of relayed blocks share.

#include "vindra/base/private/block_store.h"
#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/http_proxy.h"
#include "vindra/proxy/proxy_connection.h"

#include "tests/support/far_end.h"

#include <cstddef>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

inline constexpr std::size_t mib = 1048576;

inline std::string pattern(std::size_t length, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::string bytes(length, ' ');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

inline std::size_t blocks_in_use() {
    return base::block_store::shared().in_use();
}

/// A server whose own recv() and send() see what they are given.
class watching_server : public server<http_proxy> {
public:
    using server::server;

    int send(connection* conn, char* buffer, int length) override {
        const char* const begin = conn->send_buffer;
        outside =
            outside || buffer < begin || buffer + length > begin + connection::send_buffer_size;
        lengths.push_back(length);
        return server::send(conn, buffer, length);
    }

    int recv(connection* conn, char* buffer, int length) override {
        const int count = server::recv(conn, buffer, length);
        if (count > 0) received.push_back(count);
        return count;
    }

    std::vector<int> lengths;
    std::vector<int> received;
    bool outside = false;
};

/// One backend connection, its pipe and the far end of its socket.
template <typename Server, typename Connection = proxy_connection>
class stage {
public:
    stage() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        begin(ends[0], far_end(ends[1]));
        sockets::all()->set(ends[0]);
    }
    stage(int tcp_socket, far_end other) {
        begin(tcp_socket, std::move(other));
        sockets::watch_tcp(tcp_socket);
    }
    stage(const stage&) = delete;
    stage& operator=(const stage&) = delete;
    ~stage() {
        home.reset();
        if (--pipe->refs == 0) delete pipe;
    }

    void turn() const {
        sockets::hurry();
        sockets::select_all();
        home->update();
    }

    /// Turns until all that waits has arrived.
    std::string receive_all() {
        std::string got;
        for (int turns = 0; turns < 5000; ++turns) {
            got += far.receive();
            if (conn->send_length == 0 && pipe->to_backend.empty()) break;
            turn();
        }
        return got + far.receive();
    }

    proxy_pipe* pipe = new proxy_pipe;
    std::unique_ptr<Server> home = std::make_unique<Server>(0, false);
    Connection* conn = nullptr;
    far_end far;

private:
    void begin(int near, far_end other) {
        far = std::move(other);
        conn = new Connection(near, pipe);
        home->connections.add(conn);
        home->last_report = std::time(nullptr) + 3600;
    }
};
