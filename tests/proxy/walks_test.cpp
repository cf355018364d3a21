// The server's walk over those that have something to do beside a plain one over every connection,
// written out here: one random script of events goes to two servers at once, and every call that
// they make is compared.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/http_connection.h"
#include "vindra/proxy/http_proxy.h"
#include "vindra/proxy/proxy_connection.h"

#include "tests/support/captured_output.h"
#include "tests/support/far_end.h"
#include "tests/support/frames.h"
#include "tests/support/hand_turned_clock.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

using hand_turned::longest_wait;
using hand_turned::now;

namespace {

class world;

// Lets the script see and steer a connection whatever its class.
class actor {
public:
    actor(world& home, int number) : world_(home), id_(number) {}
    actor(const actor&) = delete;
    actor& operator=(const actor&) = delete;
    virtual ~actor();

    /// Something comes up between two turns.
    virtual void prompt() {}

protected:
    void log(const std::string& what) const;

    world& world_;
    int id_;
};

// Base with its calls written down, but for those of on_send() that gave nothing and stay. The
// actor comes first: the sanitizer takes a base that stands a mebibyte into its object for none.
template <typename Base>
class recorded : public actor, public Base {
public:
    recorded(world& home, int number) : actor(home, number) {}

    void on_recv(char* bytes, int length) override {
        log("on_recv " + std::string(bytes, static_cast<std::size_t>(length)));
        Base::on_recv(bytes, length);
    }

    bool on_send(char* buffer, int capacity, int* length) override;
};

class late_result : public deferred_result {};

// Answers requests from its queue. Rests.
class answerer : public recorded<http_connection> {
public:
    answerer(world& home, int number) : recorded(home, number) {
        quiet_when<answerer>([](const answerer& conn) { return conn.is_quiet(); });
    }

    void on_headers() override {
        if (url == "/hurry") timeout = 0;
    }

    void prompt() override { write("HTTP/1.1 200 OK\r\n", "unasked"); }
};

// An application's class that is asked each turn: it brings output of its own accord, and
// answers with results that are finished later.
class application : public recorded<http_connection> {
public:
    using recorded::recorded;

    void on_headers() override {}

    void on_request() override {
        if (url != "/late") return write("HTTP/1.1 200 OK\r\n", "soon");
        write("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n", "");
        auto* part = new response_part;
        part->result = results_.emplace_back(new late_result);
        part->restore_timeout = 10;
        parts.add(part);
        timeout = -1;
    }

    bool on_send(char* buffer, int capacity, int* length) override {
        if (prompted_) {
            prompted_ = false;
            if (results_.empty()) {
                send_message("by the way", 1);
            } else {
                results_.front()->output = var("late");
                results_.front()->done = true;
                results_.erase(results_.begin());
            }
        }
        return recorded::on_send(buffer, capacity, length);
    }

    void prompt() override { prompted_ = true; }

private:
    bool prompted_ = false;
    std::vector<deferred_result*> results_;
};

// Publishes what it is told to all of its kind. Rests.
class member : public recorded<http_connection> {
public:
    member(world& home, int number) : recorded(home, number) {
        quiet_when<member>([](const member& conn) { return conn.is_quiet(); });
    }

    void on_upgrade() override;
    void on_message() override;

    void prompt() override {
        if (upgraded) send_message("from outside", 1);
    }
};

// Relays to backends that are socket pairs. Rests.
class relay : public recorded<http_proxy> {
public:
    relay(world& home, int number) : recorded(home, number) {
        quiet_when<relay>([](const relay& conn) { return conn.pipe->to_client.empty(); });
    }

    void on_headers() override;

    void prompt() override { pipe->to_client += "unasked"; }
};

class walking_server : public server<http_connection> {
public:
    walking_server(world& home, int most) : server(0, false), world_(home) {
        plain_walk_max = most;
        last_report = now + 1000000000; // no count lines
    }

