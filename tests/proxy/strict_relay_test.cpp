#include "vindra/core/ipv4_text.h"
#include "vindra/core/sockets.h"
#include "vindra/proxy/http_proxy.h"

#include "tests/support/captured_output.h"
#include "tests/support/listening_backend.h"
#include "tests/support/running_server.h"

#include <cstdlib>
#include <limits>
#include <string>

#include <gtest/gtest.h>
#include <netinet/tcp.h>

namespace {

constexpr int largest_body = 1000;

// A path says what is to be done: it names the port of a backend, or how to answer.
class gateway : public http_proxy {
public:
    void on_headers() override {
        if (path == "/refused") return refuse(403, "text/plain", "no\n");
        if (path == "/answered") return answer(404, "text/plain", "none");
        if (path == "/queued") return answer_not_found();
        if (path.ends_with("/edited")) {
            drop_header("X-Forwarded-For");
            add_header("X-Forwarded-For", ipv4_text(address));
            add_header("X-Name", "two\r\nlines: 1");
        }
        const int number = std::atoi(path.c_str() + 1);
        if (path.ends_with("/renamed")) return forward_to("127.0.0.1", number, "/name?a");
        forward_to("127.0.0.1", number);
        if (path.ends_with("/both")) answer(500, "", "");
    }
    void on_data(char* bytes, int length) override {
        if (path.ends_with("/late") && body_received >= 4) return refuse(403, "text/plain", "no\n");
        http_proxy::on_data(bytes, length);
    }
};

class strict_gateway : public gateway {
public:
    strict_gateway() { relay_strictly(largest_body); }
};

template <typename Gateway>
class gateway_test : public testing::Test {
protected:
    gateway_test() { http_proxy::g_server() = &front_.get(); }
    ~gateway_test() override { http_proxy::g_server() = nullptr; }

    // `text` with the backend's port in place of "PORT".
    std::string with_port(std::string text) const {
        for (std::size_t at = 0; (at = text.find("PORT")) != std::string::npos;)
            text.replace(at, 4, std::to_string(backend_.port()));
        return text;
    }

    void turn() {
        sockets::hurry();
        front_.turn();
    }
    void turn_a_few_times() {
        for (int i = 0; i < 6; ++i) turn();
    }

    std::string at_backend() {
        turn_a_few_times();
        return at_backend_.receive();
    }
    std::string at_client() {
        turn_a_few_times();
        return client_.receive();
    }

    // The same, and lets the end of a refusal come, which is put off for the client's sake.
    std::string at_client_at_last() {
        std::string got = at_client();
        for (auto* node = front_.get().connections.head->next; node != nullptr; node = node->next)
            node->value->last_active -= 5;
        got += at_client();
        return got;
    }

    void send(const std::string& wire, std::size_t piece = std::string::npos) {
        const std::string bytes = with_port(wire);
        for (std::size_t at = 0; at < bytes.size(); at += std::min(piece, bytes.size())) {
            client_.send(bytes.substr(at, piece));
            turn();
        }
    }

