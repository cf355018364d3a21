#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

class answering_connection : public http_connection {
public:
    void on_headers() override {}
    void on_request() override { act(*this); }
    std::function<void(answering_connection&)> act;
};

// What `act` in on_request() has a connection send for `wire`, and whether it stays open.
struct outcome {
    std::string bytes;
    bool open;
};

outcome answer_to(const std::string& wire, std::function<void(answering_connection&)> act) {
    const auto conn = std::make_unique_for_overwrite<answering_connection>();
    conn->act = std::move(act);
    feed(*conn, wire);
    const drained sent = drain(*conn);
    return {sent.bytes(), sent.open};
}

const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

TEST(answer, is_whole) {
    const outcome o = answer_to(get, [](auto& conn) { conn.answer(200, "text/plain", "hello"); });
    EXPECT_EQ(o.bytes, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n"
                       "\r\nhello");
    EXPECT_TRUE(o.open);
}

TEST(answer, has_a_length_and_a_body_where_they_belong) {
    const struct {
        int status;
        const char* type;
        const char* body;
        std::string bytes;
    } cases[] = {
        {404, "", "", "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"},
        {201, "", "x", "HTTP/1.1 201 Created\r\nContent-Length: 1\r\n\r\nx"},
        {204, "", "x", "HTTP/1.1 204 No Content\r\n\r\n"},
        {304, "a/b", "x", "HTTP/1.1 304 Not Modified\r\nContent-Type: a/b\r\n\r\n"},
        {299, "", "x", "HTTP/1.1 299 \r\nContent-Length: 1\r\n\r\nx"},
    };
    for (const auto& c : cases) {
        const outcome o =
            answer_to(get, [&](auto& conn) { conn.answer(c.status, c.type, c.body); });
        EXPECT_EQ(o.bytes, c.bytes);
        EXPECT_TRUE(o.open);
    }
}

