// Behind a large read, what a relay receives goes straight into the blocks of its queue. Whoever
// could tell the difference gets it by on_recv(), as all others do.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/http_proxy.h"
#include "vindra/proxy/proxy_connection.h"
#include "vindra/proxy/reverse_proxy.h"

#include "tests/proxy/relay_stage.h"
#include "tests/support/captured_output.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/listening_backend.h"
#include "tests/support/socket_ends.h"

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class blocks_in : public testing::Test {
protected:
    blocks_in() { interposed::recvmsg_calls = 0; }
    ~blocks_in() override {
        interposed::recvmsg_limit = 0;
        interposed::recv_error_once = 0;
        EXPECT_EQ(blocks_in_use(), 0U) << "a block was lost";
    }

    captured_output out_;
};

// Has the backend send `bytes`, a part a turn.
template <typename Stage>
void send_all(Stage& s, std::string_view bytes) {
    for (int turns = 0; turns < 5000 && !bytes.empty(); ++turns) {
        bytes.remove_prefix(s.far.send_some(bytes));
        s.turn();
    }
    s.turn();
    ASSERT_TRUE(bytes.empty());
}

TEST_F(blocks_in, take_what_comes_behind_a_large_read) {
    stage<server<http_proxy>> s;
    const std::string sent = pattern(3 * mib);
    send_all(s, sent);
    EXPECT_TRUE(s.pipe->to_client == sent);
    EXPECT_GT(interposed::recvmsg_calls, 2);
}

TEST_F(blocks_in, are_not_used_behind_a_few_small_reads) {
    stage<server<http_proxy>> s;
    s.turn();
    const auto calls_for = [&](std::size_t length) {
        interposed::recvmsg_calls = 0;
        s.far.send(std::string(length, 'x'));
        s.turn();
        return interposed::recvmsg_calls;
    };
    EXPECT_EQ(calls_for(16383), 0);
    EXPECT_EQ(calls_for(16384), 1) << "the second read, which finds nothing";
    for (int i = 0; i < 3; ++i) EXPECT_EQ(calls_for(10), 2);
    EXPECT_EQ(calls_for(16384), 2) << "and the next small ones, too";
    for (int i = 0; i < 3; ++i) EXPECT_EQ(calls_for(16383), 2);
    EXPECT_EQ(calls_for(10), 1) << "the first read, which was the last of them";
    EXPECT_EQ(calls_for(10), 0);
}

TEST_F(blocks_in, are_not_asked_for_again_behind_a_short_read_from_tcp) {
    const listening_backend backend;
    const far_end near = far_end::connect_to(backend.port());
    stage<server<http_proxy>> s(::dup(near.fd()), backend.accept());
    s.turn();
    for (const int calls : {0, 1, 1}) {
        interposed::recvmsg_calls = 0;
        s.far.send(std::string(20000, 'x'));
        s.turn();
        EXPECT_EQ(interposed::recvmsg_calls, calls);
    }
    interposed::poll_calls = 0;
    s.turn();
    EXPECT_EQ(interposed::poll_calls, 0) << "it is known to be empty";
}

TEST_F(blocks_in, hold_the_bytes_behind_those_that_were_copied) {
    stage<server<http_proxy>> s;
    s.turn();
    const std::string first = pattern(20000, 1);
    const std::string second = pattern(20000, 2);
    s.far.send(first);
    s.turn();
    s.far.send(second);
    s.turn();
    EXPECT_TRUE(s.pipe->to_client == first + second);
    EXPECT_EQ(blocks_in_use(), 1U) << "there was room in the first";
}

TEST_F(blocks_in, wake_the_client) {
    stage<server<http_proxy>> s;
    s.turn();
    s.far.send(std::string(20000, 'x'));
    s.turn();
    s.pipe->to_client.clear();
    int arrivals = 0;
    s.pipe->to_client.set_listener([](void* count) { ++*static_cast<int*>(count); }, &arrivals);
    s.far.send("and more");
    s.turn();
    EXPECT_EQ(arrivals, 1);
    EXPECT_TRUE(s.pipe->to_client == "and more");
    s.pipe->to_client.set_listener(nullptr, nullptr);
}

