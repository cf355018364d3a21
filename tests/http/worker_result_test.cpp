#include "vindra/core/sockets.h"
#include "vindra/http/http_connection.h"
#include "vindra/http/worker_result.h"

#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/running_server.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

namespace {

using namespace std::chrono_literals;

// Where functions wait until the test lets them go on.
class gate {
public:
    gate() : opened_(promise_.get_future()) {}
    void open() { promise_.set_value(); }
    std::shared_future<void> entry() const { return opened_; }

private:
    std::promise<void> promise_;
    std::shared_future<void> opened_;
};

// Makes objects that functions hold, and waits until the last of them is destroyed.
class held_object {
public:
    std::shared_ptr<void> hold() { return std::move(object_); }
    bool is_gone() const { return gone_.wait_for(0s) == std::future_status::ready; }
    void await_end() const { ASSERT_EQ(gone_.wait_for(30s), std::future_status::ready); }

private:
    std::shared_ptr<std::promise<void>> promise_ = std::make_shared<std::promise<void>>();
    std::future<void> gone_ = promise_->get_future();
    std::shared_ptr<void> object_{nullptr, [promise = promise_](void*) { promise->set_value(); }};
};

void await_bell() {
    for (int waits = 0; !sockets::readable()->test(sockets::bell()); ++waits) {
        ASSERT_LT(waits, 100) << "nobody rang";
        sockets::select_all();
    }
}

// Earlier rings have been heard; a loop that spins never gets here.
void await_silence() {
    for (int waits = 0; waits == 0 || sockets::readable()->test(sockets::bell()); ++waits) {
        ASSERT_LT(waits, 50) << "it goes on ringing";
        sockets::select_all();
    }
}

void await_done(const deferred_result& result) {
    while (!result.done.load(std::memory_order_acquire)) await_bell();
}

std::string text_of(worker_result& result) {
    await_done(result);
    return result.output;
}

// Answers with what the test says.
class late_connection : public http_connection {
public:
    void on_headers() override {}
    void on_request() override { accepted = answer_later(*this, "HTTP/1.1 200 OK\r\n", compute); }
    std::function<var()> compute;
    bool accepted = false;
};

std::unique_ptr<late_connection> connection_with(std::function<var()> compute) {
    auto conn = std::make_unique_for_overwrite<late_connection>();
    conn->compute = std::move(compute);
    return conn;
}

const deferred_result& first_result(const http_connection& conn) {
    return *conn.parts.head->next->value->result;
}

const std::string late_head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

} // namespace

TEST(worker_result, computes_on_another_thread) {
    std::thread::id where;
    worker_result result([&where] {
        where = std::this_thread::get_id();
        return var("here");
    });
    EXPECT_EQ(text_of(result), "here");
    EXPECT_NE(where, std::this_thread::get_id());
}

TEST(worker_result, is_not_done_before_its_function_returns) {
    gate g;
    worker_result result([entry = g.entry()] {
        entry.wait();
        return var(7);
    });
    EXPECT_FALSE(result.done);
    g.open();
    EXPECT_EQ(text_of(result), "7");
}

TEST(worker_result, rings_the_bell_when_it_is_done) {
    await_silence();
    gate g;
    const worker_result result([entry = g.entry()] {
        entry.wait();
        return var();
    });
    g.open();
    do await_bell();
    while (!result.done);
}

TEST(worker_result, is_null_where_its_function_throws) {
    const std::function<var()> functions[] = {
        []() -> var { throw std::runtime_error("any"); },
        []() -> var { throw 7; },
        nullptr,
    };
    for (const auto& f : functions) {
        worker_result result(f);
        EXPECT_EQ(text_of(result), "null");
    }
}

TEST(worker_result, lets_go_of_the_function_before_it_is_done) {
    gate g;
    std::promise<void> leaving;
    const auto leave = [&leaving, entry = g.entry()](void*) {
        leaving.set_value();
        entry.wait();
    };
    const worker_result result([held = std::shared_ptr<void>(nullptr, leave)] { return var(); });
    leaving.get_future().wait();
    EXPECT_FALSE(result.done);
    g.open();
    await_done(result);
}

TEST(worker_result, leaves_the_loop_the_only_handle_of_its_output) {
    const worker_result result(
        [text = std::make_shared<var>(std::string("text"))] { return *text; });
    await_done(result);
    EXPECT_EQ(result.output.value.data->refs, 1U);
}

TEST(worker_result, may_go_before_its_function_has_returned) {
    gate g;
    held_object object;
    auto result = std::make_unique<worker_result>([entry = g.entry(), held = object.hold()] {
        entry.wait();
        return var("for nobody");
    });
    result.reset();
    EXPECT_FALSE(object.is_gone()) << "the function is still at work";
    g.open();
    object.await_end();
}

