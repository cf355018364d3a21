#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/far_end.h"
#include "tests/support/frames.h"
#include "tests/support/recording_connection.h"

#include <ctime>
#include <memory>

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

const std::string handshake = "GET / HTTP/1.1\r\nUpgrade: websocket\r\nSec-WebSocket-Key: k\r\n"
                              "Sec-WebSocket-Version: 13\r\n\r\n";

// Answers each request with a body of three send buffers.
class large_connection : public recording_connection {
public:
    static inline const std::string old_head = "HTTP/1.1 200 OK\r\n\r\n";
    static inline const std::string kept_head =
        "HTTP/1.1 200 OK\r\nContent-Length: 3145728\r\n\r\n";

    void on_request() override { write("HTTP/1.1 200 OK\r\n", std::string(3145728, 'b')); }
};

// Connections in the list of a real server that turns by hand, with the test at the far end.
class served_http : public testing::Test {
protected:
    served_http() { server_->last_report = std::time(nullptr); }

    void join(http_connection* conn) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        client_ = far_end(ends[1]);
        conn->fd = ends[0];
        server_->connections.add(conn);
        sockets::all()->set(conn->fd);
    }

    template <typename Done>
    void turn_until(Done done, int most_turns = 500) {
        while (!done()) {
            ASSERT_GT(most_turns--, 0) << "condition never held";
            sockets::select_all();
            server_->update();
            received_ += client_.receive();
        }
    }

    bool received(const std::string& text) const {
        return received_.find(text) != std::string::npos;
    }

    far_end client_;
    std::string received_;
    // Held at a distance: a server's destructor may throw, a fixture's may not.
    std::unique_ptr<server<recording_connection>> server_ =
        std::make_unique<server<recording_connection>>(0, true);
};

} // namespace

TEST_F(served_http, answers_one_request_after_the_other_on_a_kept_connection) {
    join(new recording_connection);
    client_.send("GET /1 HTTP/1.1\r\n\r\n");
    turn_until([&] { return received("GET /1 HTTP/1.1\r\n\r\n0 bytes of content"); });
    client_.send("GET /2 HTTP/1.1\r\n\r\n");
    turn_until([&] { return received("GET /2 HTTP/1.1\r\n\r\n0 bytes of content"); });
    EXPECT_EQ(server_->connections.count, 1);
}

TEST_F(served_http, closes_behind_the_answer_to_an_old_client) {
    join(new recording_connection);
    client_.send("GET / HTTP/1.0\r\n\r\n");
    turn_until([&] { return client_.closed_by_peer(); });
    EXPECT_TRUE(received("0 bytes of content"));
    EXPECT_EQ(server_->connections.count, 0);
}

TEST_F(served_http, sends_a_response_of_several_buffers_whole) {
    join(new large_connection);
    client_.send("GET / HTTP/1.1\r\n\r\n");
    const std::size_t whole = 3145728 + large_connection::kept_head.size();
    turn_until([&] { return received_.size() >= whole; });
    EXPECT_EQ(received_.size(), whole);
    EXPECT_EQ(server_->connections.count, 1);
}

TEST_F(served_http, sends_the_last_of_several_buffers_before_it_closes) {
    join(new large_connection);
    client_.send("GET / HTTP/1.0\r\n\r\n");
    turn_until([&] { return client_.closed_by_peer(); });
    EXPECT_EQ(received_.size(), 3145728 + large_connection::old_head.size());
}

TEST_F(served_http, answers_a_handshake_and_closes_by_default) {
    join(new http_connection);
    client_.send(handshake);
    turn_until([&] { return client_.closed_by_peer(); });
    EXPECT_TRUE(received("HTTP/1.1 101 Switching Protocols\r\n"));
}

TEST_F(served_http, carries_frames_both_ways_and_ends_after_a_close_frame) {
    join(new recording_connection);
    client_.send(handshake);
    client_.send(short_frame(0x81, "hello"));
    turn_until([&] { return received("\x81\x05hello"); });
    client_.send(short_frame(0x89, "last") + short_frame(0x88, ""));
    turn_until([&] { return client_.closed_by_peer(); });
    EXPECT_TRUE(received("\x8A\x04last")) << "what is queued leaves first";
}

TEST_F(served_http, takes_a_client_that_goes_out_of_its_channels) {
    auto* conn = new recording_connection;
    join(conn);
    client_.send(handshake);
    turn_until([&] { return received("\r\n\r\n"); });
    conn->subscribe("c");
    client_.close();
    turn_until([&] { return server_->connections.count == 0; });
    EXPECT_EQ(http_connection::channels().count, 0U);
}
