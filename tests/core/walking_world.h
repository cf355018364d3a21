#pragma once

// Servers whose calls are written down, for the tests of their walks. The clock is turned by hand.

#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/http_connection.h"
#include "vindra/proxy/http_proxy.h"

#include "tests/support/far_end.h"
#include "tests/support/hand_turned_clock.h"

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

using hand_turned::longest_wait;
using hand_turned::now;

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
        quiet_when<relay>([](const relay& conn) { return conn.is_quiet(); });
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
