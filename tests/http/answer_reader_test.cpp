#include "vindra/http/answer_reader.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

enum class end { here, at_close, not_yet };

struct answer_case {
    const char* name;
    std::string wire;
    end expected;
    bool to_head = false;
};

std::string ok(const std::string& lines, const std::string& body = "") {
    return "HTTP/1.1 200 OK\r\n" + lines + "\r\n" + body;
}

const answer_case cases[] = {
    {"length", ok("content-length: 4\r\n", "body"), end::here},
    {"no body", ok("Content-Length: 0\r\n"), end::here},
    {"part of a body", ok("Content-Length: 4\r\n", "bod"), end::not_yet},
    {"head", ok("Content-Length: 4\r\n"), end::here, true},
    {"head without length", ok(""), end::here, true},
    {"204", "HTTP/1.1 204 No Content\r\n\r\n", end::here},
    {"304", "HTTP/1.1 304 Not Modified\r\nContent-Length: 9\r\n\r\n", end::here},
    {"no reason", "HTTP/1.1 404 \r\nContent-Length: 1\r\n\r\nx", end::here},
    {"old", "HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx", end::here},
    {"interim", "HTTP/1.1 103 Early Hints\r\nA: b\r\n\r\n" + ok("Content-Length: 1\r\n", "x"),
     end::here},
    {"interim alone", "HTTP/1.1 100 Continue\r\n\r\n", end::not_yet},
    {"chunks", ok("Transfer-Encoding: chunked\r\n", "3\r\nabc\r\n00a\r\n0123456789\r\n0\r\n\r\n"),
     end::here},
    {"extension and trailer",
     ok("Transfer-Encoding: chunked\r\n", "1;a=\"b\"\r\nx\r\n1 \r\ny\r\n0\r\nA: b\r\nC: d\r\n\r\n"),
     end::here},
    {"chunk with line ends", ok("Transfer-Encoding: chunked\r\n", "5\r\n\r\n0\r\n\r\n0\r\n\r\n"),
     end::here},
    {"part of the trailer", ok("Transfer-Encoding: chunked\r\n", "0\r\nA: b\r\n"), end::not_yet},
    {"equal lengths", ok("Content-Length: 1\r\nContent-Length: 1\r\n", "x"), end::here},

    {"no length", ok("", "Content-Length: 1\r\n\r\nx"), end::at_close},
    {"two lengths", ok("Content-Length: 1\r\nContent-Length: 2\r\n", "xy"), end::at_close},
    {"empty length", ok("Content-Length:\r\nContent-Length: 1\r\n", "x"), end::at_close},
    {"negative length", ok("Content-Length: -1\r\n", "x"), end::at_close},
    {"length with more", ok("Content-Length: 1,1\r\n", "x"), end::at_close},
    {"huge length", ok("Content-Length: 99999999999999999999\r\n", "x"), end::at_close},
    {"both", ok("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n"), end::at_close},
    {"another coding", ok("Transfer-Encoding: gzip, chunked\r\n", "0\r\n\r\n"), end::at_close},
    {"two codings", ok("Transfer-Encoding: chunked\r\nTransfer-Encoding: x\r\n", "0\r\n\r\n"),
     end::at_close},
    {"huge chunk", ok("Transfer-Encoding: chunked\r\n", "10000000000000000\r\nx"), end::at_close},
    {"no size", ok("Transfer-Encoding: chunked\r\n", "\r\n0\r\n\r\n"), end::at_close},
    {"size with more", ok("Transfer-Encoding: chunked\r\n", "1x\r\na\r\n0\r\n\r\n"), end::at_close},
    {"chunk too long", ok("Transfer-Encoding: chunked\r\n", "1\r\nab\r\n0\r\n\r\n"), end::at_close},
    {"bare line feed", "HTTP/1.1 200 OK\nContent-Length: 1\r\n\r\nx", end::at_close},
    {"folded line", ok("A: b\r\n Content-Length: 2\r\nContent-Length: 1\r\n", "x"), end::at_close},
    {"another protocol", "HTTP/1.1 101 Switching Protocols\r\nContent-Length: 1\r\n\r\nx",
     end::at_close},
    {"an answer behind another protocol",
     "HTTP/1.1 101 Switching Protocols\r\n\r\n" + ok("Content-Length: 1\r\n", "x"), end::at_close},
    {"no HTTP", "SSH-2.0-x\r\n\r\n", end::at_close},
    {"short status", "HTTP/1.1 20 OK\r\nContent-Length: 1\r\n\r\nx", end::at_close},
    {"long head", ok("A: " + std::string(70000, 'a') + "\r\nContent-Length: 1\r\n", "x"),
     end::at_close},
};

void expect_end(const answer_case& c, std::size_t piece) {
    const std::string behind = "HTTP/1.1 200 OK\r\n";
    const std::string bytes = c.wire + behind;
    answer_reader reader;
    reader.begin(c.to_head);
    std::size_t own = 0;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        if (reader.is_complete()) break;
        if (c.expected == end::not_yet && at >= c.wire.size()) break;
        std::string_view next = std::string_view(bytes).substr(at, piece);
        if (c.expected == end::not_yet) next = next.substr(0, c.wire.size() - at);
        own += reader.read(next);
    }
    EXPECT_EQ(reader.is_complete(), c.expected == end::here);
    EXPECT_EQ(own, c.expected == end::at_close ? bytes.size() : c.wire.size());
}

TEST(answer_reader, finds_the_end_in_every_piece_size) {
    for (const answer_case& c : cases) {
        for (std::size_t piece = 1; piece <= std::min<std::size_t>(c.wire.size() + 17, 200);
             ++piece) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            expect_end(c, piece);
        }
        SCOPED_TRACE(c.name);
        expect_end(c, c.wire.size() + 17);
    }
}

TEST(answer_reader, tells_whether_an_answer_has_begun) {
    answer_reader reader;
    EXPECT_TRUE(reader.is_complete());
    reader.begin(false);
    EXPECT_FALSE(reader.has_begun());
    reader.read("HTTP/1.1 100 Continue\r\n\r\n");
    EXPECT_FALSE(reader.has_begun());
    reader.read("H");
    EXPECT_TRUE(reader.has_begun());
    reader.read("TTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n");
    EXPECT_TRUE(reader.has_begun());
    reader.begin(false);
    EXPECT_FALSE(reader.has_begun());
}

TEST(answer_reader, tells_whether_its_sender_means_to_close) {
    const struct {
        const char* head;
        bool last;
    } heads[] = {{"HTTP/1.1 204 x\r\n\r\n", false},
                 {"HTTP/1.0 204 x\r\n\r\n", true},
                 {"HTTP/1.1 204 x\r\nconnection:close\r\n\r\n", true},
                 {"HTTP/1.1 204 x\r\nConnection: keep-alive\r\n\r\n", false}};
    for (const auto& c : heads) {
        answer_reader reader;
        reader.begin(false);
        reader.read(c.head);
        EXPECT_EQ(reader.is_last(), c.last) << c.head;
    }
}

} // namespace
