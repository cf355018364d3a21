#include "vindra/http/http_connection.h"

#include "tests/support/captured_output.h"
#include "tests/support/drain.h"

#include <memory>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

std::string frame_of(std::size_t length, int opcode = 1) {
    const auto conn = std::make_unique<http_connection>();
    conn->send_message(std::string(length, 'p'), opcode);
    EXPECT_EQ(conn->parts.count, 1);
    return conn->parts.head->next->value->text;
}

} // namespace

TEST(frame_writer, writes_each_form_of_the_length) {
    const struct {
        std::size_t length;
        std::string head;
    } cases[] = {
        {0, "\x81\0"s},
        {1, "\x81\x01"},
        {125, "\x81\x7D"},
        {126, "\x81\x7E\0\x7E"s},
        {200, "\x81\x7E\0\xC8"s},
        {65535, "\x81\x7E\xFF\xFF"},
        {65536, "\x81\x7F\0\0\0\0\0\x01\0\0"s},
        {1048575, "\x81\x7F\0\0\0\0\0\x0F\xFF\xFF"s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        EXPECT_TRUE(frame_of(c.length) == c.head + std::string(c.length, 'p'));
    }
}

TEST(frame_writer, queues_a_payload_that_is_too_long_without_a_length_and_says_so) {
    captured_output output;
    EXPECT_TRUE(frame_of(1048576) == "\x81" + std::string(1048576, 'p'));
    EXPECT_EQ(output.take(), "send_message() error! Message too long: 1048576\n");
}

TEST(frame_writer, marks_every_frame_as_final_and_takes_seven_bits_of_the_opcode) {
    EXPECT_EQ(frame_of(0, 2), "\x82\0"s);
    EXPECT_EQ(frame_of(0, 10), "\x8A\0"s);
    EXPECT_EQ(frame_of(0, 0x1FF), "\xFF\0"s);
    EXPECT_EQ(frame_of(0, 0x80), "\x80\0"s);
    EXPECT_EQ(frame_of(0, -1), "\xFF\0"s);
}

TEST(frame_writer, carries_zero_bytes) {
    const auto conn = std::make_unique<http_connection>();
    conn->send_message("a\0b"s, 2);
    EXPECT_EQ(drain(*conn).bytes(), "\x82\x03"s + "a\0b"s);
}

TEST(frame_writer, neither_asks_nor_tells_whether_a_response_is_written) {
    const auto conn = std::make_unique<http_connection>();
    conn->send_message("a", 1);
    EXPECT_FALSE(conn->written);
    conn->written = true;
    conn->send_message("b", 1);
    EXPECT_EQ(drain(*conn).bytes(), "\x81\x01"
                                    "a\x81\x01"
                                    "b");
}

TEST(frame_writer, makes_frames_that_outgrow_the_send_buffer_and_still_leave_whole) {
    const auto conn = std::make_unique<http_connection>();
    conn->send_message(std::string(1048575, 'p'), 1);
    conn->send_message("next", 1);
    const drained sent = drain(*conn);
    ASSERT_EQ(sent.pieces.size(), 3U);
    EXPECT_EQ(sent.pieces[0].size(), 1048576U);
    EXPECT_EQ(sent.pieces[1], std::string(9, 'p'));
    EXPECT_EQ(sent.pieces[2], "\x81\x04next");
}
