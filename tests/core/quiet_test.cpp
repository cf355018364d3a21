// When a server asks a quiet connection again, and how long the loop sleeps meanwhile.

#include "vindra/proxy/proxy_connection.h"

#include "tests/core/walking_world.h"
#include "tests/support/captured_output.h"

#include <climits>

#include <gtest/gtest.h>

namespace {

// Rests after its first turns, and no longer from then on.
class restless : public connection {
public:
    restless() {
        quiet_when<restless>([](const restless& conn) { return conn.calm; });
    }

    void on_recv(char* /*data*/, int /*length*/) override { calm = false; }

    bool on_send(char* /*buffer*/, int /*capacity*/, int* /*length*/) override {
        ++asked;
        return true;
    }

    bool calm = true;
    int asked = 0;
};

class rest_test : public testing::Test {
protected:
    void turn() {
        sockets::select_all();
        world_.the_server.update();
    }

    // A turn whose wait finds something, so that it need not visit everyone.
    void busy_turn() {
        world_.far.at(0).send("x");
        turn();
    }

    void SetUp() override {
        world_.join<answerer>();
        world_.enter(conn_);
        turn();
    }

    captured_output out_;
    world world_{"rest", 0};
    restless* const conn_ = new restless;
};

TEST_F(rest_test, ends_turns_that_ask_until_bytes_arrive) {
    const int asked = conn_->asked;
    busy_turn();
    busy_turn();
    EXPECT_EQ(conn_->asked, asked);
    world_.far.at(1).send("x");
    busy_turn();
    EXPECT_EQ(conn_->asked, asked + 1);
}

TEST_F(rest_test, is_over_for_one_that_no_longer_asks_for_it) {
    world_.far.at(1).send("x");
    busy_turn();
    const int asked = conn_->asked;
    busy_turn();
    busy_turn();
    EXPECT_EQ(conn_->asked, asked + 2);
}

TEST_F(rest_test, is_over_at_wake) {
    const int asked = conn_->asked;
    conn_->wake();
    busy_turn();
    EXPECT_EQ(conn_->asked, asked + 1);
}

// Bytes of which nobody tells wait as long as the connection rests.
TEST_F(rest_test, is_taken_by_a_backend_that_has_handed_over_everything) {
    auto* pipe = new proxy_pipe;
    auto* const backend = new proxy_connection(-1, pipe);
    world_.enter(backend);
    turn();
    pipe->to_backend.set_listener(nullptr, nullptr);
    pipe->to_backend += "secret";
    busy_turn();
    busy_turn();
    EXPECT_EQ(pipe->to_backend.size(), 6U);
    backend->wake();
    busy_turn();
    EXPECT_EQ(pipe->to_backend.size(), 0U);
    --pipe->refs;
}

TEST_F(rest_test, does_not_outlast_a_wait_that_found_nothing) {
    turn();
    const int asked = conn_->asked;
    turn();
    EXPECT_EQ(conn_->asked, asked + 1);
}

TEST_F(rest_test, does_not_outlast_the_second) {
    const int asked = conn_->asked;
    ++now;
    busy_turn();
    EXPECT_EQ(conn_->asked, asked + 1);
}

TEST_F(rest_test, is_safe_where_others_take_connections_out_of_the_list) {
    world_.the_server.end_connection(world_.the_server.connections.pop());
    for (int i = 0; i < 3; ++i) turn();
    EXPECT_EQ(world_.the_server.connections.count, 1);
    const int asked = conn_->asked;
    conn_->wake();
    turn();
    EXPECT_EQ(conn_->asked, asked + 1);
}

// How long the loop would sleep, were there no news, in each of two states of the roster.
class haste_test : public testing::TestWithParam<int> {
protected:
    void turn() {
        sockets::select_all();
        first_.update();
        http_proxy::g_server() = &first_.the_server;
        second_.the_server.update();
        http_proxy::g_server() = nullptr;
    }

    int next_wait() {
        longest_wait = 0;
        sockets::select_all();
        return longest_wait;
    }

    world first_{"first", GetParam()};
    world second_{"second", GetParam()};
};

// The backend's connection stands in the first server's list, the client's in the second's.
class relay_to_first : public relay {
public:
    relay_to_first(world& home, int number, world& backends)
        : relay(home, number), backends_(backends) {}

    void on_headers() override {
        if (backend_port == 0) {
            backend_port = 1;
            renew_pipe();
            backends_.enter(new proxy_connection(-1, pipe));
        }
        pipe->to_backend += url;
    }

private:
    world& backends_;
};

TEST_P(haste_test, work_for_a_server_that_had_its_turn_is_not_slept_over) {
    auto* const client = new relay_to_first(second_, 0, first_);
    second_.enter(client);
    for (int i = 0; i < 5; ++i) turn();
    second_.far.at(0).send("GET /1 HTTP/1.1\r\n\r\n");
    for (int i = 0; i < 5; ++i) turn();
    EXPECT_EQ(first_.far.at(0).receive(), "/1");
    EXPECT_EQ(next_wait(), 100) << "there is nothing left to do";

    second_.far.at(0).send("GET /2 HTTP/1.1\r\n\r\n");
    turn();
    EXPECT_EQ(next_wait(), 0) << "the backend's connection was asked before the request was read";
    first_.update();
    turn();
    EXPECT_EQ(first_.far.at(0).receive(), "/2");
}

TEST_P(haste_test, one_that_is_passed_over_is_not_slept_over) {
    first_.join<answerer>();
    first_.join<application>();
    for (int i = 0; i < 3; ++i) turn();
    first_.far.at(0).close();
    sockets::select_all();
    first_.actors.at(1)->prompt();
    first_.update();
    EXPECT_EQ(next_wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(walks, haste_test, testing::Values(INT_MAX, 0));

} // namespace
