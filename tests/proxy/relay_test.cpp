#include "vindra/proxy/proxy_connection.h"
#include "vindra/proxy/reverse_proxy.h"

#include "tests/support/captured_output.h"
#include "tests/support/listening_backend.h"
#include "tests/support/running_server.h"

#include <string>

#include <gtest/gtest.h>

namespace {

// A client, the program's server between, and a backend, attached by one request.
class relay_test : public testing::Test {
protected:
    relay_test() {
        http_proxy::g_server() = &front_.get();
        reverse_proxy::hosts().set("relay.example", backend_.port());
    }
    ~relay_test() override { http_proxy::g_server() = nullptr; }

    void attach(const std::string& head = "GET / HTTP/1.1\r\nHost: relay.example\r\n\r\n") {
        client_ = front_.connect();
        conn_ = &front_.newest();
        client_.send(head);
        front_.turn();
        front_.turn();
        at_backend_ = backend_.accept();
        front_.turn_until([this] { return !at_backend_.receive().empty(); });
    }

    // Sends `bytes` into `from` as fast as it takes them while `to` reads, and compares.
    void expect_carried(const far_end& from, far_end& to, const std::string& bytes) {
        std::string_view rest = bytes;
        std::string got;
        front_.turn_until(
            [&] {
                rest.remove_prefix(from.send_some(rest));
                got += to.receive();
                return got.size() >= bytes.size();
            },
            5000);
        EXPECT_TRUE(got == bytes) << got.size() << " of " << bytes.size() << " bytes";
    }

    static std::string pattern(std::size_t length) {
        std::string bytes(length, ' ');
        unsigned state = 1;
        for (char& byte : bytes) {
            state = state * 1103515245U + 12345U;
            byte = static_cast<char>(state >> 16);
        }
        return bytes;
    }