    void on_remove(connection* conn) override;
    int recv(connection* conn, char* buffer, int length) override;
    int send(connection* conn, char* buffer, int length) override;

private:
    world& world_;
};

// A turn as it is defined: every connection, in the order of the list, with the list's cursor.
class plain_server : public walking_server {
public:
    using walking_server::walking_server;

    void update() override {
        walk_all([this](connection& conn) { service(conn); });
        walk_all([this](connection& conn) { ask(conn); });
        connection::selected() = nullptr;
    }

private:
    template <typename Visit>
    void walk_all(Visit visit) {
        connections.prev = connections.head;
        connections.next = nullptr;
        while (connections.prev != nullptr && connections.prev->next != nullptr) {
            connection* const conn = connections.prev->next->value;
            connection::selected() = conn;
            visit(*conn);
            if (connections.prev != nullptr) {
                connections.prev = connections.prev->next;
            } else {
                connections.prev = std::exchange(connections.next, nullptr);
            }
        }
    }

    void service(connection& conn) {
        if (conn.timeout >= 0 && now - conn.last_active > conn.timeout) {
            std::printf("%d has timed out.\n", conn.fd);
            remove();
        } else if (sockets::errors()->test(conn.fd)) {
            std::printf("%d has errors.\n", conn.fd);
            remove();
        } else if (sockets::readable()->test(conn.fd)) {
            read(conn);
        } else if (sockets::writable()->test(conn.fd)) {
            write(conn);
        }
    }

    void read(connection& conn) {
        int count = 0;
        while ((count = recv(&conn, buffer_.data(), receive_buffer_size)) > 0) {
            conn.on_recv(buffer_.data(), count);
            conn.last_active = now;
        }
        if (count == 0) remove();
    }

    void write(connection& conn) {
        int count = 1;
        while (conn.send_length > 0 && count > 0) {
            count = send(&conn, conn.send_buffer + conn.send_offset, conn.send_length);
            if (count > 0) {
                conn.send_length -= count;
                conn.send_offset += count;
            }
        }
        conn.last_active = now;
        if (!conn.more && conn.send_length == 0) remove();
    }

    void ask(connection& conn) {
        if (conn.send_length != 0) return sockets::ready()->set(conn.fd);
        conn.more = conn.on_send(conn.send_buffer, connection::send_buffer_size, &conn.send_length);
        if (conn.send_length > 0) conn.send_offset = 0;
        if (conn.send_length != 0) {
            sockets::ready()->set(conn.fd);
        } else if (!conn.more) {
            remove();
        }
    }

    void remove() {
        sockets::hurry();
        connection* const conn = connections.prev->next->value;
        connections.remove();
        end_connection(conn);
    }

    std::vector<char> buffer_ = std::vector<char>(receive_buffer_size);
};

// One server with its connections, the far ends of these, and all calls that were made.
class world {
public:
    world(std::string name, int plain_walk_max)
        : channel(std::move(name)), owned_(std::make_unique<walking_server>(*this, plain_walk_max)),
          the_server(*owned_) {}

    // With the plain walk instead.
    explicit world(std::string name)
        : channel(std::move(name)), owned_(std::make_unique<plain_server>(*this, 0)),
          the_server(*owned_) {}

    // A connection of class T in the list, with a far end in the script's hands.
    template <typename T>
    void join() {
        auto* conn = new T(*this, next_id_);
        actors[next_id_] = conn;
        enter(conn);
    }

    // One whose time is over before a turn has seen it.
    void join_late() {
        join<answerer>();
        the_server.connections.tail->value->last_active = now - 20;
    }

    // Gives `conn` a socket, a number and a place in the list, as an accept or a relay does.
    void enter(connection* conn) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        const int small = 4096;
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        conn->fd = ends[0];
        ids[conn] = next_id_;
        far.emplace(next_id_, far_end(ends[1]));
        ++next_id_;
        the_server.connections.add(conn);
        sockets::all()->set(conn->fd);
    }

    void update() {
        http_proxy::g_server() = &the_server;
        the_server.update();
        http_proxy::g_server() = nullptr;
    }

