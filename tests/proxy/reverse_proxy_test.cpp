#include "vindra/base/print.h"
#include "vindra/proxy/proxy_connection.h"
#include "vindra/proxy/reverse_proxy.h"

#include "tests/support/captured_output.h"
#include "tests/support/listening_backend.h"
#include "tests/support/running_server.h"

#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

const std::string not_found =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";
const std::string bad_gateway = "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\n"
                                "Connection: close\r\n\r\nUnable to connect";

class reverse_proxy_test : public testing::Test {
protected:
    reverse_proxy_test() { http_proxy::g_server() = &front_.get(); }
    ~reverse_proxy_test() override { http_proxy::g_server() = nullptr; }

    static std::string get(const std::string& host, const std::string& more = "") {
        return "GET /a?b=1 HTTP/1.1\r\nHost: " + host + "\r\n" + more + "\r\n";
    }

    static std::string forwarded(const std::string& host, const std::string& more = "") {
        return "GET /a?b=1 HTTP/1.1\r\nHost: " + host + "\r\n" + more +
               "X-Forwarded-For: 127.0.0.1\r\n\r\n";
    }

    // Map keys are the process's: each test uses a host of its own.
    void map(const std::string& host, int port) { reverse_proxy::hosts().set(host, port); }

    std::string log_of(const far_end& client, const std::string& host,
                       const std::string& agent = "") {
        return "[" + host + "] 127.0.0.1:" + std::to_string(client.port()) +
               " GET /a?b=1 HTTP/1.1 [" + agent + "]\n";
    }

    // What the lines say about the start of the server is in every test the same.
    std::string lines() {
        const std::string text = out_.take();
        return text.substr(text.find('\n') + 1);
    }

    captured_output out_;
    running_server<reverse_proxy> front_;
};

TEST_F(reverse_proxy_test, an_unknown_host_gets_404_and_the_client_stays) {
    far_end client = front_.connect();
    client.send(get("unknown.example", "User-Agent: test/1\r\n"));
    EXPECT_EQ(front_.receive(client, not_found.size()), not_found);
    client.send(get("unknown.example"));
    EXPECT_EQ(front_.receive(client, not_found.size()), not_found);
    EXPECT_FALSE(client.closed_by_peer());
    EXPECT_EQ(lines(),
              log_of(client, "unknown.example", "test/1") + log_of(client, "unknown.example"));
}

TEST_F(reverse_proxy_test, a_request_without_host_is_looked_up_under_the_empty_name) {
    far_end client = front_.connect();
    client.send("GET /a?b=1 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(front_.receive(client, not_found.size()), not_found);
    EXPECT_EQ(lines(), log_of(client, ""));
}

TEST_F(reverse_proxy_test, host_keys_are_exact_to_the_byte) {
    map("exact.example", reverse_proxy::echo_port);
    for (const char* host :
         {"Exact.example", "exact.example:80", "exact.example ", "xact.example"}) {
        far_end client = front_.connect();
        client.send(get(host));
        EXPECT_EQ(front_.receive(client, not_found.size()), not_found) << host;
    }
}

TEST_F(reverse_proxy_test, the_echo_handler_answers_with_the_head_and_the_address) {
    map("echo.example", -1);
    const std::string body = "GET /a?b=1 HTTP/1.1\r\nHost: echo.example\r\nX: y\r\n\r\n"
                             "Your IPv4 address is: 127.0.0.1";
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                               std::to_string(body.size()) + "\r\n\r\n" + body;
    far_end client = front_.connect();
    for (int i = 0; i < 2; ++i) {
        client.send(get("echo.example", "X: y\r\n"));
        EXPECT_EQ(front_.receive(client, answer.size()), answer);
    }
    EXPECT_FALSE(client.closed_by_peer());
}

TEST_F(reverse_proxy_test, port_zero_is_as_good_as_unmapped) {
    map("zero.example", 0);
    far_end client = front_.connect();
    client.send(get("zero.example"));
    EXPECT_EQ(front_.receive(client, not_found.size()), not_found);
}

TEST_F(reverse_proxy_test, its_lines_go_where_the_application_wants_them) {
    std::string seen;
    base::print_to([&seen](std::string_view line) { seen.append(line) += "|"; });
    far_end client = front_.connect();
    client.send("GET / HTTP/1.1\r\nHost: refused.example\r\n\r\n");
    front_.receive(client, 1);
    base::print_to(nullptr);
    EXPECT_TRUE(seen.starts_with("[refused.example] 127.0.0.1:")) << seen;
    EXPECT_TRUE(seen.ends_with(" GET / HTTP/1.1 []|")) << seen;
    EXPECT_EQ(lines(), "");
}

TEST_F(reverse_proxy_test, a_request_is_forwarded_with_its_url_and_filtered_lines) {
    const listening_backend backend;
    map("mapped.example", backend.port());
    far_end client = front_.connect();
    client.send(
        get("mapped.example", "Connection: close\r\nX-Forwarded-For: 9.9.9.9\r\nProxy-X: 1\r\n"));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    const std::string expected = forwarded("mapped.example", "X-Forwarded-For: 9.9.9.9\r\n");
    EXPECT_EQ(front_.receive(at_backend, expected.size()), expected);
}

TEST_F(reverse_proxy_test, a_request_cut_at_every_byte_is_forwarded_the_same) {
    const listening_backend backend;
    map("cut.example", backend.port());
    const std::string request =
        "POST /p HTTP/1.1\r\nHost: cut.example\r\nContent-Length: 4\r\n\r\nbody";
    const std::string expected = "POST /p HTTP/1.1\r\nHost: cut.example\r\nContent-Length: 4\r\n"
                                 "X-Forwarded-For: 127.0.0.1\r\n\r\nbody";
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
        far_end client = front_.connect();
        client.send(request.substr(0, cut));
        front_.turn();
        client.send(request.substr(cut));
        front_.turn();
        front_.turn();
        far_end at_backend = backend.accept();
        ASSERT_EQ(front_.receive(at_backend, expected.size()), expected) << "cut at " << cut;
        client.close();
        front_.receive_all(at_backend);
    }
}

