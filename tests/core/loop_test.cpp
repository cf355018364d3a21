#include "vindra/core/abstract_server.h"
#include "vindra/core/free_port.h"
#include "vindra/core/loop.h"
#include "vindra/core/server.h"
#include "vindra/core/sockets.h"

#include "tests/support/captured_output.h"
#include "tests/support/scripted_connection.h"

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

void turn() {
    sockets::select_all();
    loop::make_calls();
}

template <typename Done>
void turn_until(Done done) {
    const auto end = steady_clock::now() + 20s;
    while (!done()) {
        ASSERT_LT(steady_clock::now(), end) << "condition never held";
        turn();
    }
}

void let_pass(std::chrono::milliseconds time) {
    const auto end = steady_clock::now() + time;
    while (steady_clock::now() < end) std::this_thread::yield();
}

// A server that counts what a loop does with it.
class counting_server : public abstract_server {
public:
    bool start() override {
        ++starts;
        return starts_well;
    }
    void update() override { ++updates; }
    void on_idle() override { ++idles; }

    bool starts_well = true;
    int starts = 0;
    int updates = 0;
    int idles = 0;
};

TEST(loop, calls_in_the_order_of_time) {
    std::string called;
    loop::after(20, [&] { called += "c"; });
    loop::after(0, [&] { called += "a"; });
    loop::after(10, [&] { called += "b"; });
    turn_until([&] { return called.size() == 3; });
    EXPECT_EQ(called, "abc");
}

TEST(loop, calls_no_earlier_than_asked) {
    const auto start = steady_clock::now();
    bool called = false;
    loop::after(30, [&] { called = true; });
    turn_until([&] { return called; });
    EXPECT_GE(steady_clock::now() - start, 30ms);
}

TEST(loop, wakes_the_wait_for_a_call) {
    while (sockets::num_ready() != 0) turn();
    bool called = false;
    loop::after(100, [&] { called = true; });
    loop::after(5, [] {});
    sockets::select_all();
    EXPECT_GT(sockets::num_ready(), 0);
    turn_until([&] { return called; });
    turn();
    turn();
    EXPECT_EQ(sockets::num_ready(), 0) << "it goes on waking";
}

TEST(loop, waits_for_an_earlier_call_that_comes_later) {
    const loop::call far = loop::after(1000000, [] { ADD_FAILURE(); });
    bool called = false;
    loop::after(1, [&] { called = true; });
    sockets::select_all();
    EXPECT_GT(sockets::num_ready(), 0);
    turn_until([&] { return called; });
    EXPECT_TRUE(loop::cancel(far));
}

TEST(loop, calls_again_and_again) {
    int calls = 0;
    const auto start = steady_clock::now();
    const loop::call name = loop::every(2, [&] { ++calls; });
    turn_until([&] { return calls >= 5; });
    EXPECT_GE(steady_clock::now() - start, 10ms);
    EXPECT_TRUE(loop::cancel(name));
    const int before = calls;
    let_pass(5ms);
    turn();
    EXPECT_EQ(calls, before);
}

TEST(loop, leaves_missed_calls_out) {
    int calls = 0;
    const auto start = steady_clock::now();
    const loop::call name = loop::every(60, [&] { ++calls; });
    let_pass(130ms);
    loop::make_calls();
    loop::make_calls();
    const bool is_before_the_third = steady_clock::now() - start < 180ms;
    EXPECT_TRUE(calls == 1 || !is_before_the_third) << calls;
    loop::cancel(name);
}

TEST(loop, cancels_once) {
    const loop::call name = loop::after(0, [] { ADD_FAILURE() << "called"; });
    EXPECT_NE(name, 0U);
    EXPECT_TRUE(loop::cancel(name));
    EXPECT_FALSE(loop::cancel(name));
    EXPECT_FALSE(loop::cancel(0));
    turn();
}

