#include "vindra/base/find.h"
#include "vindra/http/deferred_result.h"

#include "tests/support/captured_output.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// The key and the answer to it are the example of RFC 6455, section 1.3.
const std::string rfc_request = "GET /chat HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\n"
                                "Connection: Upgrade\r\n"
                                "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                                "Sec-WebSocket-Version: 13\r\n\r\n";
const std::string rfc_answer = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                               "Connection: Upgrade\r\n"
                               "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"
                               "Content-Length: 0\r\n\r\n";
const std::string refusal = "HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\n"
                            "Content-Length: 0\r\n\r\n";

std::string without_line(std::string request, const std::string& start) {
    const std::size_t from = request.find(start);
    return request.erase(from, request.find("\r\n", from) + 2 - from);
}

std::string with_text(std::string request, const std::string& from, const std::string& to) {
    return request.replace(request.find(from), from.size(), to);
}

// An answer to an earlier request that is still to be computed, and its end.
class late_result : public deferred_result {};

const std::string late_chunk = "4\r\nlate\r\n0\r\n\r\n";

http_connection::response_part& queue_late_answer(http_connection& conn, int restore_timeout) {
    auto* const part = new http_connection::response_part;
    part->result = new late_result;
    part->restore_timeout = restore_timeout;
    conn.parts.add(part);
    return *part;
}

void finish(const http_connection::response_part& part) {
    part.result->output = var("late");
    part.result->done = true;
}

} // namespace

TEST(handshake, answers_the_example_of_the_standard_in_every_piece_size) {
    for (std::size_t piece = 1; piece <= rfc_request.size(); ++piece) {
        const auto conn = std::make_unique_for_overwrite<recording_connection>();
        feed(*conn, rfc_request, piece);
        ASSERT_EQ(drain(*conn).bytes(), rfc_answer) << "pieces of " << piece;
        ASSERT_EQ(conn->calls, "upgrade ");
    }
}

TEST(handshake, takes_the_limits_off_an_accepted_connection) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, rfc_request);
    EXPECT_TRUE(conn->upgraded);
    EXPECT_TRUE(conn->keep_alive);
    EXPECT_EQ(conn->timeout, -1);
    EXPECT_EQ(conn->max_request_length, 0);
    EXPECT_TRUE(drain(*conn).open);
}

TEST(handshake, keeps_the_time_out_off_when_an_earlier_answer_is_still_to_be_computed) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    http_connection::response_part& part = queue_late_answer(*conn, 10);
    feed(*conn, rfc_request);
    finish(part);
    EXPECT_EQ(drain(*conn).bytes(), late_chunk + rfc_answer);
    EXPECT_EQ(conn->timeout, -1);
}

TEST(handshake, leaves_the_restore_timeout_of_a_queued_part_to_its_maker) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    const http_connection::response_part& part = queue_late_answer(*conn, 10);
    feed(*conn, rfc_request);
    EXPECT_EQ(part.restore_timeout, 10);
}

TEST(handshake, turned_away_is_not_revived_by_an_earlier_late_answer) {
    for (const int restore : {-1, 10}) {
        const auto conn = std::make_unique<http_connection>();
        http_connection::response_part& part = queue_late_answer(*conn, restore);
        feed(*conn, rfc_request);
        ASSERT_EQ(conn->timeout, 0);
        finish(part);
        EXPECT_EQ(send_once(*conn).bytes, late_chunk);
        EXPECT_EQ(conn->timeout, 0);
    }
}

TEST(handshake, followed_by_a_refused_frame_is_not_revived_by_an_earlier_late_answer) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    http_connection::response_part& part = queue_late_answer(*conn, -1);
    captured_output output;
    feed(*conn, rfc_request + std::string("\x81\x00nomask", 8));
    ASSERT_EQ(conn->timeout, 0);
    finish(part);
    EXPECT_EQ(send_once(*conn).bytes, late_chunk);
    EXPECT_EQ(conn->timeout, 0);
}

TEST(handshake, leaves_the_time_out_of_a_hook_alone_when_a_late_answer_is_sent) {
    class patient_connection : public recording_connection {
    public:
        void on_upgrade() override { timeout = 60; }
    };
    const auto conn = std::make_unique_for_overwrite<patient_connection>();
    http_connection::response_part& part = queue_late_answer(*conn, 10);
    feed(*conn, rfc_request);
    finish(part);
    drain(*conn);
    EXPECT_EQ(conn->timeout, 60);
}

TEST(handshake, finds_its_header_lines_in_their_usual_spelling_where_letter_case_counts) {
    base::find_case_insensitive() = false;
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, rfc_request);
    base::find_case_insensitive() = true;
    EXPECT_TRUE(conn->upgraded);
}

