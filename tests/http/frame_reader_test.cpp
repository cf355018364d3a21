#include "tests/support/captured_output.h"
#include "tests/support/frames.h"

#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

using texts = std::vector<std::string>;

const std::string no_mask = "Warning! Incoming frame has no mask.\n";

struct frame_case {
    const char* name;
    std::string wire;
    texts messages = {};
    std::string sent = {};
    bool open = true;
    std::string left = {};
    std::string printed = {};
};

std::string echo(const std::string& text) {
    return "\x81" + std::string(1, static_cast<char>(text.size())) + text;
}

const std::string wire_40 = "KEY.0123456789012345678901234567890123456";

// Each ends in the same state however it is cut; `left` is compared where it stays open.
const frame_case frame_cases[] = {
    {"text", short_frame(0x81, "hi"), {"hi"}, "\x81\x02hi"},
    {"binary is echoed as text", short_frame(0x82, "hi"), {"hi"}, "\x81\x02hi"},
    {"continuation without a start", short_frame(0x80, "hi"), {"hi"}, "\x81\x02hi"},
    {"reserved bits are ignored", short_frame(0xF1, "hi"), {"hi"}, "\x81\x02hi"},
    {"empty text", short_frame(0x81, ""), {""}, "\x81\0"s},
    {"zero bytes", short_frame(0x81, "\0\0\0"s), {"\0\0\0"s}, "\x81\x03\0\0\0"s},
    {"key of zeros", short_frame(0x81, "hi", "\0\0\0\0"s), {"hi"}, echo("hi")},
    {"payload of several keys",
     short_frame(0x81, "0123456789"),
     {"0123456789"},
     echo("0123456789")},
    {"125 bytes",
     short_frame(0x81, std::string(125, 'x')),
     {std::string(125, 'x')},
     echo(std::string(125, 'x'))},
    {"two frames",
     short_frame(0x81, "a") + short_frame(0x81, "b"),
     {"a", "b"},
     echo("a") + echo("b")},
    {"a message in two frames",
     short_frame(0x01, "ab") + short_frame(0x80, "cd"),
     {"abcd"},
     echo("abcd")},
    {"a message in three kinds of frames",
     short_frame(0x01, "a") + short_frame(0x02, "b") + short_frame(0x80, "c"),
     {"abc"},
     echo("abc")},
    {"a message that goes on", short_frame(0x01, "ab"), {}, ""},
    {"a ping within a message",
     short_frame(0x01, "a") + short_frame(0x89, "x") + short_frame(0x80, "b"),
     {"ab"},
     "\x8A\x01x" + echo("ab")},
    {"ping", short_frame(0x89, "x"), {}, "\x8A\x01x"},
    {"empty ping", short_frame(0x89, ""), {}, "\x8A\0"s},
    {"ping that is no last frame", short_frame(0x09, "x"), {}, "\x8A\x01x"},
    {"pong", short_frame(0x8A, "x"), {}, "", true, "", "Warning! Unhandled opcode: 10\n"},
    {"reserved opcodes",
     short_frame(0x83, "x") + short_frame(0x87, "") + short_frame(0x8F, "y"),
     {},
     "",
     true,
     "",
     "Warning! Unhandled opcode: 3\nWarning! Unhandled opcode: 7\nWarning! Unhandled opcode: 15\n"},
    {"an unknown frame between two",
     short_frame(0x81, "a") + short_frame(0x8B, "?") + short_frame(0x81, "b"),
     {"a", "b"},
     echo("a") + echo("b"),
     true,
     "",
     "Warning! Unhandled opcode: 11\n"},
    {"close", short_frame(0x88, "\x03\xE8"), {}, "", false},
    {"close after a message",
     short_frame(0x81, "a") + short_frame(0x88, ""),
     {"a"},
     echo("a"),
     false},
    {"nothing is read behind a close",
     short_frame(0x88, "") + short_frame(0x81, "a"),
     {},
     "",
     false},
    {"no mask", "\x81\x04text", {}, "", false, "", no_mask},
    {"no mask behind a frame",
     short_frame(0x81, "a") + "\x81\x04text",
     {"a"},
     echo("a"),
     false,
     "",
     no_mask},
    {"five bytes wait", "\x81\x02two", {}, "", true, "\x81\x02two"},
    {"five bytes wait behind a frame",
     short_frame(0x81, "a") + "\x01\x02\x03\x04\x05",
     {"a"},
     echo("a"),
     true,
     "\x01\x02\x03\x04\x05"},
    {"payload cut short",
     short_frame(0x81, "abc").substr(0, 8),
     {},
     "",
     true,
     short_frame(0x81, "abc").substr(0, 8)},
    {"medium: the low byte first", medium_frame(0x81, "x"), {"x"}, echo("x")},
    {"medium: as the standard writes 256",
     "\x81\xFE\x01\x00KEYS"s + masked("x", "KEYS"),
     {"x"},
     echo("x")},
    {"medium: empty", medium_frame(0x81, ""), {""}, echo("")},
    {"medium: 300 bytes", medium_frame(0x01, std::string(300, 'm')), {}, ""},
    {"medium: behind a frame",
     short_frame(0x81, "a") + medium_frame(0x81, "bcd"),
     {"a", "bcd"},
     echo("a") + echo("bcd")},
    {"medium: head cut short behind a frame",
     short_frame(0x81, "abcdefgh") + medium_frame(0x81, "").substr(0, 7),
     {"abcdefgh"},
     echo("abcdefgh"),
     true,
     medium_frame(0x81, "").substr(0, 7)},
    {"long: the key lies within the payload",
     long_frame(0x81, wire_40),
     {long_payload(wire_40)},
     echo(long_payload(wire_40))},
    {"long: six bytes",
     long_frame(0x81, "KEYS"),
     {long_payload("KEYS")},
     echo(long_payload("KEYS"))},
    {"long: behind a frame",
     short_frame(0x81, "abcdefgh") + long_frame(0x81, "KEYS"),
     {"abcdefgh", long_payload("KEYS")},
     echo("abcdefgh") + echo(long_payload("KEYS"))},
    {"long: head cut short behind a frame",
     short_frame(0x81, "abcdefgh") + long_frame(0x81, "KEYS").substr(0, 15),
     {"abcdefgh"},
     echo("abcdefgh"),
     true,
     long_frame(0x81, "KEYS").substr(0, 15)},
    {"long: its two highest bytes are its payload",
     "\x81\xFFunread\0\0\0\0\0\0\0\0"s,
     {""},
     echo(""),
     true,
     "\0\0"s},
    {"long: the key of a short payload must be there",
     "\x81\xFFunread\x02\0\0\0\0\0\0\0"s + "K",
     {},
     "",
     true,
     "\x81\xFFunread\x02\0\0\0\0\0\0\0"s + "K"},
    {"long: one byte is enough of a key for one byte",
     "\x81\xFFunread\x01\0\0\0\0\0\0\0"s + "K",
     {"K"},
     echo("K"),
     true,
     "\0K"s},
    {"long: too long",
     "\x81\xFFunread\x01\0\x10\0\0\0\0\0"s,
     {},
     "",
     false,
     "",
     "Warning! Frame exceeds max length of 1048576.\n"},
    {"long: the longest length",
     "\x81\xFFunread\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF",
     {},
     "",
     false,
     "",
     "Warning! Frame exceeds max length of 1048576.\n"},
    {"long: the longest payload waits",
     "\x81\xFFunread\0\0\x10\0\0\0\0\0KEYS"s,
     {},
     "",
     true,
     "\x81\xFFunread\0\0\x10\0\0\0\0\0KEYS"s},
};

