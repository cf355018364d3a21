#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <limits>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::StartsWith;

std::unique_ptr<recording_connection> make_connection() {
    return std::make_unique_for_overwrite<recording_connection>();
}

struct head_case {
    const char* name;
    std::string wire;
    const char* method = "";
    std::string url = {};
    const char* version = "";
    std::string path = {};
    const char* query = "";
    const char* cookie = "";
    int content_length = 0;
    bool keep_alive = true;
    std::string body = {};
    int requests = 1;
};

// Each wire is one request with exactly its body, or one that never completes.
const head_case head_cases[] = {
    {"plain", "GET /a HTTP/1.1\r\nHost: x\r\n\r\n", "GET", "/a", "HTTP/1.1", "/a"},
    {"no headers", "GET / HTTP/1.1\r\n\r\n", "GET", "/", "HTTP/1.1", "/"},
    {"query", "GET /a?b=1 HTTP/1.1\r\n\r\n", "GET", "/a?b=1", "HTTP/1.1", "/a", "b=1"},
    {"query at position 1", "GET /?x HTTP/1.1\r\n\r\n", "GET", "/?x", "HTTP/1.1", "/", "x"},
    {"leading question", "GET ?x HTTP/1.1\r\n\r\n", "GET", "?x", "HTTP/1.1", "?x"},
    {"leading question, another later", "GET ?x?y HTTP/1.1\r\n\r\n", "GET", "?x?y", "HTTP/1.1",
     "?x?y"},
    {"two questions", "GET /a?b?c HTTP/1.1\r\n\r\n", "GET", "/a?b?c", "HTTP/1.1", "/a", "b?c"},
    {"empty query", "GET /a? HTTP/1.1\r\n\r\n", "GET", "/a?", "HTTP/1.1", "/a"},
    {"cookie", "GET / HTTP/1.1\r\nCOOKIE: a=1; b\r\n\r\n", "GET", "/", "HTTP/1.1", "/", "",
     "a=1; b"},
    {"body", "POST /p HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", "POST", "/p", "HTTP/1.1", "/p",
     "", "", 5, true, "hello"},
    {"body with zero bytes", "POST /p HTTP/1.1\r\ncontent-length: 3\r\n\r\n\0a\0"s, "POST", "/p",
     "HTTP/1.1", "/p", "", "", 3, true, "\0a\0"s},
    {"body of line ends", "POST / HTTP/1.1\r\ncontent-length: 8\r\n\r\n\r\n\r\n\r\n\r\n", "POST",
     "/", "HTTP/1.1", "/", "", "", 8, true, "\r\n\r\n\r\n\r\n"},
    {"length without a blank loses a digit", "POST / HTTP/1.1\r\nContent-Length:12\r\n\r\nab",
     "POST", "/", "HTTP/1.1", "/", "", "", 2, true, "ab"},
    {"length with a longer name", "POST / HTTP/1.1\r\nContent-LengthXX: 12\r\n\r\n", "POST", "/",
     "HTTP/1.1", "/", "", "", 0},
    {"length not a number", "POST / HTTP/1.1\r\nContent-Length: five\r\n\r\n", "POST", "/",
     "HTTP/1.1", "/"},
    {"length with a tail", "POST / HTTP/1.1\r\nContent-Length: 2x\r\n\r\nok", "POST", "/",
     "HTTP/1.1", "/", "", "", 2, true, "ok"},
    {"length empty, digits in the next line", "POST / HTTP/1.1\r\nContent-Length: \r\n7: x\r\n\r\n",
     "POST", "/", "HTTP/1.1", "/"},
    {"negative length", "POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "POST", "/", "HTTP/1.1",
     "/", "", "", -1},
    {"length past int is narrowed", "POST / HTTP/1.1\r\nContent-Length: 4294967298\r\n\r\nab",
     "POST", "/", "HTTP/1.1", "/", "", "", 2, true, "ab"},
    {"length past long is narrowed",
     "POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", "POST", "/", "HTTP/1.1",
     "/", "", "", -1},
    {"the first length counts",
     "POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nx", "POST", "/", "HTTP/1.1",
     "/", "", "", 1, true, "x"},
    {"old version closes", "GET / HTTP/1.0\r\n\r\n", "GET", "/", "HTTP/1.0", "/", "", "", 0, false},
    {"old version kept", "GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", "GET", "/", "HTTP/1.0",
     "/"},
    {"old version, lower case", "GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", "GET", "/",
     "HTTP/1.0", "/", "", "", 0, false},
    {"old version, two options", "GET / HTTP/1.0\r\nConnection: Keep-Alive, TE\r\n\r\n", "GET", "/",
     "HTTP/1.0", "/", "", "", 0, false},
    {"new version asks to close", "GET / HTTP/1.1\r\nConnection: close\r\n\r\n", "GET", "/",
     "HTTP/1.1", "/"},
    {"unknown version is kept", "GET / HTTP/9\r\n\r\n", "GET", "/", "HTTP/9", "/"},
    {"version in lower case is kept", "GET / http/1.0\r\n\r\n", "GET", "/", "http/1.0", "/"},
    {"no version", "GET /\r\n\r\n", "GET", "", "GET /"},
    {"no version, blank in a header", "GET /\r\nA: b\r\n\r\n", "GET", "/\r\nA:", "b", "/\r\nA:"},
    {"one word", "GET\r\n\r\n", "", "", "GET"},
    {"leading blank", " / HTTP/1.1\r\n\r\n", "", "/", "HTTP/1.1", "/"},
    {"two blanks in a row", "GET  / HTTP/1.1\r\n\r\n", "GET", "", "/ HTTP/1.1"},
    {"blank in the version", "GET / HTTP/1.1 x\r\n\r\n", "GET", "/", "HTTP/1.1 x", "/"},
    {"one line end in front", "\r\nGET / HTTP/1.1\r\n\r\n", "\r\nGET", "/", "HTTP/1.1", "/"},
    {"line end in front of old version", "\r\nGET / HTTP/1.0\r\n\r\n", "\r\nGET", "/", "HTTP/1.0",
     "/", "", "", 0, false},
    {"zero bytes in the target", "GET /a\0b HTTP/1.1\r\n\r\n"s, "GET", "/a\0b"s, "HTTP/1.1",
     "/a\0b"s},
    {"bare newlines end nothing", "GET / HTTP/1.1\n\n", "", "", "", "", "", "", 0, true, "", 0},
    {"two line ends in front", "\r\n\r\nGET / HTTP/1.1\r\n\r\n", "", "", "", "", "", "", 0, true,
     "", 0},
    {"three line ends in front", "\r\n\r\n\r\nGET / HTTP/1.1\r\n\r\n", "", "", "", "", "", "", 0,
     true, "", 0},
    {"only blank lines", "\r\n\r\n\r\n\r\n\r\n\r\n", "", "", "", "", "", "", 0, true, "", 0},
    {"carriage returns before the blank line", "GET / HTTP/1.1\r\nA: \r\r\n\r\n", "GET", "/",
     "HTTP/1.1", "/"},
};