TEST(handshake, sets_the_limits_before_the_hook_is_called) {
    class probing_connection : public recording_connection {
    public:
        void on_upgrade() override { seen = upgraded && timeout == -1 && max_request_length == 0; }
        bool seen = false;
    };
    const auto conn = std::make_unique_for_overwrite<probing_connection>();
    feed(*conn, rfc_request);
    EXPECT_TRUE(conn->seen);
}

TEST(handshake, is_turned_away_by_default_after_the_answer) {
    const auto conn = std::make_unique<http_connection>();
    captured_output output;
    feed(*conn, rfc_request);
    EXPECT_FALSE(conn->keep_alive);
    EXPECT_EQ(conn->timeout, 0);
    const sent_piece first = send_once(*conn);
    EXPECT_EQ(first.bytes, rfc_answer);
    EXPECT_TRUE(first.open);
    EXPECT_FALSE(send_once(*conn).open);
    EXPECT_EQ(output.take(), "") << "a handshake is not logged";
}

TEST(handshake, reads_no_frames_by_default) {
    const auto conn = std::make_unique<http_connection>();
    feed(*conn, rfc_request + "\x81\x80" + "keys");
    EXPECT_EQ(conn->data.size(), 6U);
    EXPECT_EQ(conn->parts.count, 1);
}

TEST(handshake, reads_frames_that_came_with_it) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, rfc_request + "\x81\x81" + "aaaa" + "\x09");
    EXPECT_EQ(conn->calls, "upgrade data message ");
    EXPECT_EQ(conn->messages, std::vector<std::string>{"h"});
}

TEST(handshake, never_calls_on_request_afterwards) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, rfc_request);
    feed(*conn, "\x81\x81"
                "aaaa\x09");
    feed(*conn, "\x88\x80"
                "aaaa");
    feed(*conn, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(conn->requests, 0);
}

TEST(handshake, is_refused_with_400_for_each_fault) {
    const std::string faulty[] = {
        with_text(rfc_request, "Version: 13", "Version: 8"),
        with_text(rfc_request, "Version: 13", "Version: x13"),
        without_line(rfc_request, "Sec-WebSocket-Version"),
        without_line(rfc_request, "Sec-WebSocket-Key"),
        with_text(rfc_request, "dGhlIHNhbXBsZSBub25jZQ==", ""),
    };
    for (const std::string& request : faulty) {
        SCOPED_TRACE(request);
        const auto conn = std::make_unique_for_overwrite<recording_connection>();
        captured_output output;
        feed(*conn, request);
        const drained sent = drain(*conn);
        EXPECT_EQ(sent.bytes(), refusal);
        EXPECT_TRUE(sent.open);
        EXPECT_FALSE(conn->upgraded);
        EXPECT_EQ(conn->calls, "request ");
        EXPECT_EQ(output.take(), "Warning! Double write() detected!\n");
    }
}

TEST(handshake, leaves_a_refused_connection_ready_for_the_next_request) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    captured_output output;
    feed(*conn, without_line(rfc_request, "Sec-WebSocket-Key"));
    feed(*conn, rfc_request);
    EXPECT_EQ(drain(*conn).bytes(), refusal + rfc_answer);
}

TEST(handshake, takes_a_version_with_a_tail) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, with_text(rfc_request, "Version: 13", "Version: 13, 8"));
    EXPECT_TRUE(conn->upgraded);
}

TEST(handshake, compares_the_upgrade_value_exactly_and_its_name_in_any_case) {
    const struct {
        const char* line;
        bool upgraded;
    } cases[] = {{"Upgrade: websocket", true},   {"UPGRADE: websocket", true},
                 {"upgrade: websocket", true},   {"Upgrade: WebSocket", false},
                 {"Upgrade: websocket ", false}, {"Upgrade: websocket, h2c", false},
                 {"Upgrade:  websocket", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto conn = std::make_unique_for_overwrite<recording_connection>();
        feed(*conn, with_text(rfc_request, "Upgrade: websocket", c.line));
        EXPECT_EQ(conn->upgraded, c.upgraded);
        EXPECT_EQ(conn->calls, c.upgraded ? "upgrade " : "headers request ");
    }
}

TEST(handshake, is_an_ordinary_request_where_websockets_are_off) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    conn->websockets = false;
    feed(*conn, rfc_request);
    EXPECT_EQ(conn->calls, "headers request ");
    EXPECT_FALSE(conn->upgraded);
    EXPECT_THAT(drain(*conn).bytes(), StartsWith("HTTP/1.1 200 OK"));
}

TEST(handshake, carries_no_length_to_a_client_that_is_not_kept) {
    const auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, with_text(rfc_request, "HTTP/1.1", "HTTP/1.0"));
    EXPECT_TRUE(conn->upgraded);
    const drained sent = drain(*conn);
    EXPECT_THAT(sent.bytes(), testing::Not(HasSubstr("Content-Length")));
    EXPECT_FALSE(sent.open);
}
