#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

std::string info_of(const char* peer, int port, const std::string& head, bool with_agent) {
    class info_connection : public recording_connection {
    public:
        explicit info_connection(bool agent) : with_agent_(agent) {}
        void on_headers() override { line = info(with_agent_); }
        std::string line;

    private:
        bool with_agent_;
    };
    const auto conn = std::make_unique<info_connection>(with_agent);
    conn->address = inet_addr(peer);
    conn->port = port;
    feed(*conn, head + "\r\n");
    return conn->line;
}

} // namespace

TEST(info, sums_a_request_up) {
    const std::string head = "GET /x HTTP/1.1\r\n";
    EXPECT_EQ(info_of("192.168.1.20", 40000, head, false), "192.168.1.20:40000 GET /x HTTP/1.1");
    EXPECT_EQ(info_of("192.168.1.20", 40000, head, true), "192.168.1.20:40000 GET /x HTTP/1.1 []");
    EXPECT_EQ(
        info_of("10.0.0.7", 40000, "GET /index.html HTTP/1.1\r\nUser-Agent: curl/7.0\r\n", true),
        "10.0.0.7:40000 GET /index.html HTTP/1.1 [curl/7.0]");
}

TEST(info, holds_the_longest_address_and_the_whole_target) {
    EXPECT_EQ(info_of("255.255.255.255", 65535, "GET /a?b=c HTTP/1.1\r\n", false),
              "255.255.255.255:65535 GET /a?b=c HTTP/1.1");
}

TEST(info, believes_a_front_end_on_this_machine) {
    EXPECT_EQ(
        info_of("127.0.0.1", 1, "GET / HTTP/1.1\r\nX-FORWARDED-FOR: 1.2.3.4, 5.6.7.8\r\n", false),
        "1.2.3.4, 5.6.7.8:1 GET / HTTP/1.1");
    EXPECT_EQ(info_of("127.0.0.1", 1, "GET / HTTP/1.1\r\n", false), "127.0.0.1:1 GET / HTTP/1.1");
    EXPECT_EQ(info_of("127.0.0.1", 1, "GET / HTTP/1.1\r\nX-Forwarded-For: \r\n", false),
              "127.0.0.1:1 GET / HTTP/1.1");
}

TEST(info, believes_nobody_else) {
    for (const char* peer : {"127.0.0.2", "1.0.0.127", "10.0.0.1"}) {
        EXPECT_EQ(info_of(peer, 1, "GET / HTTP/1.1\r\nX-Forwarded-For: 1.2.3.4\r\n", false),
                  std::string(peer) + ":1 GET / HTTP/1.1");
    }
}

TEST(info, keeps_its_blanks_where_parts_are_missing) {
    const auto conn = std::make_unique<http_connection>();
    EXPECT_EQ(conn->info(true), "0.0.0.0:0    []");
}