TEST_F(reverse_proxy_test, two_requests_to_one_port_share_a_backend_connection) {
    const listening_backend backend;
    map("one.example", backend.port());
    map("alias.example", backend.port());
    far_end client = front_.connect();
    client.send(get("one.example"));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    EXPECT_EQ(front_.receive(at_backend, forwarded("one.example").size()),
              forwarded("one.example"));
    at_backend.send("answer one");
    EXPECT_EQ(front_.receive(client, 10), "answer one");
    client.send(get("alias.example"));
    EXPECT_EQ(front_.receive(at_backend, forwarded("alias.example").size()),
              forwarded("alias.example"));
    EXPECT_TRUE(backend.nobody_waits());
}

TEST_F(reverse_proxy_test, two_ports_take_two_backend_connections_and_the_first_closes) {
    const listening_backend first;
    const listening_backend second;
    map("first.example", first.port());
    map("second.example", second.port());
    far_end client = front_.connect();
    client.send(get("first.example"));
    front_.turn();
    front_.turn();
    far_end at_first = first.accept();
    EXPECT_EQ(front_.receive(at_first, 1).substr(0, 3), "GET");

    client.send(get("second.example"));
    front_.turn();
    front_.turn();
    far_end at_second = second.accept();
    EXPECT_EQ(front_.receive_all(at_first), "") << "closed once its queue has drained";
    at_second.send("from the second");
    EXPECT_EQ(front_.receive(client, 15), "from the second");
}

TEST_F(reverse_proxy_test, a_switch_of_ports_still_drains_what_the_first_was_sent) {
    const listening_backend first;
    const listening_backend second;
    map("drain.example", first.port());
    map("other.example", second.port());
    far_end client = front_.connect();
    client.send(get("drain.example"));
    client.send(""); // both requests are read before the first one could be written
    front_.turn();
    client.send(get("other.example"));
    front_.turn();
    front_.turn();
    far_end at_first = first.accept();
    EXPECT_EQ(front_.receive_all(at_first), forwarded("drain.example"));
}

TEST_F(reverse_proxy_test, an_attached_pair_is_never_timed_out) {
    const listening_backend backend;
    map("patient.example", backend.port());
    const far_end client = front_.connect();
    reverse_proxy& conn = front_.newest();
    EXPECT_EQ(conn.timeout, 10);
    client.send(get("patient.example"));
    front_.turn();
    EXPECT_EQ(conn.timeout, -1);
    EXPECT_EQ(conn.backend_port, backend.port());
    EXPECT_EQ(conn.backend_host, "");
    auto& other = *static_cast<proxy_connection*>(front_.get().connections.tail->value);
    EXPECT_EQ(other.timeout, -1);
    EXPECT_EQ(other.pipe, conn.pipe);
    EXPECT_EQ(other.pipe->refs, 2);
    EXPECT_EQ(other.address, 0U);
    EXPECT_EQ(other.server, nullptr);
}