TEST(worker_result, may_go_at_any_moment) {
    std::vector<std::unique_ptr<held_object>> objects;
    for (int i = 0; i < 200; ++i) {
        objects.push_back(std::make_unique<held_object>());
        worker_result result([held = objects.back()->hold()] { return var("text"); });
        for (int spins = 0; spins < i * 20 && !result.done; ++spins) std::this_thread::yield();
    }
    for (const auto& object : objects) object->await_end();
}

TEST(worker_result, is_null_and_done_at_once_where_there_is_no_thread) {
    // A stack that no address space holds.
    pthread_attr_t before{};
    pthread_attr_t huge{};
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 47);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    captured_output output;
    bool called = false;
    worker_result result([&called] {
        called = true;
        return var();
    });
    pthread_setattr_default_np(&before);
    EXPECT_TRUE(result.done);
    EXPECT_FALSE(called);
    EXPECT_EQ(std::string(result.output), "null");
    EXPECT_EQ(output.take(), "Warning! No thread to compute a result on.\n");
}

TEST(worker_result, does_not_hold_up_the_end_of_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto leave_at_work = [] {
        gate never;
        new worker_result([entry = never.entry()] {
            entry.wait_for(1h);
            return var("late");
        });
        std::exit(3);
    };
    EXPECT_EXIT(leave_at_work(), testing::ExitedWithCode(3), "");
}

TEST(answer_later, sends_the_head_first_and_the_result_in_one_chunk) {
    gate g;
    const auto conn = connection_with([entry = g.entry()] {
        entry.wait();
        return var("computed");
    });
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(conn->accepted);
    EXPECT_EQ(drain(*conn).bytes(), late_head);
    EXPECT_EQ(conn->timeout, -1);
    g.open();
    await_done(first_result(*conn));
    const drained rest = drain(*conn);
    EXPECT_EQ(rest.bytes(), "8\r\ncomputed\r\n0\r\n\r\n");
    EXPECT_TRUE(rest.open);
    EXPECT_EQ(conn->timeout, 10);
}

TEST(answer_later, adds_the_connections_own_header_lines) {
    const auto conn = connection_with([] { return var(); });
    conn->extra_headers = "A: b\r\n";
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(send_once(*conn).bytes,
              "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nA: b\r\n\r\n");
}

TEST(answer_later, computes_nothing_for_a_head_request) {
    held_object object;
    const auto conn = connection_with([held = object.hold()] {
        ADD_FAILURE() << "called";
        return var();
    });
    feed(*conn, "HEAD / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(conn->accepted);
    EXPECT_EQ(drain(*conn).bytes(), late_head);
    EXPECT_EQ(conn->timeout, 10);
}

TEST(answer_later, refuses_an_old_client_and_a_request_that_has_its_answer) {
    const auto old = connection_with([] { return var(); });
    feed(*old, "GET / HTTP/1.0\r\n\r\n");
    EXPECT_FALSE(old->accepted);
    EXPECT_EQ(old->parts.count, 0);

    const auto conn = connection_with([] { return var(); });
    captured_output output;
    conn->write("HTTP/1.1 200 OK\r\n", "x");
    EXPECT_FALSE(answer_later(*conn, "HTTP/1.1 200 OK\r\n", conn->compute));
    EXPECT_EQ(conn->parts.count, 1);
    EXPECT_EQ(conn->timeout, 10);
    EXPECT_EQ(output.take(), "");
}

TEST(answer_later, restores_the_time_out_behind_the_last_of_several_results) {
    const auto conn = connection_with([] { return var(1); });
    conn->timeout = 42;
    conn->parts.add(nullptr);
    feed(*conn, "GET /1 HTTP/1.1\r\n\r\n");
    feed(*conn, "GET /2 HTTP/1.1\r\n\r\n");
    feed(*conn, "GET /3 HTTP/1.1\r\n\r\n");
    conn->parts.pop();
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(send_once(*conn).bytes, late_head);
        EXPECT_EQ(conn->timeout, -1);
        await_done(first_result(*conn));
        EXPECT_EQ(send_once(*conn).bytes, "1\r\n1\r\n0\r\n\r\n");
    }
    EXPECT_EQ(conn->timeout, 42);
}

TEST(answer_later, keeps_the_time_out_off_between_two_whole_answers) {
    class whole_connection : public http_connection {
    public:
        void on_headers() override {}
        void on_request() override {
            answer_later(*this, [] { return http_answer{200, "", "x"}; });
        }
    };
    const auto conn = std::make_unique_for_overwrite<whole_connection>();
    conn->timeout = 42;
    feed(*conn, "GET /1 HTTP/1.1\r\n\r\n");
    feed(*conn, "GET /2 HTTP/1.1\r\n\r\n");
    for (const int expected : {-1, 42}) {
        await_done(first_result(*conn));
        send_once(*conn);
        EXPECT_EQ(conn->timeout, expected);
    }
}