// Feeds `c` by `deliver` and compares what came of it.
template <typename Deliver>
void expect_as_stated(const frame_case& c, Deliver deliver) {
    const auto conn = upgraded_connection();
    captured_output output;
    deliver(*conn);
    EXPECT_EQ(output.take(), c.printed);
    EXPECT_EQ(conn->messages, c.messages);
    EXPECT_EQ(conn->keep_alive, c.open);
    EXPECT_EQ(conn->timeout, c.open ? -1 : 0);
    if (c.open) {
        EXPECT_EQ(conn->data, c.left);
    }
    const drained sent = drain(*conn);
    EXPECT_EQ(sent.bytes(), c.sent);
    EXPECT_EQ(sent.open, c.open);
}

} // namespace

TEST(frame_reader, understands_frames_that_come_whole) {
    for (const frame_case& c : frame_cases) {
        SCOPED_TRACE(c.name);
        expect_as_stated(c, [&](connection& conn) { feed(conn, c.wire); });
    }
}

TEST(frame_reader, answers_alike_for_every_piece_size) {
    for (const frame_case& c : frame_cases) {
        for (std::size_t piece = 1; piece < c.wire.size(); ++piece) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            expect_as_stated(c, [&](connection& conn) { feed(conn, c.wire, piece); });
        }
    }
}

