#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <functional>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr int largest_body = 20;

// Answers with its target and its body, and notes what its hooks were called with.
class strict_connection : public recording_connection {
public:
    strict_connection() { read_strictly(largest_body); }
    void on_headers() override {
        recording_connection::on_headers();
        if (early) early(*this);
    }
    void on_request() override {
        calls += "request ";
        ++requests;
        if (!silent && !written) answer(200, "", url + " " + data);
    }

    // What on_headers() does besides.
    std::function<void(strict_connection&)> early;
    // on_request() leaves the answer to the test.
    bool silent = false;
};

std::unique_ptr<strict_connection> connection() {
    return std::make_unique_for_overwrite<strict_connection>();
}

std::string answer_with(const std::string& body, const std::string& lines = "") {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + lines +
           "\r\n" + body;
}

std::string refusal(const std::string& status) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

std::string get(const std::string& target, const std::string& lines = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: a\r\n" + lines + "\r\n";
}

std::string post(const std::string& target, const std::string& body) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}

const std::string expects = "POST /e HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\n"
                            "Expect: 100-continue\r\n\r\n";

struct conversation {
    const char* name;
    std::string wire;
    std::string sent;
    int requests;
    bool open;
};

const conversation conversations[] = {
    {"one", get("/1"), answer_with("/1 "), 1, true},
    {"body", post("/1", "body"), answer_with("/1 body"), 1, true},
    {"two", get("/1") + get("/2"), answer_with("/1 ") + answer_with("/2 "), 2, true},
    {"bodies", post("/1", "one") + post("/2", "") + post("/3", "three") + get("/4"),
     answer_with("/1 one") + answer_with("/2 ") + answer_with("/3 three") + answer_with("/4 "), 4,
     true},
    {"request in a body", post("/1", "GET / HTTP/1.1\r\n\r\n"),
     answer_with("/1 GET / HTTP/1.1\r\n\r\n"), 1, true},
    {"line ends in between", "\r\n" + get("/1") + "\r\n\n" + get("/2"),
     answer_with("/1 ") + answer_with("/2 "), 2, true},
    {"part of the next", get("/1") + "GET /2 HT", answer_with("/1 "), 1, true},
    {"body not complete", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n\r\nab", "", 0, true},
    {"close", get("/1", "Connection: close\r\n"), answer_with("/1 ", "Connection: close\r\n"), 1,
     false},
    {"close and more", get("/1", "Connection: close\r\n") + get("/2"),
     answer_with("/1 ", "Connection: close\r\n"), 1, false},
    {"old", "GET /1 HTTP/1.0\r\n\r\n", answer_with("/1 ", "Connection: close\r\n"), 1, false},
    {"old and kept", "GET /1 HTTP/1.0\r\nconnection: keep-alive\r\n\r\n" + get("/2"),
     answer_with("/1 ", "Connection: keep-alive\r\n") + answer_with("/2 "), 2, true},
    {"other length", "POST /1 HTTP/1.1\r\nHost: a\r\nContent-Length-X: 9\r\n\r\n" + get("/2"),
     answer_with("/1 ") + answer_with("/2 "), 2, true},
    {"continue", expects + "ab", "HTTP/1.1 100 Continue\r\n\r\n" + answer_with("/e ab"), 1, true},
    {"malformed", "GET /1 HTTP/1.1\r\n\r\n", refusal("400 Bad Request"), 0, false},
    {"malformed behind a good one", get("/1") + "nonsense\r\n\r\n" + get("/2"),
     answer_with("/1 ") + refusal("400 Bad Request"), 1, false},
    {"chunked", "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     refusal("411 Length Required"), 0, false},
    {"smuggled",
     "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n" +
         get("/admin"),
     refusal("411 Length Required"), 0, false},
    {"longest body", post("/1", std::string(largest_body, 'b')),
     answer_with("/1 " + std::string(largest_body, 'b')), 1, true},
    {"too long", post("/1", std::string(largest_body + 1, 'b')) + get("/2"),
     refusal("413 Content Too Large"), 0, false},
    {"too long for an int", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4294967297\r\n\r\nb",
     refusal("413 Content Too Large"), 0, false},
    {"version", "GET / HTTP/2.0\r\nHost: a\r\n\r\n", refusal("505 HTTP Version Not Supported"), 0,
     false},
    {"longest head", get("/" + std::string(65536 - 27, 'p')),
     answer_with("/" + std::string(65536 - 27, 'p') + " "), 1, true},
    {"head too long", "GET /" + std::string(70000, 'p'),
     refusal("431 Request Header Fields Too Large"), 0, false},
    {"refused handshake", get("/", "Upgrade: websocket\r\n") + get("/2"),
     "HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n\r\n" +
         answer_with("/2 "),
     1, true},
};

// The end of a refusal is put off for the client's sake: make it come now.
void be_silent_for_long(::connection& conn) {
    conn.last_active -= 5;
}

void expect_outcome(strict_connection& conn, const conversation& c) {
    std::string sent = drain(conn).bytes();
    be_silent_for_long(conn);
    const drained end = drain(conn);
    EXPECT_EQ(sent + end.bytes(), c.sent);
    EXPECT_EQ(conn.requests, c.requests);
    EXPECT_EQ(end.open, c.open);
}

TEST(strict_reader, answers_every_request_once_and_in_order) {
    for (const conversation& c : conversations) {
        SCOPED_TRACE(c.name);
        const auto conn = connection();
        feed(*conn, c.wire);
        expect_outcome(*conn, c);
    }
}

TEST(strict_reader, answers_alike_for_every_piece_size) {
    for (const conversation& c : conversations) {
        if (c.wire.size() > 1000) continue;
        for (std::size_t piece = 1; piece < c.wire.size(); ++piece) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            const auto conn = connection();
            feed(*conn, c.wire, piece);
            expect_outcome(*conn, c);
        }
    }
}

TEST(strict_reader, answers_alike_where_each_answer_is_fetched_at_once) {
    for (const conversation& c : conversations) {
        if (c.wire.size() > 1000) continue;
        SCOPED_TRACE(c.name);
        const auto conn = connection();
        std::string sent;
        for (const char& byte : c.wire) {
            feed(*conn, std::string_view(&byte, 1));
            sent += drain(*conn).bytes();
        }
        EXPECT_EQ(sent, c.sent);
        EXPECT_EQ(conn->requests, c.requests);
    }
}

TEST(strict_reader, gives_the_hooks_the_body_and_no_more) {
    const auto conn = connection();
    feed(*conn, post("/1", "one") + get("/2") + post("/3", "3"));
    EXPECT_EQ(conn->calls, "headers data request ") << "the second one waits for the first answer";
    drain(*conn);
    EXPECT_EQ(conn->calls, "headers data request headers request headers data request ");
    EXPECT_EQ(conn->body_seen, "one3");
}

TEST(strict_reader, reads_the_next_request_when_the_first_has_its_late_answer) {
    const auto conn = connection();
    conn->silent = true;
    feed(*conn, "HEAD /1 HTTP/1.1\r\nHost: a\r\n\r\n" + get("/2"));
    EXPECT_EQ(drain(*conn).bytes(), "");
    EXPECT_EQ(conn->requests, 1);
    EXPECT_EQ(conn->method, "HEAD");
    conn->silent = false;
    conn->answer(200, "", "abc");
    EXPECT_EQ(drain(*conn).bytes(),
              "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n" + answer_with("/2 "));
}

TEST(strict_reader, keeps_the_part_of_a_head_behind_requests_that_waited) {
    const auto conn = connection();
    conn->silent = true;
    feed(*conn, get("/1") + get("/2") + "GET /3 HT");
    for (int i = 1; i <= 2; ++i) {
        ASSERT_EQ(conn->requests, i);
        conn->answer(200, "", conn->url);
        drain(*conn);
    }
    conn->silent = false;
    feed(*conn, "TP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(drain(*conn).bytes(), answer_with("/3 "));
}

TEST(strict_reader, measures_a_head_over_all_its_pieces) {
    // 64 KiB, and the two line ends behind them.
    const std::string path(65536 + 4 - get("/").size(), 'p');
    for (const std::size_t piece : {70000U, 40000U, 65536U}) {
        SCOPED_TRACE(testing::Message() << "pieces of " << piece);
        const auto longest = connection();
        feed(*longest, get("/" + path), piece);
        EXPECT_EQ(longest->requests, 1);
        const auto too_long = connection();
        feed(*too_long, get("/" + path + "p"), piece);
        EXPECT_EQ(drain(*too_long).bytes(), refusal("431 Request Header Fields Too Large"));
    }
}

TEST(strict_reader, calls_no_hook_for_what_it_refuses) {
    for (const char* line : {"Transfer-Encoding: chunked\r\n", "Content-Length: x\r\n"}) {
        const auto conn = connection();
        feed(*conn, get("/", line));
        EXPECT_EQ(conn->calls, "");
    }
    const auto conn = connection();
    feed(*conn, post("/", std::string(largest_body + 1, 'b')));
    EXPECT_EQ(conn->calls, "headers ") << "which may allow more";
}

TEST(strict_reader, lets_on_headers_allow_a_longer_body) {
    const auto conn = connection();
    conn->early = [](strict_connection& c) { c.read_strictly(c.path == "/long" ? 30 : 10); };
    feed(*conn, post("/long", std::string(30, 'b')) + post("/short", std::string(11, 'b')));
    EXPECT_EQ(drain(*conn).bytes(),
              answer_with("/long " + std::string(30, 'b')) + refusal("413 Content Too Large"));
}

TEST(strict_reader, drops_a_long_body_behind_a_refused_handshake) {
    const auto conn = connection();
    feed(*conn, get("/", "Upgrade: websocket\r\nContent-Length: 21\r\n") + std::string(20, 'b'));
    const drained sent = drain(*conn);
    EXPECT_EQ(sent.bytes().substr(0, 12), "HTTP/1.1 400");
    EXPECT_TRUE(sent.open);
    feed(*conn, "b");
    EXPECT_FALSE(drain(*conn).open);
    EXPECT_EQ(conn->calls, "");
}

TEST(strict_reader, asks_for_the_body_that_waits) {
    const auto conn = connection();
    feed(*conn, expects);
    EXPECT_EQ(drain(*conn).bytes(), "HTTP/1.1 100 Continue\r\n\r\n");
    feed(*conn, "ab");
    EXPECT_EQ(drain(*conn).bytes(), answer_with("/e ab"));
}

TEST(strict_reader, ends_where_nobody_can_tell_whether_the_body_comes) {
    const auto conn = connection();
    conn->early = [](strict_connection& c) { c.answer(401, "", ""); };
    feed(*conn, expects);
    const drained sent = drain(*conn);
    EXPECT_EQ(sent.bytes(), "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    EXPECT_FALSE(sent.open);
    EXPECT_EQ(conn->calls, "headers request ");
}

TEST(strict_reader, reads_the_body_of_a_request_that_has_its_answer) {
    const auto conn = connection();
    conn->early = [](strict_connection& c) {
        if (c.url == "/1") c.answer(401, "", "");
    };
    feed(*conn, post("/1", "body") + get("/2"));
    EXPECT_EQ(drain(*conn).bytes(),
              "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n" + answer_with("/2 "));
    EXPECT_EQ(conn->requests, 2);
}

TEST(strict_reader, keeps_no_endless_row_of_requests) {
    const auto conn = connection();
    std::string row;
    while (row.size() < 1048576) row += get("/");
    feed(*conn, row);
    feed(*conn, row);
    const drained sent = drain(*conn);
    EXPECT_EQ(sent.bytes(), answer_with("/ "));
    EXPECT_FALSE(sent.open);
}

TEST(strict_reader, answers_a_long_row_of_requests) {
    const auto conn = connection();
    std::string row;
    std::string expected;
    while (row.size() < 900000) {
        row += get("/");
        expected += answer_with("/ ");
    }
    for (int i = 0; i < 4; ++i) {
        feed(*conn, row);
        ASSERT_EQ(drain(*conn).bytes(), expected);
    }
}

TEST(strict_reader, reads_no_request_while_an_answer_waits) {
    const auto conn = connection();
    feed(*conn, get("/1") + get("/2"));
    EXPECT_EQ(send_once(*conn).bytes, answer_with("/1 "));
    EXPECT_EQ(conn->requests, 1);
    EXPECT_EQ(send_once(*conn).bytes, answer_with("/2 "));
}

TEST(strict_reader, forgets_what_it_has_read_of_a_row) {
    const auto conn = connection();
    std::string row;
    int requests = 0;
    for (; row.size() < 900000; ++requests) row += get("/");
    feed(*conn, row);
    while (conn->requests < requests - 1) ASSERT_TRUE(send_once(*conn).open);
    feed(*conn, row);
    EXPECT_TRUE(drain(*conn).open);
    EXPECT_EQ(conn->requests, 2 * requests);
}

TEST(strict_reader, refuses_a_body_longer_than_an_int_whatever_the_limit) {
    const auto conn = connection();
    conn->read_strictly(std::numeric_limits<int>::max());
    feed(*conn, "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 2147483648\r\n\r\n");
    EXPECT_EQ(send_once(*conn).bytes, refusal("413 Content Too Large"));
}

TEST(strict_reader, lets_the_client_of_a_refusal_finish) {
    const auto conn = connection();
    feed(*conn,
         "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1000\r\n\r\n" + std::string(500, 'b'));
    EXPECT_EQ(send_once(*conn).bytes, refusal("413 Content Too Large"));
    EXPECT_TRUE(send_once(*conn).open);
    feed(*conn, std::string(499, 'b'));
    EXPECT_TRUE(send_once(*conn).open);
    feed(*conn, "b");
    EXPECT_FALSE(send_once(*conn).open);
    EXPECT_EQ(conn->data, "");
}

TEST(strict_reader, lets_the_client_of_a_refusal_send_as_much_as_a_request_may_have) {
    const struct {
        int limit;
        std::size_t waited_for;
    } cases[] = {{0, 1000}, {-1, 1000}, {1, 1}, {300, 300}, {2000, 1000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.limit);
        const auto conn = connection();
        conn->max_request_length = c.limit;
        feed(*conn, "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1000\r\n\r\n");
        EXPECT_EQ(send_once(*conn).bytes, refusal("413 Content Too Large"));
        feed(*conn, std::string(c.waited_for - 1, 'b'));
        EXPECT_TRUE(send_once(*conn).open);
        feed(*conn, "b");
        EXPECT_FALSE(send_once(*conn).open);
    }
}

TEST(strict_reader, waits_for_the_client_of_a_refusal_no_longer_than_it_sends) {
    const auto conn = connection();
    feed(*conn, "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1000\r\n\r\n");
    EXPECT_TRUE(drain(*conn).open);
    be_silent_for_long(*conn);
    EXPECT_FALSE(drain(*conn).open);

    const auto waiting = connection();
    feed(*waiting, "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1000\r\n"
                   "Expect: 100-continue\r\n\r\n");
    EXPECT_FALSE(drain(*waiting).open) << "nothing will come";
}

TEST(strict_reader, leaves_frames_to_the_websocket) {
    const auto conn = connection();
    feed(*conn, get("/1") +
                    get("/w", "Upgrade: websocket\r\nSec-WebSocket-Key: k\r\n"
                              "Sec-WebSocket-Version: 13\r\n") +
                    std::string("\x81\x82\0\0\0\0hi", 8));
    const std::string sent = drain(*conn).bytes();
    EXPECT_NE(sent.find("101 Switching"), std::string::npos);
    EXPECT_TRUE(sent.ends_with("\x81\x02hi"));
    feed(*conn, std::string("\x81\x81\0\0\0\0x", 7));
    EXPECT_TRUE(drain(*conn).bytes().ends_with("\x81\x01x"));
    EXPECT_EQ(conn->requests, 1);
    EXPECT_TRUE(conn->upgraded);
}

TEST(strict_reader, reads_cookies_by_their_exact_name) {
    const auto conn = connection();
    feed(*conn, get("/", "Cookie2: a\r\nCookie:b=c\r\n"));
    EXPECT_EQ(conn->cookie, "b=c");
}

} // namespace