TEST(answer_later, leaves_the_restore_timeout_of_an_applications_part_alone) {
    class own_result : public deferred_result {};
    const auto conn = connection_with([] { return var(1); });
    auto* const own = new http_connection::response_part;
    own->result = new own_result;
    own->restore_timeout = 42;
    conn->parts.add(own);
    conn->timeout = -1;
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(own->restore_timeout, 42);
    EXPECT_EQ(conn->parts.tail->value->restore_timeout, 42) << "what stands behind the queue";
}

TEST(answer_later, drops_a_result_that_exceeds_the_buffer_and_keeps_the_connection) {
    const auto conn = connection_with([] { return var(std::string(1048576, 'x')); });
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    send_once(*conn);
    await_done(first_result(*conn));
    captured_output output;
    const drained rest = drain(*conn);
    EXPECT_EQ(rest.bytes(), "0\r\n\r\n");
    EXPECT_TRUE(rest.open);
    EXPECT_EQ(conn->timeout, 10);
    EXPECT_NE(output.take(), "");
}

TEST(answer_later, lets_the_loop_sleep_while_a_finished_result_cannot_leave) {
    const auto conn = connection_with([] { return var("behind"); });
    auto* slow = new http_connection::response_part;
    slow->text = "not taken yet";
    conn->parts.add(slow);
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    const deferred_result& result = *conn->parts.tail->value->result;
    await_done(result);
    await_silence();
    EXPECT_EQ(sockets::num_ready(), 0);
    EXPECT_EQ(send_once(*conn).bytes, "not taken yet");
}

namespace {

// Answers with what the test says, head and all.
class whole_connection : public http_connection {
public:
    explicit whole_connection(std::function<http_answer()> answer) : compute(std::move(answer)) {}
    void on_headers() override {}
    void on_request() override { accepted = answer_later(*this, compute); }
    std::function<http_answer()> compute;
    bool accepted = false;
};

// What a request brings once its answer is there, and whether the connection stays open.
drained late_answer_to(const std::string& request, std::function<http_answer()> compute) {
    const std::unique_ptr<whole_connection> conn(new whole_connection(std::move(compute)));
    feed(*conn, request);
    EXPECT_TRUE(conn->accepted);
    await_done(first_result(*conn));
    drained sent = drain(*conn);
    EXPECT_EQ(conn->timeout, 10);
    return sent;
}

http_answer teapot() {
    return {418, "text/plain", "short"};
}

} // namespace

TEST(answer_later, sends_a_whole_answer) {
    const drained sent = late_answer_to("GET / HTTP/1.1\r\n\r\n", teapot);
    EXPECT_EQ(sent.bytes(), "HTTP/1.1 418 \r\nContent-Type: text/plain\r\n"
                            "Content-Length: 5\r\n\r\nshort");
    EXPECT_TRUE(sent.open);
}

TEST(answer_later, sends_nothing_of_a_whole_answer_before_it_is_there) {
    gate g;
    const std::unique_ptr<whole_connection> conn(new whole_connection([entry = g.entry()] {
        entry.wait();
        return teapot();
    }));
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(drain(*conn).bytes(), "");
    EXPECT_EQ(conn->timeout, -1);
    g.open();
    await_done(first_result(*conn));
    EXPECT_NE(drain(*conn).bytes(), "");
}

TEST(answer_later, gives_old_clients_whole_answers_too) {
    const drained sent = late_answer_to("GET / HTTP/1.0\r\n\r\n", teapot);
    EXPECT_EQ(sent.bytes(), "HTTP/1.1 418 \r\nContent-Type: text/plain\r\nContent-Length: 5\r\n"
                            "Connection: close\r\n\r\nshort");
    EXPECT_FALSE(sent.open);
}

TEST(answer_later, leaves_the_body_of_a_whole_answer_out_for_head) {
    EXPECT_EQ(late_answer_to("HEAD / HTTP/1.1\r\n\r\n", teapot).bytes(),
              "HTTP/1.1 418 \r\nContent-Type: text/plain\r\nContent-Length: 5\r\n\r\n");
}

TEST(answer_later, sends_bodies_of_any_size) {
    std::string body(5000000, 'b');
    body[7] = '\0';
    const auto compute = [&] { return http_answer{.body = body}; };
    EXPECT_EQ(late_answer_to("GET / HTTP/1.1\r\n\r\n", compute).bytes(),
              "HTTP/1.1 200 OK\r\nContent-Length: 5000000\r\n\r\n" + body);
}