TEST(frame_reader, answers_alike_wherever_frames_are_cut) {
    for (const frame_case& c : frame_cases) {
        for (std::size_t cut = 1; cut < c.wire.size(); ++cut) {
            SCOPED_TRACE(testing::Message() << c.name << ", cut at " << cut);
            expect_as_stated(c, [&](connection& conn) { feed_cut(conn, c.wire, cut); });
        }
    }
}

TEST(frame_reader, keeps_an_incomplete_frame_for_the_next_block) {
    const auto conn = upgraded_connection();
    const std::string frame = short_frame(0x81, "hello");
    feed(*conn, frame.substr(0, 5));
    EXPECT_EQ(conn->data.size(), 5U);
    feed(*conn, frame.substr(5, 4));
    EXPECT_EQ(conn->data.size(), 9U);
    EXPECT_THAT(conn->messages, IsEmpty());
    feed(*conn, frame.substr(9));
    EXPECT_THAT(conn->messages, ElementsAre("hello"));
    EXPECT_EQ(conn->data, "");
}

TEST(frame_reader, leaves_the_bytes_where_they_are_when_it_refuses) {
    const std::string refused[] = {"\x81\x04text", short_frame(0x88, ""),
                                   "\x81\xFFunread\x01\0\x10\0\0\0\0\0"s};
    for (const std::string& last : refused) {
        const auto conn = upgraded_connection();
        captured_output output;
        const std::string wire = short_frame(0x81, "a") + last;
        feed(*conn, wire);
        EXPECT_EQ(conn->data, wire);
        feed(*conn, short_frame(0x81, "b"));
        EXPECT_THAT(conn->messages, ElementsAre("a")) << "nothing is read afterwards";
    }
}

TEST(frame_reader, takes_a_frame_of_the_greatest_length) {
    const auto conn = upgraded_connection();
    conn->max_frame_length = 3;
    captured_output output;
    feed(*conn, short_frame(0x81, "abc"));
    EXPECT_THAT(conn->messages, ElementsAre("abc"));
    feed(*conn, short_frame(0x81, "abcd").substr(0, 6));
    EXPECT_FALSE(conn->keep_alive) << "refused as soon as the length is known";
    EXPECT_EQ(output.take(), "Warning! Frame exceeds max length of 3.\n");
}

TEST(frame_reader, refuses_a_length_behind_a_frame_before_its_head_is_complete) {
    const auto conn = upgraded_connection();
    conn->max_frame_length = 3;
    captured_output output;
    feed(*conn, short_frame(0x81, "abc") + medium_frame(0x81, "abcd").substr(0, 6));
    EXPECT_FALSE(conn->keep_alive);
    EXPECT_EQ(output.take(), "Warning! Frame exceeds max length of 3.\n");
}

TEST(frame_reader, refuses_a_message_that_outgrows_its_limit) {
    const auto conn = upgraded_connection();
    conn->max_message_length = 4;
    captured_output output;
    feed(*conn, short_frame(0x81, "four"));
    feed(*conn, short_frame(0x01, "abc") + short_frame(0x01, "d"));
    EXPECT_TRUE(conn->keep_alive);
    feed(*conn, short_frame(0x80, "e"));
    EXPECT_FALSE(conn->keep_alive);
    EXPECT_EQ(conn->timeout, 0);
    EXPECT_THAT(conn->messages, ElementsAre("four"));
    EXPECT_EQ(output.take(), "Warning! Message exceeds max length of 4.\n");
}

