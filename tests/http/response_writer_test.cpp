#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr std::size_t mebibyte = 1048576;

const std::string head = "HTTP/1.1 200 OK\r\nA: b\r\n";

// A body whose every position can be told from its neighbours.
std::string patterned(std::size_t size) {
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 7 + i / 251);
    return body;
}

std::string written_by(const std::string& first, const std::string& body) {
    const auto conn = std::make_unique<http_connection>();
    conn->write(first, body);
    return drain(*conn).bytes();
}

} // namespace

TEST(response_writer, adds_the_length_and_the_blank_line) {
    EXPECT_EQ(written_by(head, "body"), head + "Content-Length: 4\r\n\r\nbody");
    EXPECT_EQ(written_by(head, ""), head + "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(written_by(head, std::string(2, '\0')),
              head + "Content-Length: 2\r\n\r\n" + std::string(2, '\0'));
}

TEST(response_writer, adds_no_length_where_the_head_frames_itself) {
    for (const char* line : {"Content-Length: 9\r\n", "CONTENT-LENGTH: 9\r\n",
                             "Transfer-Encoding: chunked\r\n", "transfer-encoding: chunked\r\n"}) {
        EXPECT_EQ(written_by(head + line, "body"), head + line + "\r\nbody");
    }
}

TEST(response_writer, adds_a_length_where_that_of_the_head_is_empty) {
    EXPECT_EQ(written_by(head + "Content-Length: \r\n", "body"),
              head + "Content-Length: \r\nContent-Length: 4\r\n\r\nbody");
}

TEST(response_writer, adds_no_length_on_a_connection_that_is_not_kept_and_then_closes) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, "GET / HTTP/1.0\r\n\r\n");
    const drained sent = drain(*conn);
    EXPECT_THAT(sent.bytes(), Not(HasSubstr("Content-Length")));
    EXPECT_FALSE(sent.open);
}

TEST(response_writer, appends_the_extra_headers_behind_the_length) {
    const auto conn = std::make_unique<http_connection>();
    conn->extra_headers = "X: 1\r\nY: 2\r\n";
    conn->write(head, "b");
    EXPECT_EQ(drain(*conn).bytes(), head + "Content-Length: 1\r\nX: 1\r\nY: 2\r\n\r\nb");
}

TEST(response_writer, looks_for_a_length_before_the_extra_headers_are_there) {
    const auto conn = std::make_unique<http_connection>();
    conn->extra_headers = "Content-Length: 1\r\n";
    conn->write(head, "b");
    EXPECT_EQ(drain(*conn).bytes(), head + "Content-Length: 1\r\nContent-Length: 1\r\n\r\nb");
}

TEST(response_writer, leaves_the_body_out_for_head_and_for_nothing_like_it) {
    const auto conn = std::make_unique<http_connection>();
    conn->method = "HEAD";
    conn->write(head, "body");
    EXPECT_EQ(drain(*conn).bytes(), head + "Content-Length: 4\r\n\r\n");
    for (const char* method : {"head", "HEADS", ""}) {
        const auto other = std::make_unique<http_connection>();
        other->method = method;
        other->write(head, "body");
        EXPECT_THAT(drain(*other).bytes(), EndsWith("\r\n\r\nbody"));
    }
}

TEST(response_writer, refuses_a_second_response_and_says_so_once) {
    const auto conn = std::make_unique<http_connection>();
    captured_output output;
    conn->write(head, "first");
    conn->write(head, "second");
    EXPECT_EQ(conn->parts.count, 1);
    EXPECT_THAT(drain(*conn).bytes(), EndsWith("first"));
    EXPECT_EQ(output.take(), "Warning! Double write() detected!\n");
}

TEST(response_writer, queues_and_sends_nothing_by_itself) {
    const auto conn = std::make_unique<http_connection>();
    conn->write(head, "body");
    EXPECT_EQ(conn->send_length, 0);
    ASSERT_EQ(conn->parts.count, 1);
    const http_connection::response_part& part = *conn->parts.head->next->value;
    EXPECT_EQ(part.file, nullptr);
    EXPECT_EQ(part.result, nullptr);
    EXPECT_EQ(part.budget, -1.0);
    EXPECT_EQ(part.text, head + "Content-Length: 4\r\n\r\nbody");
}

TEST(response_writer, cuts_three_mebibytes_into_four_parts) {
    const auto conn = std::make_unique<http_connection>();
    const std::string body = patterned(3 * mebibyte);
    conn->write(head, body);
    const std::string whole = head + "Content-Length: 3145728\r\n\r\n" + body;

    const drained sent = drain(*conn);
    ASSERT_EQ(sent.pieces.size(), 4U);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(sent.pieces[static_cast<std::size_t>(i)].size(), mebibyte);
    EXPECT_EQ(sent.pieces[3].size(), whole.size() - 3 * mebibyte);
    EXPECT_TRUE(sent.bytes() == whole) << "in order and to the byte";
}

TEST(response_writer, cuts_at_the_size_of_the_send_buffer_exactly) {
    const std::size_t head_size = (head + "Content-Length: 1048000\r\n\r\n").size();
    const struct {
        std::size_t total;
        int parts;
    } cases[] = {{mebibyte - 1, 1}, {mebibyte, 1}, {mebibyte + 1, 2}, {2 * mebibyte, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total);
        const auto conn = std::make_unique<http_connection>();
        conn->write(head, std::string(c.total - head_size, 'x'));
        EXPECT_EQ(conn->parts.count, c.parts);
        EXPECT_EQ(drain(*conn).bytes().size(), c.total);
    }
}

TEST(response_writer, sends_the_responses_of_successive_requests_in_order) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    for (const char* url : {"/1", "/2", "/3"}) {
        feed(*conn, std::string("GET ") + url + " HTTP/1.1\r\n\r\n");
    }
    const drained sent = drain(*conn);
    ASSERT_EQ(sent.pieces.size(), 3U);
    EXPECT_THAT(sent.pieces[0], HasSubstr("GET /1"));
    EXPECT_THAT(sent.pieces[1], HasSubstr("GET /2"));
    EXPECT_THAT(sent.pieces[2], HasSubstr("GET /3"));
    EXPECT_TRUE(sent.open);
}

TEST(response_writer, appends_the_extra_headers_where_the_connection_is_not_kept) {
    const auto conn = std::make_unique<http_connection>();
    conn->keep_alive = false;
    conn->extra_headers = "X: 1\r\n";
    conn->write(head, "b");
    EXPECT_EQ(drain(*conn).bytes(), head + "X: 1\r\n\r\nb");
}
