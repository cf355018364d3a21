#pragma once

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/far_end.h"
#include "tests/support/held_port.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/scripted_connection.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

/// A server whose hooks write down that they were called.
class observed_server : public server<scripted_connection> {
public:
    using server::server;
    using server_base::plain_walk_max;

    connection* create_connection(int peer_address) override {
        created_for.push_back(peer_address);
        return makes_connections ? server::create_connection(peer_address) : nullptr;
    }
    bool on_accept(connection* conn) override {
        accepted.push_back(conn);
        return admits;
    }
    void on_remove(connection* conn) override {
        removed.push_back(conn);
        socket_was_open = fcntl(conn->fd, F_GETFD) != -1;
    }
    int recv(connection* conn, char* buffer, int length) override {
        capacities.push_back(length);
        if (conn == deaf_once) {
            deaf_once = nullptr;
            errno = EPROTO;
            return -1;
        }
        return server::recv(conn, buffer, length);
    }

    std::vector<int> created_for;
    std::vector<connection*> accepted;
    std::vector<connection*> removed;
    std::vector<int> capacities;
    connection* deaf_once = nullptr;
    bool makes_connections = true;
    bool admits = true;
    bool socket_was_open = false;
};

/// A server of scripted connections that the test turns by hand. Link interposed_calls.cpp.
class server_test : public testing::Test {
protected:
    server_test() { server_.last_report = std::time(nullptr); }

    ~server_test() override {
        interposed::wait_error = interposed::accept_error = interposed::recv_error_once = 0;
        interposed::send_limit = 0;
    }

    void start() {
        const captured_output out;
        ASSERT_TRUE(server_.start());
    }

    void turn() {
        sockets::select_all();
        server_.update();
    }

    void turn_until(const std::function<bool()>& done, int most_turns = 200) {
        while (!done()) {
            ASSERT_GT(most_turns--, 0) << "condition never held";
            turn();
        }
    }

    // A connection in the server's list with the test at its far end, and no accept between.
    template <typename T = scripted_connection>
    T& join(far_end& far) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        far = far_end(ends[1]);
        auto* conn = new T;
        conn->fd = ends[0];
        server_.connections.add(conn);
        sockets::all()->set(conn->fd);
        return *conn;
    }

    std::vector<connection*> in_list() const {
        std::vector<connection*> all;
        for (auto* node = server_.connections.head->next; node != nullptr; node = node->next)
            all.push_back(node->value);
        EXPECT_EQ(all.size(), static_cast<std::size_t>(server_.connections.count));
        return all;
    }

    bool removed(const connection& conn) const {
        return std::find(server_.removed.begin(), server_.removed.end(), &conn) !=
               server_.removed.end();
    }

    held_port port_;
    // Held at a distance: a server's destructor may throw, a fixture's may not.
    std::unique_ptr<observed_server> owned_ =
        std::make_unique<observed_server>(port_.number(), true);
    observed_server& server_ = *owned_;
};