TEST(answer, names_each_status) {
    const struct {
        int status;
        const char* reason;
    } cases[] = {
        {200, "OK"},
        {201, "Created"},
        {202, "Accepted"},
        {203, "Non-Authoritative Information"},
        {204, "No Content"},
        {205, "Reset Content"},
        {206, "Partial Content"},
        {300, "Multiple Choices"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {402, "Payment Required"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {406, "Not Acceptable"},
        {407, "Proxy Authentication Required"},
        {408, "Request Timeout"},
        {409, "Conflict"},
        {410, "Gone"},
        {411, "Length Required"},
        {412, "Precondition Failed"},
        {413, "Content Too Large"},
        {414, "URI Too Long"},
        {415, "Unsupported Media Type"},
        {416, "Range Not Satisfiable"},
        {417, "Expectation Failed"},
        {421, "Misdirected Request"},
        {422, "Unprocessable Content"},
        {426, "Upgrade Required"},
        {428, "Precondition Required"},
        {429, "Too Many Requests"},
        {431, "Request Header Fields Too Large"},
        {451, "Unavailable For Legal Reasons"},
        {500, "Internal Server Error"},
        {501, "Not Implemented"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
        {505, "HTTP Version Not Supported"},
    };
    for (const auto& c : cases) {
        const outcome o = answer_to(get, [&](auto& conn) { conn.answer(c.status, "", ""); });
        EXPECT_EQ(o.bytes.substr(0, o.bytes.find('\r')),
                  "HTTP/1.1 " + std::to_string(c.status) + " " + c.reason);
    }
    const struct {
        int status;
        const char* line;
    } before[] = {
        {100, "100 Continue"}, {101, "101 Switching Protocols"}, {103, "103 Early Hints"}};
    for (const auto& c : before) {
        const outcome o = answer_to(get, [&](auto& conn) { conn.answer(c.status, "", ""); });
        EXPECT_EQ(o.bytes, std::string("HTTP/1.1 ") + c.line + "\r\n\r\n");
    }
}

TEST(answer, leaves_the_body_out_for_head) {
    const outcome o = answer_to("HEAD / HTTP/1.1\r\n\r\n",
                                [](auto& conn) { conn.answer(200, "text/plain", "hello"); });
    EXPECT_EQ(o.bytes, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n\r\n");
}

TEST(answer, says_what_becomes_of_the_connection) {
    const auto act = [](auto& conn) { conn.answer(200, "", "x"); };
    const outcome old = answer_to("GET / HTTP/1.0\r\n\r\n", act);
    EXPECT_EQ(old.bytes, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx");
    EXPECT_FALSE(old.open);

    const outcome kept = answer_to("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", act);
    EXPECT_EQ(kept.bytes,
              "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nConnection: keep-alive\r\n\r\nx");
    EXPECT_TRUE(kept.open);
}

TEST(answer, has_the_connections_own_header_lines) {
    const outcome o = answer_to(get, [](auto& conn) {
        conn.extra_headers = "A: b\r\n";
        conn.answer(204, "", "");
    });
    EXPECT_EQ(o.bytes, "HTTP/1.1 204 No Content\r\nA: b\r\n\r\n");
}

TEST(answer, may_be_of_any_size) {
    const std::string body(3 * std::size_t{1048576} + 5, 'b');
    const outcome o = answer_to(get, [&](auto& conn) { conn.answer(200, "", body); });
    EXPECT_EQ(o.bytes, "HTTP/1.1 200 OK\r\nContent-Length: 3145733\r\n\r\n" + body);
}

TEST(answer, is_given_once) {
    const std::function<void(answering_connection&)> second[] = {
        [](auto& conn) { conn.answer(500, "", ""); },
        [](auto& conn) { conn.answer(103, "", ""); },
        [](auto& conn) { conn.redirect("/"); },
        [](auto& conn) { conn.answer_not_allowed("GET"); },
        [](auto& conn) { conn.write("HTTP/1.1 500 No\r\n", ""); },
    };
    for (const auto& again : second) {
        captured_output output;
        const outcome o = answer_to(get, [&](auto& conn) {
            conn.answer(204, "", "");
            again(conn);
        });
        EXPECT_EQ(o.bytes, "HTTP/1.1 204 No Content\r\n\r\n");
        EXPECT_EQ(output.take(), "Warning! Double write() detected!\n");
    }
}

TEST(answer, below_200_is_followed_by_another) {
    const auto act = [](auto& conn) {
        conn.extra_headers = "A: b\r\n";
        conn.answer(102, "", "not sent");
        conn.answer(200, "", "x");
    };
    EXPECT_EQ(answer_to(get, act).bytes,
              "HTTP/1.1 102 \r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 1\r\nA: b\r\n\r\nx");
    EXPECT_EQ(answer_to("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", act).bytes,
              "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nConnection: keep-alive\r\nA: b\r\n\r\nx");
}

TEST(redirect, names_the_place_and_nothing_else) {
    const struct {
        const char* location;
        const char* sent;
    } cases[] = {
        {"/a?b=c&d=%20#e", "/a?b=c&d=%20#e"},
        {"https://[::1]:80/", "https://[::1]:80/"},
        {"/a b\r\nSet-Cookie: c", "/a%20b%0D%0ASet-Cookie:%20c"},
        {"/\xC3\xA9\x7F\"<>", "/%C3%A9%7F%22%3C%3E"},
    };
    for (const auto& c : cases) {
        const outcome o = answer_to(get, [&](auto& conn) { conn.redirect(c.location); });
        EXPECT_EQ(o.bytes,
                  std::string("HTTP/1.1 303 See Other\r\nContent-Length: 0\r\nLocation: ") +
                      c.sent + "\r\n\r\n");
    }
    const outcome o = answer_to(get, [](auto& conn) { conn.redirect("/", 308); });
    EXPECT_TRUE(o.bytes.starts_with("HTTP/1.1 308 Permanent Redirect\r\n"));
}

TEST(answer_not_allowed, lists_the_methods) {
    const outcome o = answer_to(get, [](auto& conn) { conn.answer_not_allowed("PUT, DELETE"); });
    EXPECT_EQ(o.bytes, "HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n"
                       "Allow: PUT, DELETE\r\n\r\n");
}

TEST(end_after_answer, ends_behind_an_answer_given_before_or_later) {
    const outcome before = answer_to(get, [](auto& conn) {
        conn.answer(200, "", "x");
        conn.end_after_answer();
    });
    EXPECT_EQ(before.bytes, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx");
    EXPECT_FALSE(before.open);

    const outcome later = answer_to(get, [](auto& conn) {
        conn.end_after_answer();
        conn.answer(200, "", "x");
    });
    EXPECT_EQ(later.bytes, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx");
    EXPECT_FALSE(later.open);
}

// Refuses what `when` names, in the hook of that name.
class refusing_connection : public recording_connection {
public:
    void on_headers() override { hook("headers"); }
    void on_data(char* bytes, int length) override {
        body_seen.append(bytes, static_cast<std::size_t>(length));
        hook("data");
    }
    void on_request() override { hook("request"); }
    void hook(const std::string& name) {
        calls += name + " ";
        if (name == when) refuse(403, "text/plain", "no\n");
    }

    std::string when;
};

const std::string forbidden = "HTTP/1.1 403 Forbidden\r\nContent-Type: text/plain\r\n"
                              "Content-Length: 3\r\nConnection: close\r\n\r\nno\n";

TEST(refuse, leaves_no_byte_behind_the_hook_to_another) {
    const std::string wire =
        "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\n\r\nbodyGET /2 HTTP/1.1\r\n"
        "Host: a\r\n\r\n";
    const struct {
        const char* when;
        const char* calls;
    } cases[] = {{"headers", "headers "},
                 {"data", "headers data "},
                 {"request", "headers data data data data request "}};
    for (const auto& c : cases) {
        for (const bool strict : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.when << (strict ? ", strictly" : ""));
            const auto conn = std::make_unique_for_overwrite<refusing_connection>();
            if (strict) conn->read_strictly();
            conn->when = c.when;
            feed(*conn, wire, 1);
            EXPECT_EQ(conn->calls, c.calls);
            EXPECT_EQ(send_once(*conn).bytes, forbidden);
            EXPECT_TRUE(send_once(*conn).open) << "the client may have more to send";
            conn->last_active -= 5;
            EXPECT_FALSE(send_once(*conn).open);
        }
    }
}

TEST(refuse, calls_no_hook_for_what_came_with_the_head) {
    const struct {
        const char* when;
        const char* wire;
        const char* calls;
    } cases[] = {
        {"headers", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\n\r\nbody", "headers "},
        {"headers", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", "headers "},
        {"data", "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\n\r\nbody", "headers data "}};
    for (const auto& c : cases) {
        for (const bool strict : {false, true}) {
            const auto conn = std::make_unique_for_overwrite<refusing_connection>();
            if (strict) conn->read_strictly();
            conn->when = c.when;
            feed(*conn, c.wire);
            EXPECT_EQ(conn->calls, c.calls);
        }
    }
}

TEST(refuse, adds_no_second_answer) {
    captured_output out;
    const auto conn = std::make_unique_for_overwrite<refusing_connection>();
    conn->read_strictly();
    feed(*conn, "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    conn->answer(200, "", "yes");
    conn->refuse(403);
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(drain(*conn).bytes(), "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nyes");
    conn->last_active -= 5;
    EXPECT_FALSE(drain(*conn).open);
}

TEST(header, is_found_by_its_exact_name) {
    std::optional<std::string> accept;
    std::optional<std::string> encoding;
    std::optional<std::string> none;
    answer_to("GET / HTTP/1.1\r\nAccept-Encoding: gzip\r\nACCEPT:  a \r\n\r\n", [&](auto& conn) {
        accept = conn.header("accept");
        encoding = conn.header("Accept-Encoding");
        none = conn.header("Accep");
    });
    EXPECT_EQ(accept, "a");
    EXPECT_EQ(encoding, "gzip");
    EXPECT_EQ(none, std::nullopt);
}

} // namespace
