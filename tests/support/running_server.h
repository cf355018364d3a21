#pragma once

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/far_end.h"
#include "tests/support/held_port.h"

#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

/// A server<T> on a port of its own that the test turns by hand. What it prints goes to
/// standard output, so capture that from before the start.
template <typename T>
class running_server {
public:
    running_server() {
        server_->last_report = std::time(nullptr) + 3600; // no count lines
        EXPECT_TRUE(server_->start());
    }

    server<T>& get() { return *server_; }
    int port() const { return port_.number(); }

    /// A client whose connection the server has accepted.
    far_end connect(in_addr_t from = INADDR_LOOPBACK) {
        far_end client = far_end::connect_to(port_.number(), from);
        turn_until([&] { return newest_port() == client.port(); });
        return client;
    }

    /// The connection accepted last.
    T& newest() { return *static_cast<T*>(server_->connections.tail->value); }

    void turn() {
        sockets::select_all();
        server_->update();
    }

    /// Waits inside the loop, never beside it: a hang fails here by name.
    void turn_until(const std::function<bool()>& done, int most_turns = 300) {
        while (!done()) {
            ASSERT_GT(most_turns--, 0) << "condition never held";
            turn();
        }
    }

    /// Turns until `end` has received at least `length` bytes and returns all of them.
    std::string receive(far_end& end, std::size_t length) {
        std::string text = end.receive();
        turn_until([&] {
            text += end.receive();
            return text.size() >= length || end.closed_by_peer();
        });
        return text;
    }

    /// Has a backend, whose connection is the last of two, answer with more than its client and
    /// the sockets in between take, and leave. Returns the answer.
    std::string answer_and_leave(far_end& backend) {
        std::string answer(std::size_t{24} << 20, 'a');
        std::size_t sent = 0;
        turn_until([&] {
            sent += backend.send_some(std::string_view(answer).substr(sent));
            return sent == answer.size();
        });
        // Closed with something unread it would reset the connection, and its answer be lost.
        backend.receive();
        backend.close();
        turn_until([&] { return server_->connections.count == 1; });
        return answer;
    }

    /// Turns until `end` has been closed and returns all that came before.
    std::string receive_all(far_end& end) { return receive(end, static_cast<std::size_t>(-1)); }

private:
    int newest_port() const {
        const auto& list = server_->connections;
        return list.count == 0 ? 0 : list.tail->value->port;
    }

    held_port port_;
    // At a distance: a server's destructor may throw, a fixture's may not.
    std::unique_ptr<server<T>> server_ = std::make_unique<server<T>>(port_.number(), true);
};