    // A client whose pieces leave at once.
    void connect() {
        client_ = front_.connect();
        send_at_once(client_);
    }
    static void send_at_once(const far_end& end) {
        const int on = 1;
        setsockopt(end.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    // A new client with a backend that has answered its first request.
    void attach() {
        connect();
        send("GET /PORT HTTP/1.1\r\nHost: a\r\n\r\n");
        turn_a_few_times();
        at_backend_ = backend_.accept();
        send_at_once(at_backend_);
        EXPECT_NE(at_backend(), "");
        at_backend_.send(first_answer);
        EXPECT_EQ(at_client(), first_answer);
    }

    const std::string first_answer = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1";
    captured_output out_;
    running_server<Gateway> front_;
    listening_backend backend_;
    far_end client_;
    far_end at_backend_;
};

using plain_relay = gateway_test<gateway>;
using strict_relay = gateway_test<strict_gateway>;

const std::string smuggled = "GET /admin HTTP/1.1\r\nHost: a\r\n\r\n";
const std::string post_refused =
    "POST /refused HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(smuggled.size()) +
    "\r\n\r\n";
const std::string refusal = "HTTP/1.1 403 Forbidden\r\nContent-Type: text/plain\r\n"
                            "Content-Length: 3\r\nConnection: close\r\n\r\nno\n";

TEST_F(plain_relay, a_refused_request_leaves_the_request_in_its_body_to_no_backend) {
    const std::string attack = post_refused + smuggled + smuggled;
    for (const std::size_t piece : {std::string::npos, std::size_t{1}}) {
        attach();
        send(attack, piece);
        EXPECT_EQ(at_backend(), "");
        EXPECT_EQ(at_client_at_last(), refusal);
        EXPECT_TRUE(client_.closed_by_peer());
        EXPECT_TRUE(at_backend_.closed_by_peer());
    }
}

TEST_F(plain_relay, a_request_may_be_refused_in_the_middle_of_its_body) {
    attach();
    send("POST /PORT/late HTTP/1.1\r\nHost: a\r\nContent-Length: 6\r\n\r\nabc");
    send("def" + smuggled);
    EXPECT_EQ(at_backend(), with_port("POST /PORT/late HTTP/1.1\r\nHost: a\r\n"
                                      "Content-Length: 6\r\n\r\nabc"));
    EXPECT_TRUE(at_backend_.closed_by_peer()) << "so that it does not wait for the rest";
    EXPECT_EQ(at_client_at_last(), refusal);
}

TEST_F(plain_relay, a_refusal_comes_behind_what_a_backend_has_sent) {
    attach();
    const std::string answer(24 << 20, 'a');
    std::size_t sent = 0;
    while (sent < answer.size()) {
        sent += at_backend_.send_some(std::string_view(answer).substr(sent));
        turn();
    }
    send("GET /refused HTTP/1.1\r\nHost: a\r\n\r\n");
    turn_a_few_times();
    EXPECT_EQ(front_.get().connections.count, 1);
    const std::string got = front_.receive(client_, answer.size() + refusal.size());
    EXPECT_TRUE(got == answer + refusal) << got.size() << got.substr(got.size() - 200);
}

TEST_F(plain_relay, a_refused_client_that_does_not_read_times_out) {
    attach();
    EXPECT_EQ(front_.get().connections.head->next->value->timeout, -1);
    send("GET /refused HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(front_.get().connections.head->next->value->timeout, 10);
}

TEST_F(plain_relay, header_lines_are_dropped_under_every_spelling_and_added) {
    attach();
    send("GET /PORT/edited HTTP/1.1\r\nHost: a\r\nx-forwarded-for: 1\r\nX_Forwarded_For: 2\r\n"
         " and more\r\nX-Forwarded-For : 3\r\nX-Forwarded-Forever: 4\r\n\r\n");
    EXPECT_EQ(at_backend(), with_port("GET /PORT/edited HTTP/1.1\r\nHost: a\r\n"
                                      "X-Forwarded-Forever: 4\r\nX-Forwarded-For: 127.0.0.1\r\n"
                                      "X-Name: two  lines: 1\r\n\r\n"));
}

TEST_F(plain_relay, a_request_may_get_another_target) {
    attach();
    send("GET /PORT/renamed HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(at_backend(), "GET /name?a HTTP/1.1\r\nHost: a\r\n\r\n");
}

TEST_F(plain_relay, a_target_of_any_form_is_passed_on) {
    attach();
    send("GET http://a/b HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(at_client_at_last(), "") << "sent to port 0 of the machine, where nobody is";
    EXPECT_TRUE(client_.closed_by_peer());
}

std::string closing(const std::string& status) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

const std::string none =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 4\r\n\r\nnone";
const std::string not_found =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";
const std::string plain_get = "GET /PORT HTTP/1.1\r\nHost: a\r\n\r\n";

std::string post(const std::string& lines, const std::string& body) {
    return "POST /PORT HTTP/1.1\r\nHost: a\r\n" + lines + "\r\n" + body;
}

// What an attached client sends, and what its backend and the client itself have of it.
struct exchange {
    const char* name;
    std::string wire;
    std::string at_backend;
    std::string at_client;
    bool open;
};

const exchange exchanges[] = {
    {"request", plain_get, plain_get, "", true},
    {"body", post("Content-Length: 4\r\n", "body"), post("Content-Length: 4\r\n", "body"), "",
     true},
    {"body not complete", post("Content-Length: 4\r\n", "bod"),
     post("Content-Length: 4\r\n", "bod"), "", true},
    {"more than announced", post("Content-Length: 4\r\n", "body") + smuggled,
     post("Content-Length: 4\r\n", "body"), "", true},
    {"second head", plain_get + smuggled, plain_get, "", true},
    {"answered", "POST /answered HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\n\r\n" + smuggled, "",
     none, true},
    {"answered into the pipe",
     "POST /queued HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\n\r\n" + smuggled, "", not_found,
     true},
    {"refused", post_refused + smuggled + plain_get, "", refusal, false},
    {"answered, then passed on",
     "POST /answered HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\n\r\n" + smuggled + plain_get,
     plain_get, none, true},
    {"equal lengths", post("Content-Length: 1\r\nContent-Length: 1\r\n", "b"),
     post("Content-Length: 1\r\nContent-Length: 1\r\n", "b"), "", true},
    {"two lengths", post("Content-Length: 0\r\nContent-Length: 32\r\n", smuggled), "",
     closing("400 Bad Request"), false},
    {"list of lengths", post("Content-Length: 1, 1\r\n", "b"), "", closing("400 Bad Request"),
     false},
    {"plus", post("Content-Length: +1\r\n", "b"), "", closing("400 Bad Request"), false},
    {"minus", post("Content-Length: -1\r\n", "b"), "", closing("400 Bad Request"), false},
    {"huge", post("Content-Length: 18446744073709551617\r\n", "b"), "",
     closing("413 Content Too Large"), false},
    {"beyond an int", post("Content-Length: 4294967297\r\n", "b"), "",
     closing("413 Content Too Large"), false},
    {"longer than allowed", post("Content-Length: 1001\r\n", "b"), "",
     closing("413 Content Too Large"), false},
    {"chunked", post("Transfer-Encoding: chunked\r\n", "0\r\n\r\n"), "",
     closing("411 Length Required"), false},
    {"chunked and length", post("Content-Length: 4\r\ntransfer-encoding: chunked\r\n", "0\r\n\r\n"),
     "", closing("411 Length Required"), false},
    {"folded", post("Content-Length: 4\r\nX: a\r\n b: c\r\n", "body"), "",
     closing("400 Bad Request"), false},
    {"bare line feed", post("X: a\nContent-Length: 32\r\n", smuggled), "",
     closing("400 Bad Request"), false},
    {"blank before the colon", post("Content-Length : 32\r\n", smuggled), "",
     closing("400 Bad Request"), false},
    {"no host", "GET /PORT HTTP/1.1\r\n\r\n", "", closing("400 Bad Request"), false},
    {"absolute target", "GET http://a/PORT HTTP/1.1\r\nHost: a\r\n\r\n", "",
     "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n", true},
    {"absolute target with a body",
     "POST http://a/ HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\n\r\n" + smuggled, "",
     "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n", true},
    {"asterisk", "OPTIONS * HTTP/1.1\r\nHost: a\r\n\r\n", "",
     "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n", true},
    {"continue", post("Content-Length: 4\r\nExpect: 100-continue\r\n", "body"),
     post("Content-Length: 4\r\n", "body"), "HTTP/1.1 100 Continue\r\n\r\n", true},
    {"answered instead of continue",
     "POST /answered HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\nExpect: 100-continue\r\n\r\n" +
         smuggled,
     "", none, false},
    {"refused instead of continue",
     "POST /refused HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\nExpect: 100-continue\r\n\r\n" +
         smuggled,
     "", refusal, false},
    {"lines for this connection",
     "GET /PORT HTTP/1.1\r\nHost: a\r\nconnection: x\r\nKEEP-ALIVE: 5\r\nProxy-X: 1\r\nTE: "
     "trailers\r\n"
     "Upgrade: h2c\r\nTEA: 1\r\n\r\n",
     "GET /PORT HTTP/1.1\r\nHost: a\r\nTEA: 1\r\n\r\n", "", true},
    {"a line of a single byte", "GET /PORT HTTP/1.1\r\nHost: a\r\nX\r\n\r\n", "",
     closing("400 Bad Request"), false},
};

TEST_F(strict_relay, passes_on_what_is_announced_and_nothing_else) {
    for (const exchange& c : exchanges) {
        for (const std::size_t piece : {std::string::npos, std::size_t{1}, std::size_t{7}}) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            attach();
            send(c.wire, piece);
            const std::string got = at_client_at_last();
            EXPECT_EQ(got, c.at_client);
            EXPECT_EQ(at_backend(), with_port(c.at_backend));
            EXPECT_EQ(client_.closed_by_peer(), !c.open);
            EXPECT_EQ(at_backend_.closed_by_peer(), !c.open);
            client_.close();
            turn_a_few_times();
            ASSERT_EQ(front_.get().connections.count, 0);
        }
    }
}

TEST_F(strict_relay, reads_each_pipelined_request_when_the_answer_before_it_is_out) {
    attach();
    send("GET /PORT/1 HTTP/1.1\r\nHost: a\r\n\r\nPOST /answered HTTP/1.1\r\nHost: a\r\n"
         "Content-Length: 32\r\n\r\n" +
         smuggled + "GET /PORT/2 HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(at_backend(), with_port("GET /PORT/1 HTTP/1.1\r\nHost: a\r\n\r\n"));
    at_backend_.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
    EXPECT_EQ(at_client(), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
    EXPECT_EQ(at_backend(), "");
    at_backend_.send("0\r\n\r\n");
    EXPECT_EQ(at_client(), "0\r\n\r\n" + none);
    EXPECT_EQ(at_backend(), with_port("GET /PORT/2 HTTP/1.1\r\nHost: a\r\n\r\n"));
    EXPECT_TRUE(backend_.nobody_waits());
}

TEST_F(strict_relay, gives_each_backend_its_own_of_a_row_of_requests) {
    const listening_backend other;
    attach();
    send(plain_get + "GET /" + std::to_string(other.port()) + " HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(at_backend(), with_port(plain_get));
    EXPECT_TRUE(other.nobody_waits());
    at_backend_.send(first_answer + "too much");
    EXPECT_EQ(at_client(), first_answer);
    EXPECT_TRUE(client_.closed_by_peer()) << "what is behind an answer belongs to nobody";
    EXPECT_TRUE(other.nobody_waits());
}

TEST_F(strict_relay, takes_no_bytes_for_an_answer_that_came_before_the_request) {
    attach();
    at_backend_.send("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nbad");
    EXPECT_EQ(at_client(), "");
    send(plain_get);
    EXPECT_EQ(at_client(), "");
    at_backend_ = backend_.accept();
    EXPECT_EQ(at_backend(), with_port(plain_get));
    at_backend_.send(first_answer);
    EXPECT_EQ(at_client(), first_answer);
}

TEST_F(strict_relay, ends_where_a_request_is_answered_and_passed_on) {
    attach();
    send("GET /PORT/both HTTP/1.1\r\nHost: a\r\n\r\n" + plain_get);
    EXPECT_EQ(at_client(), "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
    EXPECT_TRUE(client_.closed_by_peer());
    EXPECT_EQ(at_backend(), with_port("GET /PORT/both HTTP/1.1\r\nHost: a\r\n\r\n"));
}

TEST_F(strict_relay, answers_502_for_a_backend_that_ends_without_an_answer) {
    for (const char* interim : {"", "HTTP/1.1 100 Continue\r\n\r\n"}) {
        attach();
        send(plain_get);
        EXPECT_EQ(at_backend(), with_port(plain_get));
        at_backend_.send(interim);
        at_backend_.close();
        EXPECT_EQ(at_client_at_last(), interim + closing("502 Bad Gateway"));
        EXPECT_TRUE(client_.closed_by_peer());
    }
}

TEST_F(strict_relay, answers_502_for_a_port_where_nobody_listens) {
    const held_port nobody;
    connect();
    send("GET /" + std::to_string(nobody.number()) + " HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(at_client_at_last(), closing("502 Bad Gateway"));
}

TEST_F(strict_relay, closes_behind_a_part_of_an_answer) {
    attach();
    send(plain_get);
    at_backend();
    at_backend_.send("HTTP/1.1 200 OK\r\nContent-Le");
    at_backend_.close();
    EXPECT_EQ(at_client(), "HTTP/1.1 200 OK\r\nContent-Le");
    EXPECT_TRUE(client_.closed_by_peer());
}

TEST_F(strict_relay, keeps_nothing_of_a_body_whose_backend_has_gone) {
    attach();
    send(post("Content-Length: 900\r\n", "first"));
    EXPECT_EQ(at_backend(), with_port(post("Content-Length: 900\r\n", "first")));
    at_backend_.send("HTTP/1.1 413 Content Too Large\r\nContent-Length: 1\r\n"
                     "Connection: close\r\n\r\nx");
    at_backend_.close();
    turn_a_few_times();
    const http_proxy& conn = front_.newest();
    send("second");
    EXPECT_TRUE(conn.pipe->to_backend.empty());
    EXPECT_TRUE(at_client_at_last().ends_with("\r\n\r\nx"));
}

TEST_F(strict_relay, lets_a_body_finish_whose_answer_came_early) {
    attach();
    send(post("Content-Length: 6\r\n", "abc"));
    at_backend();
    at_backend_.send(first_answer);
    EXPECT_EQ(at_client(), first_answer);
    send("def" + plain_get);
    EXPECT_EQ(at_backend(), "def" + with_port(plain_get));
}

TEST_F(strict_relay, refuses_in_a_body_without_mixing_two_answers) {
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    for (const std::size_t begun : {std::size_t{0}, std::size_t{9}, answer.size() - 1}) {
        SCOPED_TRACE(begun);
        attach();
        send("POST /PORT/late HTTP/1.1\r\nHost: a\r\nContent-Length: 6\r\n\r\nabc");
        at_backend_.send(answer.substr(0, begun));
        EXPECT_EQ(at_client(), answer.substr(0, begun));
        send("def" + plain_get);
        EXPECT_EQ(at_client_at_last(), begun == 0 ? refusal : "");
        EXPECT_TRUE(client_.closed_by_peer());
    }
}

TEST_F(strict_relay, refuses_with_its_own_answer_where_the_backends_has_not_been_passed_on) {
    attach();
    send("POST /PORT/late HTTP/1.1\r\nHost: a\r\nContent-Length: 6\r\n\r\nabc");
    auto& conn = *static_cast<strict_gateway*>(front_.get().connections.head->next->value);
    conn.pipe->to_client += "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    std::string rest = "def";
    conn.on_recv(rest.data(), 3);
    EXPECT_EQ(at_client_at_last(), refusal);
}

TEST_F(strict_relay, refuses_a_body_whose_length_no_int_holds_whatever_is_allowed) {
    class uploads : public http_proxy {
    public:
        uploads() { relay_strictly(std::numeric_limits<int>::max()); }
        void on_headers() override { answer(200, "", ""); }
    };
    running_server<uploads> front;
    far_end client = front.connect();
    client.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4294967297\r\n\r\n");
    EXPECT_EQ(front.receive(client, 38), "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    EXPECT_FALSE(front.newest().keep_alive) << "or a second request is read out of the body";
}

TEST_F(strict_relay, closes_the_backend_of_a_client_that_leaves_in_its_body) {
    attach();
    send(post("Content-Length: 6\r\n", "abc"));
    client_.close();
    EXPECT_EQ(at_backend(), with_port(post("Content-Length: 6\r\n", "abc")));
    EXPECT_TRUE(at_backend_.closed_by_peer());
}

TEST_F(strict_relay, closes_an_idle_client_whose_backend_leaves) {
    attach();
    at_backend_.close();
    EXPECT_EQ(at_client(), "");
    EXPECT_TRUE(client_.closed_by_peer());
}

TEST_F(strict_relay, honours_a_close_of_either_side) {
    attach();
    send("GET /PORT HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
    at_backend();
    at_backend_.send(first_answer);
    EXPECT_EQ(at_client(), first_answer);
    EXPECT_TRUE(client_.closed_by_peer());

    for (const std::string answer : {"HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n",
                                     "HTTP/1.1 204 No\r\nConnection: close\r\n\r\n"}) {
        attach();
        send(plain_get + plain_get);
        at_backend();
        at_backend_.send(answer);
        EXPECT_EQ(at_client(), answer);
        EXPECT_TRUE(client_.closed_by_peer()) << "the backend would not read another request";
    }
}

TEST_F(strict_relay, passes_on_an_answer_without_a_length_until_its_backend_closes) {
    attach();
    send(plain_get + plain_get);
    EXPECT_EQ(at_backend(), with_port(plain_get));
    at_backend_.send("HTTP/1.1 200 OK\r\n\r\n" + first_answer);
    EXPECT_EQ(at_client(), "HTTP/1.1 200 OK\r\n\r\n" + first_answer);
    EXPECT_EQ(at_backend(), "");
    at_backend_.close();
    EXPECT_EQ(at_client(), "");
    EXPECT_TRUE(client_.closed_by_peer());
}

TEST_F(strict_relay, allows_another_length_from_a_request_on) {
    class uploads : public http_proxy {
    public:
        uploads() { relay_strictly(1); }
        void on_headers() override {
            relay_strictly(path == "/upload" ? 10 : 1);
            answer(200, "", "");
        }
    };
    running_server<uploads> front;
    far_end client = front.connect();
    client.send("POST /upload HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\n0123456789"
                "POST /other HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\n\r\n01");
    const std::string got = front.receive(client, 80);
    EXPECT_EQ(got, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"
                   "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
}

// The library's forward proxy, read strictly.
class strict_forward_proxy : public http_proxy {
public:
    strict_forward_proxy() { relay_strictly(); }
    bool should_block(const std::string& host) override { return host == "blocked.example"; }
};
using strict_forward = gateway_test<strict_forward_proxy>;

TEST_F(strict_forward, serves_absolute_targets_and_tunnels) {
    connect();
    send("POST http://blocked.example/ HTTP/1.1\r\nHost: a\r\nContent-Length: 32\r\n\r\n" +
         smuggled);
    EXPECT_EQ(at_client(), not_found);
    send("GET http://127.0.0.1:PORT/a HTTP/1.1\r\nHost: a\r\nupgrade: x\r\n\r\n");
    turn_a_few_times();
    at_backend_ = backend_.accept();
    EXPECT_EQ(at_backend(), "GET /a HTTP/1.1\r\nHost: a\r\n\r\n");
    at_backend_.send(first_answer);
    EXPECT_EQ(at_client(), first_answer);

    connect();
    send("CONNECT 127.0.0.1:PORT HTTP/1.1\r\nHost: a\r\n\r\nearly" + smuggled);
    EXPECT_EQ(at_client(), "HTTP/1.1 200 OK\r\n\r\n");
    at_backend_ = backend_.accept();
    EXPECT_EQ(at_backend(), "early" + smuggled);
    at_backend_.send("down");
    EXPECT_EQ(at_client(), "down");
    send("up");
    EXPECT_EQ(at_backend(), "up");
}

} // namespace