void expect_as_stated(const recording_connection& conn, const head_case& c) {
    EXPECT_EQ(conn.requests, c.requests);
    EXPECT_EQ(conn.method_seen, c.method);
    EXPECT_EQ(conn.url_seen, c.url);
    EXPECT_EQ(conn.version_seen, c.version);
    EXPECT_EQ(conn.path_seen, c.path);
    EXPECT_EQ(conn.query_seen, c.query);
    EXPECT_EQ(conn.cookie_seen, c.cookie);
    EXPECT_EQ(conn.keep_alive, c.keep_alive);
    EXPECT_EQ(conn.body_seen, c.body);
    EXPECT_EQ(conn.data_seen, c.body);
    if (c.requests == 0) {
        EXPECT_EQ(conn.headers, c.wire);
        return;
    }
    EXPECT_EQ(conn.content_length_seen, c.content_length);
    const std::size_t head_end = c.wire.find("\r\n\r\n") + 2;
    EXPECT_EQ(conn.headers_seen, c.wire.substr(0, head_end));
}

} // namespace

TEST(request_reader, understands_each_head_that_comes_whole) {
    for (const head_case& c : head_cases) {
        SCOPED_TRACE(c.name);
        const auto conn = make_connection();
        feed(*conn, c.wire);
        expect_as_stated(*conn, c);
    }
}

TEST(request_reader, answers_alike_for_every_piece_size) {
    for (const head_case& c : head_cases) {
        for (std::size_t piece = 1; piece <= c.wire.size(); ++piece) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            const auto conn = make_connection();
            feed(*conn, c.wire, piece);
            expect_as_stated(*conn, c);
        }
    }
}

TEST(request_reader, answers_alike_wherever_a_head_is_cut) {
    for (const head_case& c : head_cases) {
        for (std::size_t cut = 1; cut < c.wire.size(); ++cut) {
            SCOPED_TRACE(testing::Message() << c.name << ", cut at " << cut);
            const auto conn = make_connection();
            feed_cut(*conn, c.wire, cut);
            expect_as_stated(*conn, c);
        }
    }
}

