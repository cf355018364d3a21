#include "vindra/proxy/redirect_server.h"
#include "vindra/proxy/redirector.h"

#include "tests/support/captured_output.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Sets the port for a test and puts the old one back.
class redirect_port {
public:
    explicit redirect_port(int port) : before_(redirector::ssl_port()) {
        redirector::ssl_port() = port;
    }
    redirect_port(const redirect_port&) = delete;
    redirect_port& operator=(const redirect_port&) = delete;
    ~redirect_port() { redirector::ssl_port() = before_; }

private:
    int before_;
};

// Everything that the connection hands over; `stays` tells what it answers after the last of it.
struct output {
    std::string bytes;
    bool stays = true;
};

output output_of(redirector& conn) {
    output out;
    for (int length = -1; length != 0;) {
        length = 0;
        out.stays = conn.on_send(conn.send_buffer, connection::send_buffer_size, &length);
        out.bytes.append(conn.send_buffer, static_cast<std::size_t>(length));
    }
    return out;
}

void feed(redirector& conn, std::string bytes) {
    conn.on_recv(bytes.data(), static_cast<int>(bytes.size()));
}

class quiet_redirector : public redirector {
    void on_headers() override {}
};

std::unique_ptr<redirector> new_connection() {
    return std::make_unique<quiet_redirector>();
}

struct redirect_case {
    const char* name;
    int ssl_port;
    const char* request;
    const char* location;
};

constexpr redirect_case redirect_cases[] = {
    {"a port and a query", 443, "GET /a?x=1 HTTP/1.1\r\nHost: shop.local:8080\r\n\r\n",
     "https://shop.local/a"},
    {"another HTTPS port", 8443, "GET /a HTTP/1.1\r\nHost: shop.local:8080\r\n\r\n",
     "https://shop.local:8443/a"},
    {"no port", 443, "GET / HTTP/1.1\r\nHost: shop.local\r\n\r\n", "https://shop.local/"},
    {"no host", 443, "GET /a HTTP/1.1\r\n\r\n", "https:///a"},
    {"no host, another port", 8443, "GET /a HTTP/1.1\r\n\r\n", "https://:8443/a"},
    {"an empty host before a port", 443, "GET /a HTTP/1.1\r\nHost: :80\r\n\r\n", "https:///a"},
    {"an IPv6 address is cut", 443, "GET /a HTTP/1.1\r\nHost: [::1]:80\r\n\r\n", "https://[/a"},
    {"a name in other letters", 443, "GET /a HTTP/1.1\r\nhOST: Shop.Local\r\n\r\n",
     "https://Shop.Local/a"},
    {"a path of bytes", 443, "GET /%2e/\xC3\xA4//b HTTP/1.1\r\nHost: h\r\n\r\n",
     "https://h/%2e/\xC3\xA4//b"},
    {"a target that is all query", 443, "GET ?x HTTP/1.1\r\nHost: h\r\n\r\n", "https://h?x"},
    {"two questions", 443, "GET /a?b?c HTTP/1.1\r\nHost: h\r\n\r\n", "https://h/a"},
    {"another method", 443, "DELETE /a HTTP/1.1\r\nHost: h\r\n\r\n", "https://h/a"},
    {"a body", 443, "POST /a HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nabc", "https://h/a"},
    {"a head only", 443, "HEAD /a HTTP/1.1\r\nHost: h\r\n\r\n", "https://h/a"},
};

TEST(redirector, names_the_same_host_and_path_for_every_piece_size) {
    for (const auto& c : redirect_cases) {
        const redirect_port port(c.ssl_port);
        const std::string request = c.request;
        for (std::size_t piece = 1; piece <= request.size(); ++piece) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            const auto conn = new_connection();
            for (std::size_t at = 0; at < request.size(); at += piece)
                feed(*conn, request.substr(at, piece));
            EXPECT_EQ(output_of(*conn).bytes, std::string("HTTP/1.1 301 Moved Permanently\r\n") +
                                                  "Location: " + c.location +
                                                  "\r\nConnection: close\r\n"
                                                  "Content-Length: 0\r\n\r\n");
        }
    }
}

// The port that a URL leaves out.
TEST(redirector, names_443_until_told_otherwise) {
    EXPECT_EQ(redirector::ssl_port(), 443);
}

TEST(redirector, answers_an_old_client_without_a_length) {
    const auto conn = new_connection();
    feed(*conn, "GET /a HTTP/1.0\r\nHost: h\r\n\r\n");
    EXPECT_EQ(output_of(*conn).bytes, "HTTP/1.1 301 Moved Permanently\r\nLocation: https://h/a\r\n"
                                      "Connection: close\r\n\r\n");
}

TEST(redirector, closes_after_the_answer_whatever_the_client_wants) {
    for (const char* version : {"HTTP/1.1", "HTTP/1.0"}) {
        SCOPED_TRACE(version);
        const auto conn = new_connection();
        feed(*conn,
             std::string("GET / ") + version + "\r\nHost: h\r\nConnection: Keep-Alive\r\n\r\n");
        const output out = output_of(*conn);
        EXPECT_NE(out.bytes, "");
        EXPECT_FALSE(out.stays);
        EXPECT_FALSE(conn->keep_alive);
    }
}

// Its bytes are taken for more of the first one's body, and the answer stands.
TEST(redirector, serves_no_second_request) {
    const auto conn = new_connection();
    feed(*conn, "GET / HTTP/1.1\r\nHost: h\r\n\r\n");
    ASSERT_NE(output_of(*conn).bytes, "");
    captured_output out;
    feed(*conn, "GET /second HTTP/1.1\r\nHost: h\r\n\r\n");
    EXPECT_EQ(out.take(), "Warning! Double write() detected!\n");
    EXPECT_EQ(output_of(*conn).bytes, "");
}

TEST(redirector, waits_for_the_body_before_it_answers) {
    const auto conn = new_connection();
    feed(*conn, "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nab");
    const output before = output_of(*conn);
    EXPECT_EQ(before.bytes, "");
    EXPECT_TRUE(before.stays);
    feed(*conn, "c");
    EXPECT_NE(output_of(*conn).bytes, "");
}

TEST(redirector, logs_the_request_like_any_other) {
    const auto conn = std::make_unique<redirector>();
    conn->address = 0x0100000A; // 10.0.0.1 as it lies in memory
    conn->port = 4000;
    captured_output out;
    feed(*conn, "GET /a HTTP/1.1\r\nHost: h\r\nUser-Agent: test\r\n\r\n");
    EXPECT_EQ(out.take(), "10.0.0.1:4000 GET /a HTTP/1.1 [test]\n");
}

TEST(redirector, still_answers_a_websocket_handshake_and_closes) {
    const auto conn = new_connection();
    feed(*conn, "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\n"
                "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    const output out = output_of(*conn);
    EXPECT_EQ(out.bytes.rfind("HTTP/1.1 101 Switching Protocols\r\n", 0), 0U);
    EXPECT_FALSE(out.stays);
}

TEST(redirect_server, makes_redirectors_whatever_its_class) {
    redirect_server<http_connection> server(0, true);
    const std::unique_ptr<connection> conn(server.create_connection(0));
    EXPECT_NE(dynamic_cast<redirector*>(conn.get()), nullptr);
}

} // namespace
