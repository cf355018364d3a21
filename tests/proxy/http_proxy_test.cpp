#include "vindra/proxy/http_proxy.h"

#include "tests/support/captured_output.h"
#include "tests/support/listening_backend.h"
#include "tests/support/running_server.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

// A forward proxy of its own kind, as an application writes one.
class blocking_proxy : public http_proxy {
public:
    bool should_block(const std::string& host) override { return host == "blocked.example"; }
};

// What an application's on_headers() may call.
class direct : public http_proxy {
public:
    using http_proxy::attached;
    using http_proxy::connect_backend;
    using http_proxy::drop_unread;
    using http_proxy::use_backend;
};

class http_proxy_test : public testing::Test {
protected:
    http_proxy_test() { http_proxy::g_server() = &front_.get(); }
    ~http_proxy_test() override { http_proxy::g_server() = nullptr; }

    std::string backend_url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(backend_.port()) + path;
    }

    far_end accept_backend() {
        front_.turn();
        front_.turn();
        return backend_.accept();
    }

    captured_output out_;
    running_server<blocking_proxy> front_;
    listening_backend backend_;
};

TEST_F(http_proxy_test, an_absolute_target_is_forwarded_in_origin_form) {
    far_end client = front_.connect();
    client.send("GET " + backend_url("/a?b=1") +
                " HTTP/1.1\r\nHost: x\r\nProxy-Connection: keep-alive\r\nConnection: a\r\n\r\n");
    far_end at_backend = accept_backend();
    const std::string expected = "GET /a?b=1 HTTP/1.1\r\nHost: x\r\n\r\n";
    EXPECT_EQ(front_.receive(at_backend, expected.size()), expected);
    EXPECT_EQ(front_.get().connections.count, 2);
}