    captured_output out_;
    running_server<reverse_proxy> front_;
    listening_backend backend_;
    far_end client_;
    far_end at_backend_;
    reverse_proxy* conn_ = nullptr;
};

TEST_F(relay_test, an_answer_passes_unread_in_any_framing) {
    attach();
    const std::string answer("HTTP/1.0 2\0 not even HTTP\n\n\xff\xfe", 28);
    at_backend_.send(answer);
    EXPECT_EQ(front_.receive(client_, answer.size()), answer);
}

TEST_F(relay_test, an_answer_in_single_bytes_arrives_whole) {
    attach();
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    for (const char byte : answer) {
        at_backend_.send(std::string(1, byte));
        front_.turn();
    }
    EXPECT_EQ(front_.receive(client_, answer.size()), answer);
}

TEST_F(relay_test, a_body_goes_to_the_backend_as_it_comes) {
    attach("POST / HTTP/1.1\r\nHost: relay.example\r\nContent-Length: 10\r\n\r\n");
    client_.send("01234");
    EXPECT_EQ(front_.receive(at_backend_, 5), "01234");
    client_.send("56789");
    EXPECT_EQ(front_.receive(at_backend_, 5), "56789");
}

TEST_F(relay_test, large_bodies_pass_unharmed_both_ways) {
    attach("POST / HTTP/1.1\r\nHost: relay.example\r\nContent-Length: 9000000\r\n\r\n");
    expect_carried(client_, at_backend_, pattern(9000000));
    expect_carried(at_backend_, client_, pattern(9000000));
}

TEST_F(relay_test, an_answer_larger_than_a_send_buffer_is_delivered_in_pieces_of_one) {
    attach();
    conn_->pipe->to_client += pattern(2 * 1048576 + 5);
    std::string out(1048576, ' ');
    int length = 0;
    EXPECT_TRUE(conn_->on_send(out.data(), 1048576, &length));
    EXPECT_EQ(length, 1048576);
    EXPECT_TRUE(conn_->on_send(out.data(), 1048576, &length));
    EXPECT_EQ(length, 1048576);
    EXPECT_TRUE(conn_->on_send(out.data(), 1048576, &length));
    EXPECT_EQ(length, 5);
    EXPECT_TRUE(conn_->on_send(out.data(), 1048576, &length));
    EXPECT_EQ(length, 0);
}

TEST_F(relay_test, an_answer_of_one_more_than_the_capacity_keeps_one_byte) {
    attach();
    conn_->pipe->to_client += "12345";
    conn_->pipe->refs = 1;
    char out[4];
    int length = 0;
    EXPECT_TRUE(conn_->on_send(out, 4, &length));
    EXPECT_EQ(std::string(out, 4), "1234");
    EXPECT_FALSE(conn_->on_send(out, 4, &length)) << "the only holder, and empty";
    EXPECT_EQ(length, 1);
    conn_->pipe->refs = 2;
}

TEST_F(relay_test, a_backend_that_answers_and_closes_closes_the_client_behind_the_last_byte) {
    attach();
    const std::string answer = pattern(3000000);
    std::string_view rest = answer;
    std::string got;
    front_.turn_until(
        [&] {
            rest.remove_prefix(at_backend_.send_some(rest));
            if (rest.empty()) at_backend_.close();
            got += client_.receive();
            return client_.closed_by_peer();
        },
        5000);
    EXPECT_TRUE(got == answer);
    EXPECT_EQ(front_.get().connections.count, 0);
}

TEST_F(relay_test, a_client_that_leaves_mid_answer_closes_the_backend) {
    attach();
    at_backend_.send(pattern(1000));
    front_.turn();
    client_.close();
    EXPECT_EQ(front_.receive_all(at_backend_), "");
    EXPECT_EQ(front_.get().connections.count, 0);
}

TEST_F(relay_test, a_client_that_resets_closes_the_backend) {
    attach();
    client_.reset();
    EXPECT_EQ(front_.receive_all(at_backend_), "");
    EXPECT_EQ(front_.get().connections.count, 0);
}

TEST_F(relay_test, a_backend_that_resets_closes_the_client) {
    attach();
    at_backend_.reset();
    EXPECT_EQ(front_.receive_all(client_), "");
    EXPECT_EQ(front_.get().connections.count, 0);
}

TEST_F(relay_test, a_client_that_leaves_has_its_request_delivered_all_the_same) {
    client_ = front_.connect();
    const std::string body = pattern(500000);
    client_.send("POST / HTTP/1.1\r\nHost: relay.example\r\nContent-Length: 500000\r\n\r\n");
    front_.turn();
    std::string_view rest = body;
    front_.turn_until([&] {
        rest.remove_prefix(client_.send_some(rest));
        return rest.empty();
    });
    client_.close();
    at_backend_ = backend_.accept();
    const std::string got = front_.receive_all(at_backend_);
    ASSERT_GE(got.size(), body.size());
    EXPECT_TRUE(got.substr(got.size() - body.size()) == body);
}

TEST_F(relay_test, an_answer_before_the_request_is_complete_is_delivered_at_once) {
    attach("POST / HTTP/1.1\r\nHost: relay.example\r\nContent-Length: 10\r\n\r\n");
    at_backend_.send("HTTP/1.1 413 Too Large\r\n\r\n");
    EXPECT_EQ(front_.receive(client_, 26), "HTTP/1.1 413 Too Large\r\n\r\n");
    client_.send("still sends");
    EXPECT_EQ(front_.receive(at_backend_, 11), "still sends");
}

TEST_F(relay_test, both_sides_ready_in_one_turn_are_both_carried) {
    attach("POST / HTTP/1.1\r\nHost: relay.example\r\nContent-Length: 100\r\n\r\n");
    client_.send("up");
    at_backend_.send("down");
    front_.turn();
    front_.turn();
    EXPECT_EQ(client_.receive(), "down");
    EXPECT_EQ(at_backend_.receive(), "up");
}

TEST_F(relay_test, a_half_closed_client_ends_the_pair) {
    attach();
    client_.finish_sending();
    EXPECT_EQ(front_.receive_all(at_backend_), "");
}

TEST_F(relay_test, pipelined_requests_go_on_as_the_body_of_the_first) {
    client_ = front_.connect();
    client_.send("GET /1 HTTP/1.1\r\nHost: relay.example\r\n\r\n"
                 "GET /2 HTTP/1.1\r\nHost: relay.example\r\nConnection: close\r\n\r\n");
    front_.turn();
    front_.turn();
    at_backend_ = backend_.accept();
    const std::string expected =
        "GET /1 HTTP/1.1\r\nHost: relay.example\r\nX-Forwarded-For: 127.0.0.1\r\n\r\n"
        "GET /2 HTTP/1.1\r\nHost: relay.example\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(front_.receive(at_backend_, expected.size()), expected);
}

TEST_F(relay_test, the_end_of_a_server_ends_both_sides) {
    attach();
    front_.get().stop();
    client_.receive();
    at_backend_.receive();
    EXPECT_TRUE(client_.closed_by_peer());
    EXPECT_TRUE(at_backend_.closed_by_peer());
}

TEST_F(relay_test, the_embedded_pipe_is_left_and_never_freed) {
    client_ = front_.connect();
    conn_ = &front_.newest();
    EXPECT_EQ(conn_->pipe, &conn_->initial_pipe);
    EXPECT_EQ(conn_->initial_pipe.refs, 2);
    client_.send("GET / HTTP/1.1\r\nHost: relay.example\r\n\r\n");
    front_.turn();
    EXPECT_NE(conn_->pipe, &conn_->initial_pipe);
    EXPECT_EQ(conn_->initial_pipe.refs, 1);
    EXPECT_EQ(conn_->pipe->refs, 2);
}

} // namespace
