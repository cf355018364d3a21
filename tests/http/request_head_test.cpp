#include "vindra/http/private/request_head.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

const std::string line = "GET / HTTP/1.1\r\n";
const std::string host = "Host: a\r\n";

TEST(request_head, refuses_what_no_request_may_be) {
    const struct {
        const char* name;
        std::string block;
        int refusal;
    } cases[] = {
        {"plain", line + host, 0},
        {"old", "GET / HTTP/1.0\r\n", 0},
        {"old with a host", "GET / HTTP/1.0\r\n" + host, 0},
        {"any method", "M-SEARCH * HTTP/1.1\r\n" + host, 0},
        {"bytes beyond ASCII in the target", "GET /\xC3\xA9 HTTP/1.1\r\n" + host, 0},
        {"empty value", line + host + "A:\r\n", 0},
        {"no host", line, 400},
        {"two hosts", line + host + host, 400},
        {"empty host", line + "Host:\r\n", 0},
        {"no version", "GET /\r\n" + host, 400},
        {"no method", " / HTTP/1.1\r\n" + host, 400},
        {"method no token", "G(T / HTTP/1.1\r\n" + host, 400},
        {"no target", "GET  HTTP/1.1\r\n" + host, 400},
        {"two blanks", "GET  / HTTP/1.1\r\n" + host, 400},
        {"blank in the target", "GET /a b HTTP/1.1\r\n" + host, 400},
        {"tab in the target", "GET /a\tb HTTP/1.1\r\n" + host, 400},
        {"DEL in the target", "GET /\x7F HTTP/1.1\r\n" + host, 400},
        {"blank behind", "GET / HTTP/1.1 \r\n" + host, 400},
        {"version 2", "GET / HTTP/2.0\r\n" + host, 505},
        {"version 1.2", "GET / HTTP/1.2\r\n" + host, 505},
        {"version in lower case", "GET / http/1.1\r\n" + host, 400},
        {"version too long", "GET / HTTP/1.11\r\n" + host, 400},
        {"version of letters", "GET / HTTP/a.b\r\n" + host, 400},
        {"no colon", line + host + "A\r\n", 400},
        {"no name", line + host + ": b\r\n", 400},
        {"blank before the colon", line + host + "A : b\r\n", 400},
        {"folded line", line + host + "A: b\r\n c\r\n", 400},
        {"line feed inside", line + host + "A: b\nC: d\r\n", 400},
        {"carriage return inside", line + host + "A: b\rC\r\n", 400},
        {"zero byte inside", line + host + "A: b\0c\r\n"s, 400},
        {"line feed in the request line", "GET /\n HTTP/1.1\r\n" + host, 400},
        {"chunked", line + host + "Transfer-Encoding: chunked\r\n", 411},
        {"chunked and a length", line + host + "tRANSFER-encoding:x\r\nContent-Length: 1\r\n", 411},
        {"length no number", line + host + "Content-Length: 1a\r\n", 400},
        {"length empty", line + host + "Content-Length: \r\n", 400},
        {"length signed", line + host + "Content-Length: +1\r\n", 400},
        {"length negative", line + host + "Content-Length: -1\r\n", 400},
        {"list of lengths", line + host + "Content-Length: 1, 1\r\n", 400},
        {"two lengths", line + host + "Content-Length: 1\r\nContent-Length: 2\r\n", 400},
        {"the same twice", line + host + "Content-Length: 1\r\nContent-Length: 01\r\n", 0},
        {"a name that begins alike", line + host + "Content-Length-X: a\r\nHosts: b\r\n", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(request_head(c.block).refusal, c.refusal) << c.name;
}

TEST(request_head, reads_the_length) {
    constexpr long long largest = std::numeric_limits<long long>::max();
    const struct {
        const char* field;
        long long length;
    } cases[] = {
        {"A: 7", 0},
        {"Content-Length: 0", 0},
        {"content-length:12", 12},
        {"CONTENT-LENGTH: \t 007 \t", 7},
        {"Content-Length-X: 7", 0},
        {"Content-Length: 9223372036854775806", largest - 1},
        {"Content-Length: 9223372036854775807", largest},
        {"Content-Length: 9223372036854775808", largest},
        {"Content-Length: 18446744073709551617", largest},
        {"Content-Length: 99999999999999999999999999999999", largest},
    };
    for (const auto& c : cases) {
        const request_head head(line + host + c.field + "\r\n");
        EXPECT_EQ(head.refusal, 0) << c.field;
        EXPECT_EQ(head.content_length, c.length) << c.field;
    }
}

TEST(request_head, tells_whether_the_client_stays) {
    const struct {
        const char* version;
        const char* fields;
        bool keeps;
    } cases[] = {
        {"HTTP/1.1", "", true},
        {"HTTP/1.1", "Connection: close\r\n", false},
        {"HTTP/1.1", "connection:CLOSE\r\n", false},
        {"HTTP/1.1", "Connection: upgrade , close\r\n", false},
        {"HTTP/1.1", "Connection: upgrade\r\nConnection: close\r\n", false},
        {"HTTP/1.1", "Connection: closed\r\n", true},
        {"HTTP/1.1", "Connection-X: close\r\n", true},
        {"HTTP/1.1", "Connection: keep-alive, close\r\n", false},
        {"HTTP/1.0", "", false},
        {"HTTP/1.0", "Connection: keep-alive\r\n", true},
        {"HTTP/1.0", "Connection: Keep-Alive\r\n", true},
        {"HTTP/1.0", "Connection: a,keep-alive\r\n", true},
        {"HTTP/1.0", "Connection: keep-alive, close\r\n", false},
    };
    for (const auto& c : cases) {
        const request_head head("GET / "s + c.version + "\r\nHost: a\r\n" + c.fields);
        EXPECT_EQ(head.keeps, c.keeps) << c.version << ' ' << c.fields;
    }
}

TEST(request_head, finds_words_in_the_lists_of_every_line_of_a_name) {
    const std::string block = "LIST:x / HTTP/1.1\r\nListing: y\r\nList:\r\nlist: a , B,\"c\r\n"
                              "Other: z\r\nLIST:d;e\r\n";
    const struct {
        const char* word;
        bool listed;
    } cases[] = {{"a", true},  {"b", true},  {"A", true},  {"d;e", true}, {"x / HTTP/1.1", false},
                 {"y", false}, {"z", false}, {"c", false}, {"d", false},  {"a , B", false}};
    for (const auto& c : cases)
        EXPECT_EQ(request_head::lists("List", c.word, block), c.listed) << c.word;
}

TEST(request_head, finds_a_header_by_its_exact_name) {
    const std::string block = "GET /accept: x HTTP/1.1\r\nAccept-Encoding: gzip\r\nX\r\n"
                              "ACCEPT: \t a, b \t\r\nAccept: c\r\nEmpty:\r\nTight:d:e\r\n";
    const struct {
        const char* name;
        std::optional<std::string_view> value;
    } cases[] = {
        {"accept", "a, b"},  {"Accept-Encoding", "gzip"}, {"empty", ""},
        {"tight", "d:e"},    {"Accep?", std::nullopt},    {"*", std::nullopt},
        {"x", std::nullopt}, {"", std::nullopt},          {"get /accept", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(request_head::find(c.name, block), c.value) << c.name;
    EXPECT_EQ(request_head::find("accept", ""), std::nullopt);
}

} // namespace