TEST_F(http_proxy_test, the_same_backend_is_used_for_the_next_request) {
    far_end client = front_.connect();
    client.send("GET " + backend_url("/1") + " HTTP/1.1\r\n\r\n");
    far_end at_backend = accept_backend();
    EXPECT_EQ(front_.receive(at_backend, 19), "GET /1 HTTP/1.1\r\n\r\n");
    client.send("GET " + backend_url("/2") + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(front_.receive(at_backend, 19), "GET /2 HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(backend_.nobody_waits());
}

TEST_F(http_proxy_test, another_backend_takes_the_place_of_the_first) {
    const listening_backend other;
    far_end client = front_.connect();
    client.send("GET " + backend_url("/1") + " HTTP/1.1\r\n\r\n");
    far_end at_backend = accept_backend();
    client.send("GET http://127.0.0.1:" + std::to_string(other.port()) + "/2 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(front_.receive_all(at_backend), "GET /1 HTTP/1.1\r\n\r\n");
    front_.turn();
    front_.turn();
    far_end at_other = other.accept();
    EXPECT_EQ(front_.receive(at_other, 19), "GET /2 HTTP/1.1\r\n\r\n");
}

TEST_F(http_proxy_test, another_host_on_the_same_port_takes_the_place_of_the_first) {
    const listening_backend other(INADDR_LOOPBACK + 1, backend_.port());
    far_end client = front_.connect();
    client.send("GET " + backend_url("/1") + " HTTP/1.1\r\n\r\n");
    far_end at_backend = accept_backend();
    EXPECT_EQ(front_.receive(at_backend, 19), "GET /1 HTTP/1.1\r\n\r\n");
    client.send("GET http://127.0.0.2:" + std::to_string(other.port()) + "/2 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(front_.receive_all(at_backend), "");
    far_end at_other = other.accept();
    EXPECT_EQ(front_.receive(at_other, 19), "GET /2 HTTP/1.1\r\n\r\n");
}

TEST_F(http_proxy_test, a_backend_that_has_gone_is_not_used_again_while_its_answer_waits) {
    far_end client = front_.connect();
    client.send("GET " + backend_url("/1") + " HTTP/1.1\r\n\r\n");
    far_end at_backend = accept_backend();
    front_.answer_and_leave(at_backend);
    client.send("GET " + backend_url("/2") + " HTTP/1.1\r\n\r\n");
    far_end at_next = accept_backend();
    EXPECT_EQ(front_.receive(at_next, 19), "GET /2 HTTP/1.1\r\n\r\n");
}

TEST_F(http_proxy_test, the_version_is_the_clients) {
    far_end client = front_.connect();
    client.send("GET " + backend_url("/1") + " HTTP/1.0\r\n\r\n");
    far_end at_backend = accept_backend();
    EXPECT_EQ(front_.receive(at_backend, 19), "GET /1 HTTP/1.0\r\n\r\n");
}

TEST_F(http_proxy_test, connect_answers_before_the_backend_and_then_carries_bytes) {
    far_end client = front_.connect();
    client.send("CONNECT 127.0.0.1:" + std::to_string(backend_.port()) + " HTTP/1.1\r\n\r\n");
    const std::string answer = "HTTP/1.1 200 OK\r\n\r\n";
    EXPECT_EQ(front_.receive(client, answer.size()), answer);
    far_end at_backend = backend_.accept();

    const std::string up("\x16\x03\x01 hello\r\n\r\nGET / HTTP/1.1\r\n\r\n", 30);
    client.send(up);
    EXPECT_EQ(front_.receive(at_backend, up.size()), up);
    at_backend.send("down");
    EXPECT_EQ(front_.receive(client, 4), "down");
    client.send("more");
    EXPECT_EQ(front_.receive(at_backend, 4), "more");
    at_backend.close();
    EXPECT_EQ(front_.receive_all(client), "");
}

TEST_F(http_proxy_test, bytes_behind_the_connect_head_go_through_the_tunnel) {
    far_end client = front_.connect();
    client.send("CONNECT 127.0.0.1:" + std::to_string(backend_.port()) + " HTTP/1.1\r\n\r\nearly");
    far_end at_backend = accept_backend();
    EXPECT_EQ(front_.receive(at_backend, 5), "early");
}

TEST_F(http_proxy_test, connect_in_lower_case_is_an_ordinary_request) {
    far_end client = front_.connect();
    client.send("connect 127.0.0.1:" + std::to_string(backend_.port()) + " HTTP/1.1\r\n\r\n");
    far_end at_backend = accept_backend();
    EXPECT_EQ(front_.receive(at_backend, 22), "connect / HTTP/1.1\r\n\r\n");
}

TEST_F(http_proxy_test, a_blocked_host_gets_404_and_the_client_stays) {
    far_end client = front_.connect();
    const std::string answer =
        "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";
    for (int i = 0; i < 2; ++i) {
        client.send("GET http://blocked.example/ HTTP/1.1\r\n\r\n");
        EXPECT_EQ(front_.receive(client, answer.size()), answer);
    }
    EXPECT_FALSE(client.closed_by_peer());
}

TEST_F(http_proxy_test, a_body_to_a_blocked_host_goes_with_the_next_head) {
    far_end client = front_.connect();
    const http_proxy& conn = front_.newest();
    for (int i = 0; i < 3; ++i) {
        client.send("POST http://blocked.example/ HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody");
        front_.turn();
        EXPECT_EQ(std::string(conn.pipe->to_backend), "body");
    }
}

TEST_F(http_proxy_test, an_origin_form_target_cannot_be_resolved) {
    far_end client = front_.connect();
    client.send("GET /x HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    EXPECT_EQ(front_.receive_all(client), "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\n"
                                          "Connection: close\r\n\r\nUnable to connect");
    const std::string lines = out_.take();
    EXPECT_NE(lines.find("\ngetaddrinfo() failed for host /x:80!\n"), std::string::npos) << lines;
}

TEST_F(http_proxy_test, a_host_with_none_but_ipv6_addresses_cannot_be_reached) {
    // The first colon separates host and port, so an address literal is cut; a name that is
    // all digits and colons never gets here. The resolver takes "::1" only from a caller.
    const std::unique_ptr<direct> conn(new direct);
    EXPECT_FALSE(conn->connect_backend("::1", 80));
    const std::string lines = out_.take();
    EXPECT_NE(lines.find("No addresses worked for host ::1:80.\n"), std::string::npos) << lines;
}

TEST_F(http_proxy_test, a_fresh_client_is_not_attached) {
    const std::unique_ptr<direct> conn(new direct);
    EXPECT_FALSE(conn->attached());
    EXPECT_EQ(conn->pipe->refs, 2);
}

TEST_F(http_proxy_test, a_client_is_attached_while_its_backend_lives) {
    const std::unique_ptr<direct> conn(new direct);
    ASSERT_TRUE(conn->use_backend("127.0.0.1", backend_.port()));
    EXPECT_TRUE(conn->attached());
    front_.get().end_connection(front_.get().connections.pop());
    EXPECT_FALSE(conn->attached());
}

TEST_F(http_proxy_test, what_a_backend_can_still_read_is_kept) {
    const std::unique_ptr<direct> conn(new direct);
    ASSERT_TRUE(conn->use_backend("127.0.0.1", backend_.port()));
    conn->pipe->to_backend += "request";
    conn->drop_unread();
    EXPECT_EQ(std::string(conn->pipe->to_backend), "request");
    front_.get().end_connection(front_.get().connections.pop());
    conn->drop_unread();
    EXPECT_EQ(std::string(conn->pipe->to_backend), "");
}

TEST_F(http_proxy_test, the_embedded_pipe_keeps_nothing_once_it_is_left) {
    const std::unique_ptr<direct> conn(new direct);
    conn->pipe->to_backend += "body";
    conn->pipe->to_client += "answer";
    ASSERT_TRUE(conn->use_backend("127.0.0.1", backend_.port()));
    EXPECT_NE(conn->pipe, &conn->initial_pipe);
    EXPECT_TRUE(conn->initial_pipe.to_backend.empty());
    EXPECT_TRUE(conn->initial_pipe.to_client.empty());
}

TEST_F(http_proxy_test, a_backend_in_use_is_told_by_its_name_and_its_port) {
    const std::unique_ptr<direct> conn(new direct);
    ASSERT_TRUE(conn->use_backend("127.0.0.1", backend_.port(), "name"));
    EXPECT_EQ(conn->backend_host, "name");
    EXPECT_EQ(conn->backend_port, backend_.port());
    const proxy_pipe* const first = conn->pipe;
    EXPECT_TRUE(conn->use_backend("127.0.0.1", backend_.port(), "name"));
    EXPECT_EQ(conn->pipe, first);
    EXPECT_EQ(front_.get().connections.count, 1);

    EXPECT_TRUE(conn->use_backend("127.0.0.1", backend_.port()));
    EXPECT_EQ(conn->backend_host, "127.0.0.1");
    EXPECT_EQ(front_.get().connections.count, 2);
    const held_port other;
    EXPECT_TRUE(conn->use_backend("127.0.0.1", other.number()));
    EXPECT_EQ(conn->backend_port, other.number());
    EXPECT_EQ(front_.get().connections.count, 3);
}

TEST_F(http_proxy_test, a_backend_that_cannot_be_used_leaves_the_502_answer) {
    const std::unique_ptr<direct> conn(new direct);
    EXPECT_FALSE(conn->use_backend("127.0.0.1", -5));
    EXPECT_FALSE(conn->attached());
    EXPECT_FALSE(conn->keep_alive);
    EXPECT_TRUE(std::string(conn->pipe->to_client).ends_with("Unable to connect"));
    EXPECT_EQ(conn->backend_host, "");
    EXPECT_EQ(conn->backend_port, 0);
}

TEST_F(http_proxy_test, a_target_of_no_name_at_port_zero_waits_for_a_backend) {
    far_end client = front_.connect();
    client.send(std::string("GET http://\0:0/ HTTP/1.1\r\n\r\n", 28));
    for (int i = 0; i < 3; ++i) front_.turn();
    EXPECT_EQ(client.receive(), "");
    ASSERT_EQ(front_.get().connections.count, 1);
    EXPECT_EQ(front_.newest().timeout, 10);
}

TEST_F(http_proxy_test, a_connect_that_fails_on_the_spot_shows_as_an_end) {
    // TCP goes to no broadcast address, and says so before anything is sent.
    const std::unique_ptr<direct> conn(new direct);
    ASSERT_TRUE(conn->use_backend("255.255.255.255", 80));
    EXPECT_EQ(front_.get().connections.count, 1);
    for (int i = 0; i < 3; ++i) front_.turn();
    EXPECT_EQ(front_.get().connections.count, 0);
    EXPECT_FALSE(conn->attached());
}

TEST_F(http_proxy_test, nothing_is_blocked_unless_an_application_says_so) {
    class open_proxy : public http_proxy {
    public:
        using http_proxy::should_block;
    };
    EXPECT_FALSE(std::unique_ptr<open_proxy>(new open_proxy)->should_block("blocked.example"));
}

TEST_F(http_proxy_test, a_502_is_the_last_answer) {
    const far_end client = front_.connect();
    const http_proxy& conn = front_.newest();
    client.send("GET /x HTTP/1.1\r\n\r\n");
    front_.turn();
    ASSERT_EQ(front_.get().connections.count, 1) << "still to be written";
    EXPECT_FALSE(conn.keep_alive);
}

TEST_F(http_proxy_test, bytes_behind_a_502_harm_nobody) {
    far_end client = front_.connect();
    client.send("GET /x HTTP/1.1\r\n\r\nmore");
    client.send("and more");
    const std::string got = front_.receive_all(client);
    EXPECT_TRUE(got.ends_with("Unable to connect"));
}

} // namespace