    // What anyone could read off the connections.
    std::string state() const {
        std::string text;
        for (auto* node = the_server.connections.head->next; node != nullptr; node = node->next) {
            const connection& conn = *node->value;
            text += std::to_string(ids.at(&conn));
            for (const long value : {static_cast<long>(conn.more), static_cast<long>(conn.timeout),
                                     static_cast<long>(conn.send_length),
                                     static_cast<long>(conn.send_offset), conn.last_active})
                text += " " + std::to_string(value);
            text += "\n";
        }
        return text;
    }

    std::vector<int> living() const {
        std::vector<int> numbers;
        for (const auto& [number, end] : far) numbers.push_back(number);
        return numbers;
    }

    std::string channel;
    std::vector<std::string> log;
    std::map<const connection*, int> ids;
    std::map<int, actor*> actors;
    std::map<int, far_end> far;
    int empty_asks = 0;

private:
    int next_id_ = 0;
    std::unique_ptr<walking_server> owned_;

public:
    walking_server& the_server;
};

actor::~actor() {
    world_.actors.erase(id_);
}

void actor::log(const std::string& what) const {
    world_.log.push_back(std::to_string(id_) + " " + what);
}

template <typename Base>
bool recorded<Base>::on_send(char* buffer, int capacity, int* length) {
    const bool stays = Base::on_send(buffer, capacity, length);
    if (*length == 0 && stays) {
        ++world_.empty_asks;
    } else {
        log("on_send " + std::string(buffer, static_cast<std::size_t>(*length)) +
            (stays ? "" : ", the end"));
    }
    return stays;
}

void member::on_upgrade() {
    subscribe(world_.channel);
}

void member::on_message() {
    if (message == "leave") return unsubscribe(world_.channel);
    publish(world_.channel, message, 1);
}

// The target says what becomes of the backend; its path is what the backend is told.
void relay::on_headers() {
    if (url == "/here") {
        pipe->to_client += "answered here";
        return;
    }
    if (!attached() || backend_port == 0 || url == "/other") {
        backend_port = 1;
        renew_pipe();
        auto* const conn = new proxy_connection(-1, pipe);
        timeout = -1;
        world_.enter(conn);
    }
    pipe->to_backend += url;
}

void walking_server::on_remove(connection* conn) {
    const int number = world_.ids.at(conn);
    world_.log.push_back(std::to_string(number) + " on_remove");
    world_.ids.erase(conn);
    world_.far.erase(number);
    if (number % 5 == 0) world_.join_late();
}

int walking_server::recv(connection* conn, char* buffer, int length) {
    const int count = server::recv(conn, buffer, length);
    world_.log.push_back(std::to_string(world_.ids.at(conn)) + " recv " + std::to_string(count));
    return count;
}

int walking_server::send(connection* conn, char* buffer, int length) {
    const int count = server::send(conn, buffer, length);
    world_.log.push_back(std::to_string(world_.ids.at(conn)) + " send " + std::to_string(count));
    return count;
}

// A seed of the script, and up to how many connections the server visits all of them.
struct trial {
    unsigned seed;
    int plain_walk_max;
};