TEST(answer_later, answers_500_where_there_is_no_answer) {
    const std::function<http_answer()> functions[] = {
        []() -> http_answer { throw std::runtime_error("any"); },
        []() -> http_answer { throw 7; },
        [] { return http_answer{.status = 100}; },
        [] { return http_answer{.status = 199}; },
        nullptr,
    };
    for (const auto& f : functions) {
        const drained sent = late_answer_to("GET / HTTP/1.1\r\n\r\n", f);
        EXPECT_EQ(sent.bytes(), "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
        EXPECT_TRUE(sent.open);
    }
}

TEST(answer_later, keeps_whole_answers_in_the_order_of_their_requests) {
    const std::unique_ptr<whole_connection> conn(new whole_connection(nullptr));
    gate g;
    std::string expected;
    for (int i = 1; i <= 3; ++i) {
        conn->compute = [entry = g.entry(), i] {
            if (i == 1) entry.wait();
            return http_answer{.body = std::to_string(i)};
        };
        conn->extra_headers = "N: " + std::to_string(i) + "\r\n";
        feed(*conn, "GET / HTTP/1.1\r\n\r\n");
        expected += "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nN: " + std::to_string(i) + "\r\n\r\n" +
                    std::to_string(i);
    }
    await_done(*conn->parts.tail->value->result);
    EXPECT_EQ(drain(*conn).bytes(), "");
    g.open();
    std::string sent;
    while (conn->parts.count > 0) {
        await_done(first_result(*conn));
        sent += send_once(*conn).bytes;
    }
    EXPECT_EQ(sent, expected);
    EXPECT_EQ(conn->timeout, 10);
}

TEST(answer_later, gives_no_second_whole_answer) {
    const std::unique_ptr<whole_connection> conn(new whole_connection(teapot));
    conn->write("HTTP/1.1 200 OK\r\n", "x");
    EXPECT_FALSE(answer_later(*conn, teapot));
    EXPECT_EQ(conn->parts.count, 1);
    EXPECT_EQ(conn->timeout, 10);
}

namespace {

// One gate for every connection that a server makes.
gate* common_gate = nullptr;

class gated_connection : public http_connection {
public:
    void on_headers() override {}
    void on_request() override {
        answer_later(*this, "HTTP/1.1 200 OK\r\n", [entry = common_gate->entry(), what = url] {
            entry.wait();
            return var(what);
        });
    }
};

class served_later : public testing::Test {
protected:
    served_later() { common_gate = &gate_; }

    captured_output output_;
    gate gate_;
    running_server<gated_connection> server_;
};

} // namespace

TEST_F(served_later, answers_one_client_while_another_waits) {
    far_end waits = server_.connect();
    waits.send("GET /late HTTP/1.1\r\n\r\n");
    EXPECT_EQ(server_.receive(waits, late_head.size()), late_head);
    far_end other = server_.connect();
    other.send("HEAD / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(server_.receive(other, late_head.size()), late_head);
    EXPECT_EQ(waits.receive(), "");
    gate_.open();
    const std::string chunk = "5\r\n/late\r\n0\r\n\r\n";
    EXPECT_EQ(server_.receive(waits, chunk.size()), chunk);
}

TEST_F(served_later, serves_those_who_stay_when_half_of_the_clients_leave) {
    std::vector<far_end> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(server_.connect());
        clients.back().send("GET /" + std::to_string(i) + " HTTP/1.1\r\n\r\n");
        EXPECT_EQ(server_.receive(clients.back(), late_head.size()), late_head);
    }
    // Some with an end of stream, some with a reset; half of them while the results come in.
    const auto leave = [&](std::size_t from) {
        for (std::size_t i = from; i < clients.size(); i += 4) {
            if (i % 8 < 4) {
                clients[i].close();
            } else {
                clients[i].reset();
            }
        }
    };
    leave(0);
    server_.turn_until([&] { return server_.get().connections.count == 150; });
    gate_.open();
    leave(1);
    for (std::size_t i = 0; i < clients.size(); ++i) {
        if (i % 4 < 2) continue;
        const std::string text = "/" + std::to_string(i);
        const std::string chunk = std::to_string(text.size()) + "\r\n" + text + "\r\n0\r\n\r\n";
        EXPECT_EQ(server_.receive(clients[i], chunk.size()), chunk);
    }
    server_.turn_until([&] { return server_.get().connections.count == 100; });
}

TEST_F(served_later, ends_its_server_while_functions_are_at_work) {
    std::vector<far_end> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(server_.connect());
        clients.back().send("GET / HTTP/1.1\r\n\r\n");
        server_.receive(clients.back(), late_head.size());
    }
    server_.get().stop();
    EXPECT_EQ(server_.get().connections.count, 0);
    gate_.open();
}