TEST_F(reverse_proxy_test, an_idle_client_without_backend_times_out) {
    far_end client = front_.connect();
    front_.newest().last_active -= 11;
    EXPECT_EQ(front_.receive_all(client), "");
}

TEST_F(reverse_proxy_test, a_backend_that_refuses_closes_the_client_with_no_answer) {
    const held_port nobody;
    map("refused.example", nobody.number());
    far_end client = front_.connect();
    client.send(get("refused.example"));
    EXPECT_EQ(front_.receive_all(client), "");
    EXPECT_EQ(lines(), log_of(client, "refused.example"));
    EXPECT_EQ(front_.get().connections.count, 0);
}

TEST_F(reverse_proxy_test, a_port_that_cannot_be_resolved_gets_502_and_the_end) {
    map("unresolved.example", -7);
    far_end client = front_.connect();
    client.send(get("unresolved.example"));
    EXPECT_EQ(front_.receive_all(client), bad_gateway);
    EXPECT_EQ(bad_gateway.size(), 90U);
    EXPECT_EQ(lines(), log_of(client, "unresolved.example") +
                           "getaddrinfo() failed for host localhost:-7!\n");
}

TEST_F(reverse_proxy_test, without_a_home_for_backends_it_says_so_and_the_client_hangs) {
    const listening_backend backend;
    map("homeless.example", backend.port());
    http_proxy::g_server() = nullptr;
    far_end client = front_.connect();
    client.send(get("homeless.example"));
    for (int i = 0; i < 3; ++i) front_.turn();
    EXPECT_EQ(client.receive(), "");
    EXPECT_FALSE(client.closed_by_peer());
    EXPECT_EQ(lines(), log_of(client, "homeless.example") +
                           "Error! No server assigned for proxy connections.\n");
}

TEST_F(reverse_proxy_test, a_404_after_the_backend_has_gone_closes_the_client) {
    const listening_backend backend;
    map("going.example", backend.port());
    far_end client = front_.connect();
    client.send(get("going.example"));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    const std::string answer = front_.answer_and_leave(at_backend);
    client.send(get("nobody.example"));
    front_.turn();
    EXPECT_TRUE(front_.receive_all(client) == answer + not_found);
}

TEST_F(reverse_proxy_test, a_backend_that_has_gone_is_not_used_again_while_its_answer_waits) {
    const listening_backend backend;
    map("again.example", backend.port());
    far_end client = front_.connect();
    client.send(get("again.example"));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    front_.answer_and_leave(at_backend);
    client.send(get("again.example"));
    front_.turn();
    front_.turn();
    far_end at_next = backend.accept();
    const std::string expected = forwarded("again.example");
    EXPECT_EQ(front_.receive(at_next, expected.size()), expected);
}

// Posts a body, or a head alone, and returns the bytes that then wait for a backend.
class unread_bodies : public reverse_proxy_test {
protected:
    static constexpr std::size_t body_size = 10000;

    std::size_t waiting_after_post(const far_end& client, const std::string& host) {
        return waiting_after(client, "POST / HTTP/1.1\r\nHost: " + host +
                                         "\r\nContent-Length: 10000" + "\r\n\r\n" +
                                         std::string(body_size, 'b'));
    }

    std::size_t waiting_after_get(const far_end& client, const std::string& host) {
        return waiting_after(client, get(host));
    }

    const reverse_proxy* client_connection() {
        return static_cast<reverse_proxy*>(front_.get().connections.head->next->value);
    }

private:
    std::size_t waiting_after(const far_end& client, const std::string& request) {
        client.send(request);
        for (int i = 0; i < 3; ++i) front_.turn();
        EXPECT_FALSE(client_connection()->headers_done) << "the request is not complete";
        return client_connection()->pipe->to_backend.size();
    }
};

TEST_F(unread_bodies, of_a_host_that_is_not_mapped_go_with_the_next_head) {
    far_end client = front_.connect();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(waiting_after_post(client, "nobody.example"), body_size);
    EXPECT_EQ(waiting_after_get(client, "nobody.example"), 0U);
    EXPECT_EQ(front_.receive(client, 4 * not_found.size()),
              not_found + not_found + not_found + not_found);
}