TEST_F(blocks_in, lose_nothing_wherever_a_read_stops) {
    for (const int limit : {1, 777, 60000, 65536, 131072}) {
        SCOPED_TRACE(limit);
        stage<server<http_proxy>> s;
        s.turn();
        s.far.send(std::string(16384, 'x'));
        s.turn();
        interposed::recvmsg_limit = limit;
        const std::string sent = pattern(300000);
        send_all(s, sent);
        EXPECT_TRUE(s.pipe->to_client == std::string(16384, 'x') + sent);
        interposed::recvmsg_limit = 0;
    }
}

TEST_F(blocks_in, are_returned_by_a_read_that_is_interrupted) {
    stage<server<http_proxy>> s;
    s.turn();
    s.far.send(std::string(20000, 'x'));
    s.turn();
    s.pipe->to_client.clear();
    EXPECT_EQ(blocks_in_use(), 0U);
    s.far.send("the rest");
    interposed::recv_error_once = EINTR;
    s.turn();
    EXPECT_EQ(interposed::recv_error_once, 0);
    EXPECT_EQ(blocks_in_use(), 0U);
    s.turn();
    EXPECT_TRUE(s.pipe->to_client == "the rest");
}

TEST_F(blocks_in, are_returned_with_the_end_of_the_stream) {
    stage<server<http_proxy>> s;
    s.turn();
    s.far.send(std::string(20000, 'x'));
    s.turn();
    s.far.close();
    s.turn();
    EXPECT_EQ(s.home->connections.count, 0);
    EXPECT_TRUE(s.pipe->to_client == std::string(20000, 'x'));
}

TEST_F(blocks_in, of_a_new_pipe_are_used_from_the_next_read_on) {
    stage<server<http_proxy>> s;
    s.turn();
    s.far.send(std::string(20000, 'x'));
    s.turn();
    auto* const other = new proxy_pipe(2);
    proxy_pipe* const old = std::exchange(s.conn->pipe, other);
    s.far.send("for the other");
    s.turn();
    EXPECT_TRUE(other->to_client == "for the other");
    EXPECT_EQ(old->to_client.size(), 20000U);
    s.conn->pipe = old;
    delete other;
}

// Sees every block, and may rest as its base may.
class counting_backend : public proxy_connection {
public:
    counting_backend(int socket, proxy_pipe* shared) : proxy_connection(socket, shared) {
        quiet_when<counting_backend>(
            [](const counting_backend& conn) { return conn.pipe->to_backend.empty(); });
    }

    void on_recv(char* data, int length) override {
        seen += static_cast<std::size_t>(length);
        proxy_connection::on_recv(data, length);
    }

    std::size_t seen = 0;
};

TEST_F(blocks_in, are_not_used_past_an_on_recv_that_is_overridden) {
    stage<server<http_proxy>, counting_backend> s;
    send_all(s, pattern(mib));
    EXPECT_EQ(s.conn->seen, mib);
    EXPECT_EQ(interposed::recvmsg_calls, 0);
}

TEST_F(blocks_in, are_not_used_past_a_recv_that_is_overridden) {
    stage<watching_server> s;
    send_all(s, pattern(mib));
    std::size_t sum = 0;
    for (const int count : s.home->received) sum += static_cast<std::size_t>(count);
    EXPECT_EQ(sum, mib);
    EXPECT_EQ(interposed::recvmsg_calls, 0);
}