TEST(request_reader, starts_as_documented) {
    const auto conn = std::make_unique<http_connection>();
    EXPECT_EQ(conn->timeout, 10);
    EXPECT_TRUE(conn->keep_alive);
    EXPECT_TRUE(conn->websockets);
    EXPECT_FALSE(conn->headers_done || conn->written || conn->upgraded);
    EXPECT_EQ(conn->max_request_length, 104857600);
    EXPECT_EQ(conn->max_message_length, 10485760);
    EXPECT_EQ(conn->max_frame_length, 1048576);
    EXPECT_EQ(conn->received + conn->body_received + conn->content_length, 0);
    EXPECT_EQ(conn->parts.count, 0);
    EXPECT_EQ(conn->subscriptions.count, 0U);
    EXPECT_EQ(conn->subscriptions.hash, base::orlix_hash);
}

TEST(request_reader, calls_the_hooks_in_order_and_once_for_a_request) {
    const auto conn = make_connection();
    feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 4\r\n\r\n");
    EXPECT_EQ(conn->calls, "headers ");
    feed(*conn, "ab");
    feed(*conn, "cd");
    EXPECT_EQ(conn->calls, "headers data data request ");
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(conn->calls, "headers data data request headers request ");
}

TEST(request_reader, waits_for_the_last_body_byte) {
    const auto conn = make_connection();
    feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n");
    feed(*conn, "four");
    EXPECT_EQ(conn->requests, 0);
    EXPECT_EQ(conn->body_received, 4);
    EXPECT_EQ(conn->received, 42);
    feed(*conn, "!");
    EXPECT_EQ(conn->requests, 1);
}