class walks_test : public testing::TestWithParam<trial> {
protected:
    // Does the same in both worlds.
    template <typename Deed>
    void both(Deed deed) {
        deed(plain_);
        deed(quick_);
    }

    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }

    void someone_comes() {
        switch (pick(8)) {
        case 0:
            return both([](world& w) { w.join<answerer>(); });
        case 1:
            return both([](world& w) { w.join<application>(); });
        case 2:
        case 3:
            return both([](world& w) { w.join<member>(); });
        default:
            return both([](world& w) { w.join<relay>(); });
        }
    }

    std::string bytes_of_some_kind() {
        const std::string handshake = "GET /ws HTTP/1.1\r\nUpgrade: websocket\r\n"
                                      "Sec-WebSocket-Version: 13\r\n"
                                      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
        const std::vector<std::string> kinds = {
            "GET / HTTP/1.1\r\n\r\n",
            "GET /other HTTP/1.1\r\n\r\n",
            "GET /here HTTP/1.1\r\n\r\n",
            "GET /late HTTP/1.1\r\n\r\n",
            "GET /hurry HTTP/1.1\r\n\r\n",
            "GET / HTTP/1.0\r\n\r\n",
            "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n12345",
            handshake,
            short_frame(0x81, "hello"),
            short_frame(0x81, "leave"),
            short_frame(0x88, ""),
            std::string(3000, 'x'),
            std::string(40000, 'y'),
        };
        return kinds[pick(static_cast<unsigned>(kinds.size()))];
    }

    void someone_acts() {
        const std::vector<int> numbers = plain_.living();
        if (numbers.empty()) return;
        const int who = numbers[pick(static_cast<unsigned>(numbers.size()))];
        switch (pick(24)) {
        case 0:
            return both([who](world& w) { w.far.at(who).close(); });
        case 1:
            return both([who](world& w) { w.far.at(who).finish_sending(); });
        case 2:
        case 3:
            return both([who](world& w) {
                if (w.actors.contains(who)) w.actors.at(who)->prompt();
            });
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
            return both([who](world& w) { w.far.at(who).receive(); });
        default: {
            const std::string bytes = bytes_of_some_kind();
            return both([&](world& w) { w.far.at(who).send_some(bytes); });
        }
        }
    }

    void time_passes() {
        if (pick(20) == 0) ++now;
        if (pick(200) == 0) now += 11;
    }

    void turn_and_compare() {
        sockets::select_all();
        both([](world& w) { w.update(); });
        ASSERT_EQ(plain_.log, quick_.log);
        ASSERT_EQ(plain_.state(), quick_.state());
        calls_ += plain_.log.size();
        const bool many = quick_.the_server.connections.count > GetParam().plain_walk_max;
        if (many != std::exchange(many_, many)) ++crossings_;
        both([](world& w) { w.log.clear(); });
    }

    // Lists that cross the limit, both ways, many times.
    std::size_t connections_max() const {
        const int limit = GetParam().plain_walk_max;
        return limit == 0 ? 60U : static_cast<std::size_t>(limit + limit / 2);
    }

    std::mt19937 random_{GetParam().seed};
    world plain_{"plain"};
    world quick_{"quick", GetParam().plain_walk_max};
    std::size_t calls_ = 0;
    bool many_ = false;
    int crossings_ = 0;
};

// The sanitizers take ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned turns = 1000;
#else
constexpr unsigned turns = 3000;
#endif

TEST_P(walks_test, leave_out_no_call_but_those_that_would_do_nothing) {
    captured_output out;
    for (unsigned turn = 0; turn < turns; ++turn) {
        for (unsigned events = pick(5); events > 0; --events) {
            if (plain_.far.size() < connections_max() && pick(3) == 0) someone_comes();
            someone_acts();
        }
        if (pick(200) == 0) both([](world& w) { w.join_late(); });
        time_passes();
        turn_and_compare();
        if (HasFatalFailure()) {
            out.take();
            FAIL() << "in turn " << turn;
        }
    }
    out.take();
    EXPECT_GT(calls_, turns);
    if (GetParam().plain_walk_max == 0) {
        // News of each number in the plain world has everyone looked at once: whose is it?
        EXPECT_LT(quick_.empty_asks, plain_.empty_asks * 2 / 3) << "it asked nearly everyone";
    } else {
        EXPECT_LT(quick_.empty_asks, plain_.empty_asks) << "the limit was never crossed";
        EXPECT_GT(crossings_, 10) << "or hardly ever";
    }
}

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

constexpr trial trials[] = {{0, 0}, {1, 0}, {2, 0}, {3, 0},  {4, 0},   {5, 0},
                            {6, 8}, {7, 8}, {8, 8}, {9, 32}, {10, 32}, {11, 32}};

INSTANTIATE_TEST_SUITE_P(seeds, walks_test, testing::ValuesIn(trials), [](const auto& test) {
    return "seed_" + std::to_string(test.param.seed) + "_limit_" +
           std::to_string(test.param.plain_walk_max);
});

} // namespace