TEST(frame_reader, counts_the_message_limit_without_a_sign) {
    const auto conn = upgraded_connection();
    conn->max_message_length = -1;
    feed(*conn, short_frame(0x81, "any"));
    EXPECT_THAT(conn->messages, ElementsAre("any"));
}

TEST(frame_reader, refuses_every_frame_where_the_frame_limit_is_negative) {
    const auto conn = upgraded_connection();
    conn->max_frame_length = -1;
    captured_output output;
    feed(*conn, short_frame(0x81, ""));
    EXPECT_EQ(output.take(), "Warning! Frame exceeds max length of -1.\n");
}

TEST(frame_reader, carries_a_message_of_many_full_frames) {
    const auto conn = upgraded_connection();
    conn->calls.clear();
    const std::string wire(1048574, 'w');
    for (int i = 0; i < 9; ++i) feed(*conn, long_frame(0x01, wire), 100000);
    EXPECT_EQ(conn->message.size(), 9U * 1048576);
    EXPECT_EQ(conn->data, "");
    feed(*conn, short_frame(0x88, ""));
    EXPECT_EQ(drain(*conn).bytes(), "");
}

TEST(frame_reader, empties_the_message_after_the_hook_and_gives_large_storage_back) {
    const auto conn = upgraded_connection();
    captured_output output;
    feed(*conn, long_frame(0x81, std::string(500000, 'w')));
    ASSERT_EQ(conn->messages.size(), 1U);
    EXPECT_EQ(conn->message, "");
    EXPECT_LT(conn->message.capacity(), 10000U);
    EXPECT_LT(conn->data.capacity(), 10000U);
}

TEST(frame_reader, survives_a_hook_that_resets_the_connection) {
    class resetting_connection : public recording_connection {
    public:
        void on_message() override { reset(); }
    };
    const auto conn = std::make_unique_for_overwrite<resetting_connection>();
    conn->upgraded = conn->headers_done = true;
    feed(*conn, short_frame(0x81, "a") + short_frame(0x81, "b"));
    EXPECT_EQ(conn->data, "");
}

TEST(frame_reader, answers_alike_for_damaged_frames_whole_and_in_pieces) {
    std::mt19937 random(20240229); // NOLINT: every run must damage the same bytes
    const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    for (int round = 0; round < 3000; ++round) {
        std::string wire;
        for (std::size_t i = 1 + below(4); i > 0; --i)
            wire += frame_cases[below(std::size(frame_cases))].wire;
        for (std::size_t i = below(4); i > 0; --i)
            wire[below(wire.size())] = static_cast<char>(below(256));
        wire.resize(1 + below(wire.size()));
        SCOPED_TRACE(testing::Message() << "round " << round);

        captured_output output;
        const auto whole = upgraded_connection();
        feed(*whole, wire);
        const auto pieces = upgraded_connection();
        feed(*pieces, wire, 1 + below(wire.size()));

        ASSERT_EQ(whole->messages, pieces->messages);
        ASSERT_EQ(whole->keep_alive, pieces->keep_alive);
        ASSERT_EQ(whole->timeout, whole->keep_alive ? -1 : 0);
        if (whole->keep_alive) {
            ASSERT_EQ(whole->data, pieces->data);
            ASSERT_EQ(whole->message, pieces->message);
        }
        ASSERT_EQ(drain(*whole).bytes(), drain(*pieces).bytes());
    }
}

TEST(frame_reader, acts_on_the_frames_of_a_block_behind_a_hook_that_clears_keep_alive) {
    class leaving_connection : public recording_connection {
    public:
        void on_upgrade() override {}
        void on_message() override {
            keep_alive = false;
            recording_connection::on_message();
        }
    };
    const auto conn = std::make_unique_for_overwrite<leaving_connection>();
    conn->upgraded = conn->headers_done = conn->written = true;
    feed(*conn, short_frame(0x81, "1") + short_frame(0x81, "2"));
    EXPECT_EQ(conn->messages, (std::vector<std::string>{"1", "2"}));
    feed(*conn, short_frame(0x81, "3"));
    EXPECT_EQ(conn->messages.size(), 2U) << "what comes later is not read";
}