TEST_F(unread_bodies, of_the_echo_handler_go_with_the_next_head) {
    map("echo-posts.example", reverse_proxy::echo_port);
    const far_end client = front_.connect();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(waiting_after_post(client, "echo-posts.example"), body_size);
    EXPECT_EQ(waiting_after_get(client, "echo-posts.example"), 0U);
}

TEST_F(unread_bodies, do_not_stay_in_the_embedded_pipe_when_a_backend_comes) {
    const listening_backend backend;
    map("comes.example", backend.port());
    const far_end client = front_.connect();
    waiting_after_post(client, "nobody.example");
    waiting_after_get(client, "comes.example");
    EXPECT_NE(client_connection()->pipe, &client_connection()->initial_pipe);
    EXPECT_EQ(client_connection()->initial_pipe.to_backend.size(), 0U);
    EXPECT_EQ(client_connection()->initial_pipe.to_client.size(), 0U);
    far_end at_backend = backend.accept();
    EXPECT_EQ(front_.receive(at_backend, forwarded("comes.example").size()),
              forwarded("comes.example"));
}

TEST_F(unread_bodies, of_a_pipe_whose_backend_has_gone_go_with_the_next_head) {
    const listening_backend backend;
    map("leaves.example", backend.port());
    far_end client = front_.connect();
    client.send(get("leaves.example"));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    const std::string answer = front_.answer_and_leave(at_backend);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(waiting_after_post(client, "nobody.example"), body_size);
    EXPECT_EQ(waiting_after_get(client, "nobody.example"), 0U);
    EXPECT_TRUE(front_.receive_all(client) ==
                answer + not_found + not_found + not_found + not_found);
}

TEST_F(reverse_proxy_test, the_address_told_is_the_peers) {
    const listening_backend backend;
    map("seventh.example", backend.port());
    map("echo7.example", reverse_proxy::echo_port);
    far_end client = front_.connect(INADDR_LOOPBACK + 6);
    client.send(get("echo7.example"));
    EXPECT_TRUE(front_.receive(client, 100).ends_with("Your IPv4 address is: 127.0.0.7"));
    client.send(get("seventh.example"));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    EXPECT_TRUE(front_.receive(at_backend, forwarded("seventh.example").size())
                    .ends_with("X-Forwarded-For: 127.0.0.7\r\n\r\n"));
}

TEST_F(reverse_proxy_test, small_pieces_are_held_back_on_neither_side) {
    const listening_backend backend;
    map("prompt.example", backend.port());
    const far_end client = front_.connect();
    client.send(get("prompt.example"));
    front_.turn();
    ASSERT_EQ(front_.get().connections.count, 2);
    for (const connection* conn :
         {front_.get().connections.head->next->value, front_.get().connections.tail->value}) {
        int on = 0;
        socklen_t length = sizeof on;
        EXPECT_EQ(getsockopt(conn->fd, IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
        EXPECT_NE(on, 0);
    }
}

TEST_F(reverse_proxy_test, no_socket_blocks_or_is_left_to_a_program_that_is_started) {
    const listening_backend backend;
    map("prompt.example", backend.port());
    const far_end client = front_.connect();
    client.send(get("prompt.example"));
    front_.turn();
    ASSERT_EQ(front_.get().connections.count, 2);
    for (const connection* conn :
         {front_.get().connections.head->next->value, front_.get().connections.tail->value}) {
        EXPECT_NE(fcntl(conn->fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(conn->fd, F_GETFD) & FD_CLOEXEC, 0);
    }
}

TEST_F(reverse_proxy_test, upgrades_are_forwarded_and_not_answered) {
    const listening_backend backend;
    map("ws.example", backend.port());
    far_end client = front_.connect();
    const std::string upgrade = "Upgrade: websocket\r\nSec-WebSocket-Key: a\r\n"
                                "Sec-WebSocket-Version: 13\r\n";
    client.send(get("ws.example", upgrade));
    front_.turn();
    front_.turn();
    far_end at_backend = backend.accept();
    const std::string expected = forwarded("ws.example", upgrade);
    EXPECT_EQ(front_.receive(at_backend, expected.size()), expected);
}

} // namespace