std::string head(std::size_t length) {
    return "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

// A client whose host is not mapped: a body waits for a backend that never comes.
template <typename Server>
class client_stage {
public:
    client_stage() {
        conn->fd = ends_.near;
        home_.connections.add(conn);
        sockets::all()->set(conn->fd);
        home_.last_report = std::time(nullptr) + 3600;
        turn();
    }

    void turn() {
        sockets::hurry();
        sockets::select_all();
        home_.update();
    }

    void receive(std::string_view bytes) {
        ends_.far.send(bytes);
        turn();
    }

    std::string state() const {
        return std::to_string(conn->received) + ' ' + std::to_string(conn->body_received) + ' ' +
               std::to_string(conn->headers_done) + ' ' + conn->headers +
               static_cast<std::string>(conn->pipe->to_backend) + '|' +
               static_cast<std::string>(conn->pipe->to_client);
    }

    reverse_proxy* conn = new reverse_proxy;

private:
    pair_of_ends ends_;
    Server home_{0, false};
};

TEST_F(blocks_in, take_the_body_of_a_request) {
    client_stage<server<reverse_proxy>> s;
    const std::string body = pattern(150000);
    s.receive(head(150000));
    for (std::size_t i = 0; i < body.size(); i += 50000) s.receive(body.substr(i, 50000));
    EXPECT_EQ(interposed::recvmsg_calls, 4) << "the first and the last read are others";
    EXPECT_TRUE(s.conn->pipe->to_backend == body);
    EXPECT_FALSE(s.conn->headers_done) << "the request is complete";
    EXPECT_EQ(s.conn->received, 0);
}

TEST_F(blocks_in, are_counted_as_bytes_of_the_body) {
    client_stage<server<reverse_proxy>> s;
    s.receive(head(150000));
    s.receive(std::string(50000, 'x'));
    s.receive(std::string(50000, 'y'));
    EXPECT_EQ(s.conn->body_received, 100000);
    EXPECT_EQ(s.conn->received, static_cast<int>(head(150000).size()) + 100000);
    EXPECT_TRUE(s.conn->headers_done);
}

TEST_F(blocks_in, are_not_used_for_a_head) {
    client_stage<server<reverse_proxy>> s;
    s.receive(head(50000) + std::string(50000, 'x'));
    s.receive(head(7) + "the end");
    EXPECT_EQ(interposed::recvmsg_calls, 0);
    EXPECT_TRUE(s.conn->pipe->to_backend == "the end") << "a new head drops what nobody has read";
}

TEST_F(blocks_in, are_not_used_past_the_limit_of_a_request) {
    client_stage<server<reverse_proxy>> s;
    s.receive(head(1000000));
    s.conn->max_request_length = 60000;
    s.receive(std::string(50000, 'x'));
    s.receive(std::string(50000, 'y'));
    s.receive(std::string(50000, 'z'));
    EXPECT_EQ(s.conn->pipe->to_backend.size(), 100000U);
    EXPECT_THAT(out_.take(), testing::HasSubstr("Warning! Request exceeds max length of 60000."));
}

TEST_F(blocks_in, are_not_used_past_the_strict_reader) {
    client_stage<server<reverse_proxy>> s;
    s.conn->read_strictly();
    s.receive(head(70000));
    s.receive(std::string(50000, 'x'));
    s.receive(std::string(50000, 'y'));
    EXPECT_EQ(interposed::recvmsg_calls, 0);
    EXPECT_EQ(s.conn->pipe->to_backend.size(), 70000U);
}

TEST_F(blocks_in, leave_fields_and_bytes_as_copies_would_in_any_mix_of_requests) {
    for (unsigned seed = 0; seed < 10; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        client_stage<server<http_proxy>> direct;
        client_stage<watching_server> copied;
        for (int i = 0; i < 100; ++i) {
            std::string bytes;
            if (random() % 4 == 0) bytes += head(random() % 200000);
            bytes += std::string(random() % 60000, static_cast<char>('a' + i % 26));
            direct.receive(bytes);
            copied.receive(bytes);
            ASSERT_TRUE(direct.state() == copied.state()) << i;
        }
        EXPECT_GT(interposed::recvmsg_calls, 20);
    }
}

} // namespace