TEST(loop, cancels_within_calls) {
    int calls = 0;
    loop::call self = 0;
    loop::call other = 0;
    loop::after(0, [&] { EXPECT_TRUE(loop::cancel(other)); });
    other = loop::after(0, [] { ADD_FAILURE() << "called"; });
    self = loop::every(1, [&, held = std::string(100, 'x')] {
        ++calls;
        EXPECT_TRUE(loop::cancel(self));
        EXPECT_EQ(held.size(), 100U) << "what is called still lives";
    });
    turn_until([&] { return calls > 0; });
    let_pass(5ms);
    turn();
    EXPECT_EQ(calls, 1);
}

TEST(loop, leaves_calls_that_calls_set_up_to_the_next_turn) {
    int calls = 0;
    std::function<void()> again = [&] {
        if (++calls < 3) loop::after(0, again);
    };
    loop::after(0, again);
    let_pass(1ms);
    loop::make_calls();
    EXPECT_EQ(calls, 1);
    turn_until([&] { return calls == 3; });
}

TEST(loop, makes_the_calls_that_threads_post_in_their_order) {
    turn();
    while (sockets::num_ready() != 0) turn();
    std::vector<int> seen;
    std::thread::id where;
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i) loop::post([&seen, i] { seen.push_back(i); });
        loop::post([&] { where = std::this_thread::get_id(); });
    });
    sockets::select_all();
    EXPECT_GT(sockets::num_ready(), 0) << "nobody woke the loop";
    poster.join();
    turn_until([&] { return where != std::thread::id(); });
    EXPECT_EQ(where, std::this_thread::get_id());
    ASSERT_EQ(seen.size(), 100U);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
}

TEST(loop, leaves_posts_of_posted_calls_to_the_next_turn) {
    int calls = 0;
    loop::post([&] {
        ++calls;
        loop::post([&] { ++calls; });
    });
    loop::make_calls();
    EXPECT_EQ(calls, 1);
    loop::make_calls();
    EXPECT_EQ(calls, 2);
}

TEST(loop, runs_servers_until_it_is_stopped) {
    const captured_output output;
    counting_server a;
    counting_server b;
    loop::post([] { loop::after(250, [] { loop::stop(); }); });
    EXPECT_TRUE(loop::run({&a, &b}));
    EXPECT_EQ(a.starts, 1);
    EXPECT_GE(a.updates, 2);
    EXPECT_EQ(a.updates, b.updates);
    EXPECT_GE(a.idles, 1);
    EXPECT_LT(a.idles, a.updates);

    bool turned = false;
    loop::post([&] {
        turned = true;
        loop::stop();
    });
    EXPECT_TRUE(loop::run({&a}));
    EXPECT_TRUE(turned) << "a stop ends one run";
    EXPECT_EQ(a.starts, 2);
}

TEST(loop, is_stopped_by_threads) {
    captured_output output;
    counting_server a;
    std::thread stopper([] { loop::stop(); });
    EXPECT_TRUE(loop::run({&a}));
    stopper.join();
    EXPECT_EQ(output.take(), "Shutting down...\n");
}

TEST(loop, is_stopped_by_chosen_signals) {
    const captured_output output;
    counting_server a;
    loop::stop_on(SIGTERM);
    for (const int signal : {SIGTERM, SIGINT}) {
        loop::post([signal] { std::raise(signal); });
        EXPECT_TRUE(loop::run({&a}));
    }
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
}

TEST(loop, tells_that_a_server_did_not_start) {
    captured_output output;
    counting_server good;
    counting_server bad;
    counting_server never;
    bad.starts_well = false;
    EXPECT_FALSE(loop::run({&good, &bad, &never}));
    EXPECT_EQ(output.take(), "Failed to start server(s).\n");
    EXPECT_EQ(good.updates + bad.updates + never.starts, 0);
    std::signal(SIGINT, SIG_DFL);
}

TEST(free_port, is_one_that_a_server_can_listen_on) {
    const captured_output output;
    const free_port port;
    const free_port other;
    EXPECT_GT(port.number(), 0);
    EXPECT_NE(port.number(), other.number());
    server<scripted_connection> s(port.number(), true);
    EXPECT_TRUE(s.start());
    s.stop();
}

} // namespace