TEST(request_reader, counts_pipelined_bytes_as_body_and_drops_them) {
    const auto conn = make_connection();
    feed(*conn, "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(conn->calls, "headers data request ");
    EXPECT_EQ(conn->data_seen, "GET /2 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(conn->data, "");
    feed(*conn, "GET /3 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(conn->url_seen, "/3");
    EXPECT_EQ(conn->requests, 2);
}

TEST(request_reader, passes_a_body_that_is_too_long_on_whole) {
    const auto conn = make_connection();
    feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nabc");
    EXPECT_EQ(conn->data_seen, "abc");
    EXPECT_EQ(conn->requests, 1);
}

TEST(request_reader, calls_on_request_after_each_block_once_a_request_is_not_kept) {
    const auto conn = make_connection();
    captured_output output;
    feed(*conn, "GET / HTTP/1.0\r\n\r\n");
    feed(*conn, "x");
    feed(*conn, "y");
    EXPECT_EQ(conn->calls, "headers request data request data request ");
    EXPECT_EQ(conn->data_seen, "xy");
    EXPECT_EQ(output.take(), "Warning! Double write() detected!\n"
                             "Warning! Double write() detected!\n");
}

TEST(request_reader, serves_many_requests_on_one_connection_alike) {
    const auto conn = make_connection();
    std::string first;
    for (int i = 0; i < 50; ++i) {
        feed(*conn, "POST /a?b HTTP/1.1\r\nCookie: c\r\nContent-Length: 2\r\n\r\nxy", 7);
        const std::string answer = drain(*conn).bytes();
        if (i == 0) first = answer;
        ASSERT_EQ(answer, first);
        ASSERT_EQ(conn->requests, i + 1);
    }
    EXPECT_THAT(first, EndsWith("2 bytes of content"));
}

TEST(request_reader, reset_forgets_the_request_and_keeps_the_connection) {
    const auto conn = make_connection();
    conn->max_request_length = 7;
    conn->headers_done = conn->written = conn->upgraded = true;
    conn->keep_alive = conn->websockets = false;
    conn->content_length = conn->body_received = conn->received = 3;
    conn->timeout = 77;
    std::string http_connection::*const texts[] = {
        &http_connection::data,   &http_connection::headers,       &http_connection::message,
        &http_connection::cookie, &http_connection::extra_headers, &http_connection::query,
        &http_connection::path,   &http_connection::version,       &http_connection::url,
        &http_connection::method};
    for (const auto text : texts) (*conn).*text = "left over";
    conn->send_message("queued", 1);

    conn->reset();
    for (const auto text : texts) EXPECT_EQ((*conn).*text, "");
    EXPECT_EQ(conn->max_request_length, 104857600);
    EXPECT_FALSE(conn->headers_done || conn->written);
    EXPECT_EQ(conn->content_length + conn->body_received + conn->received, 0);
    EXPECT_FALSE(conn->keep_alive || conn->websockets);
    EXPECT_TRUE(conn->upgraded);
    EXPECT_EQ(conn->timeout, 77);
    EXPECT_EQ(conn->parts.count, 1);
}

TEST(request_reader, reset_gives_the_storage_of_large_strings_back) {
    const auto conn = make_connection();
    conn->data.assign(1000000, 'x');
    conn->url.assign(100, 'x');
    conn->reset();
    EXPECT_LT(conn->data.capacity(), 100U);
    EXPECT_GE(conn->url.capacity(), 100U);
}

TEST(request_reader, takes_one_block_past_the_limit_and_drops_the_rest_with_a_warning_each) {
    const auto conn = make_connection();
    conn->max_request_length = 50;
    captured_output output;
    feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 90\r\n\r\n");
    feed(*conn, std::string(30, 'a'));
    EXPECT_EQ(conn->body_received, 30) << "the block that crosses the limit is taken";
    feed(*conn, "dropped");
    feed(*conn, "dropped");
    EXPECT_EQ(conn->body_received, 30);
    EXPECT_EQ(conn->received, 69);
    EXPECT_EQ(conn->calls, "headers data ");
    EXPECT_TRUE(conn->keep_alive);
    EXPECT_EQ(conn->timeout, 10);
    EXPECT_EQ(output.take(), "Warning! Request exceeds max length of 50.\n"
                             "Warning! Request exceeds max length of 50.\n");
}

TEST(request_reader, takes_the_block_after_one_that_meets_the_limit_exactly) {
    const auto conn = make_connection();
    conn->max_request_length = 10;
    captured_output output;
    feed(*conn, "GET / HTTP");
    feed(*conn, "/1.1\r\n\r\n");
    EXPECT_EQ(conn->requests, 1);
    EXPECT_EQ(output.take(), "");
}

TEST(request_reader, takes_the_least_number_above_zero_for_the_tightest_limit) {
    for (const int limit : {1, 0, -1}) {
        SCOPED_TRACE(limit);
        const auto conn = make_connection();
        conn->max_request_length = limit;
        captured_output output;
        feed(*conn, "GE");
        feed(*conn, "T / HTTP/1.1\r\n\r\n");
        EXPECT_EQ(conn->requests, limit == 1 ? 0 : 1);
        EXPECT_EQ(output.take(), limit == 1 ? "Warning! Request exceeds max length of 1.\n" : "");
    }
}

TEST(request_reader, limits_a_head_that_never_ends) {
    const auto conn = make_connection();
    conn->max_request_length = 10;
    captured_output output;
    for (int i = 0; i < 5; ++i) feed(*conn, "12345678");
    EXPECT_EQ(conn->headers, "1234567812345678");
    EXPECT_EQ(conn->requests, 0);
}

TEST(request_reader, has_no_limit_at_zero_or_below) {
    for (const int limit : {0, -1}) {
        const auto conn = make_connection();
        conn->max_request_length = limit;
        captured_output output;
        feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\n");
        for (int i = 0; i < 9; ++i) feed(*conn, "x");
        EXPECT_EQ(conn->requests, 1);
        EXPECT_EQ(output.take(), "");
    }
}

TEST(request_reader, counters_wrap_around) {
    const auto conn = make_connection();
    conn->max_request_length = 0;
    feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 2147483647\r\n\r\n");
    constexpr int most = std::numeric_limits<int>::max();
    conn->received = conn->body_received = most - 1;
    feed(*conn, "abcd");
    EXPECT_EQ(conn->received, std::numeric_limits<int>::min() + 2);
    EXPECT_EQ(conn->body_received, std::numeric_limits<int>::min() + 2);
    EXPECT_EQ(conn->requests, 0);
}

TEST(request_reader, ignores_an_empty_block) {
    const auto conn = make_connection();
    feed(*conn, "");
    feed(*conn, "GET / HTTP/1.1\r\n\r");
    feed(*conn, "");
    feed(*conn, "\n");
    EXPECT_EQ(conn->requests, 1);
}

TEST(request_reader, finds_the_end_of_a_long_head_in_linear_time) {
    // A search from the start on every block would look at 10^12 bytes here.
    const auto conn = make_connection();
    feed(*conn, "GET / HTTP/1.1\r\nX: " + std::string(1000000, 'x'));
    for (int i = 0; i < 1000000; ++i) {
        char c = 'y';
        conn->on_recv(&c, 1);
    }
    feed(*conn, "\r\n\r\n");
    EXPECT_EQ(conn->requests, 1);
    EXPECT_EQ(conn->headers_seen.size(), 2000021U);
}

TEST(request_reader, keeps_a_blank_line_in_front_hopeless_whatever_follows) {
    const auto conn = make_connection();
    feed(*conn, "\r\n\r\n");
    for (int i = 0; i < 3; ++i) feed(*conn, "GET / HTTP/1.1\r\nHost: x\r\n\r\n", 5);
    EXPECT_EQ(conn->calls, "");
    EXPECT_FALSE(conn->headers_done);
}

TEST(request_reader, answers_by_default_with_the_head_and_the_size_of_the_body) {
    const auto conn = std::make_unique<http_connection>();
    captured_output output;
    feed(*conn, "POST /x HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc");
    EXPECT_EQ(drain(*conn).bytes(), "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n"
                                    "Content-Length: 57\r\n\r\n"
                                    "POST /x HTTP/1.1\r\nContent-Length: 3\r\n\r\n"
                                    "3 bytes of content");
    feed(*conn, "GET /y HTTP/1.1\r\n\r\n");
    EXPECT_THAT(drain(*conn).bytes(),
                EndsWith("\r\n\r\nGET /y HTTP/1.1\r\n\r\n0 bytes of content"));
}

TEST(request_reader, logs_one_line_a_request_by_default) {
    const auto conn = std::make_unique<http_connection>();
    conn->port = 40000;
    captured_output output;
    feed(*conn, "GET /x HTTP/1.1\r\nUser-Agent: curl/7.0\r\n\r\n", 3);
    EXPECT_EQ(output.take(), "0.0.0.0:40000 GET /x HTTP/1.1 [curl/7.0]\n");
}

TEST(request_reader, lets_the_head_hook_stop_keeping_the_connection) {
    class closing_connection : public recording_connection {
    public:
        void on_headers() override { keep_alive = false; }
    };
    const auto conn = std::make_unique_for_overwrite<closing_connection>();
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(conn->headers_done) << "no reset without keep_alive";
    const drained sent = drain(*conn);
    EXPECT_FALSE(sent.open);
    EXPECT_THAT(sent.bytes(), StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n"));
}

namespace {

// What a hook finds in the counters.
class counting_connection : public http_connection {
public:
    void on_headers() override { seen.push_back("headers " + counters()); }
    void on_data(char* bytes, int length) override {
        seen.push_back("data " + counters());
        http_connection::on_data(bytes, length);
    }
    void on_request() override { seen.push_back("request " + counters()); }

    std::vector<std::string> seen;

private:
    std::string counters() const {
        return std::to_string(body_received) + " of " + std::to_string(content_length) + ", " +
               std::to_string(received) + " in all";
    }
};

} // namespace

TEST(request_reader, counts_a_body_before_the_hooks_that_see_it) {
    const auto conn = std::make_unique_for_overwrite<counting_connection>();
    const std::string head = "POST / HTTP/1.1\r\nContent-Length: 6\r\n\r\n";
    ASSERT_EQ(head.size(), 38U);
    feed(*conn, head + "ab");
    feed(*conn, "cd");
    feed(*conn, "ef");
    EXPECT_EQ(conn->seen,
              (std::vector<std::string>{"headers 2 of 6, 40 in all", "data 2 of 6, 40 in all",
                                        "data 4 of 6, 42 in all", "data 6 of 6, 44 in all",
                                        "request 6 of 6, 44 in all"}));
}

TEST(request_reader, default_answer_counts_the_body_that_came_and_not_the_one_announced) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, "POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nabc");
    EXPECT_THAT(drain(*conn).bytes(), EndsWith("\r\n3 bytes of content"));
}

TEST(request_reader, keeps_what_a_hook_has_set_where_the_head_does_not_say) {
    // A head before its blank line, with the fields as a class of its own may have set them.
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    conn->method = "M";
    conn->url = "U";
    conn->version = "V";
    conn->query = "Q";
    feed(*conn, "one-word\r\n\r\n");
    EXPECT_EQ(conn->method_seen, "M");
    EXPECT_EQ(conn->url_seen, "U");
    EXPECT_EQ(conn->version_seen, "one-word");
    EXPECT_EQ(conn->path_seen, "U");
    EXPECT_EQ(conn->query_seen, "Q");
}

TEST(request_reader, reset_leaves_the_channels_and_the_queue_alone) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    conn->upgraded = true;
    conn->subscribe("c");
    conn->send_message("queued", 1);
    conn->timeout = 42;
    conn->reset();
    EXPECT_EQ(conn->subscriptions.get("c"), 1);
    ASSERT_NE(http_connection::channels().get("c"), nullptr);
    EXPECT_EQ(http_connection::channels().get("c")->items[0], conn.get());
    EXPECT_EQ(conn->parts.count, 1);
    EXPECT_EQ(conn->timeout, 42);
    EXPECT_TRUE(conn->upgraded);
}
