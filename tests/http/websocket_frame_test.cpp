#include "vindra/http/private/websocket_frame.h"

#include "tests/support/frames.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(websocket_frame, reads_a_head_when_all_of_it_is_there) {
    for (const std::size_t length : {0U, 125U, 126U, 65535U, 65536U}) {
        const std::string wire = standard_frame(0x02, std::string(length, 'x'));
        const std::size_t head_size = wire.size() - length;
        for (std::size_t size = 0; size < head_size; ++size)
            ASSERT_FALSE(websocket_frame::read(wire.substr(0, size))) << size << " of " << length;
        const auto frame = websocket_frame::read(wire.substr(0, head_size));
        ASSERT_TRUE(frame && frame->sound) << length;
        EXPECT_EQ(frame->length, length);
        EXPECT_EQ(frame->head_size, head_size);
        EXPECT_EQ(frame->opcode, websocket_frame::binary);
        EXPECT_FALSE(frame->final);
    }
}

TEST(websocket_frame, tells_from_two_bytes_that_a_frame_may_not_be_sent) {
    for (const char* start :
         {"\x81\x05", "\xC1\x85", "\x83\x85", "\x8B\x80", "\x89\xFE", "\x09\x80"}) {
        const auto frame = websocket_frame::read(std::string_view(start, 2));
        ASSERT_TRUE(frame) << testing::PrintToString(start);
        EXPECT_FALSE(frame->sound) << testing::PrintToString(start);
    }
}

TEST(websocket_frame, appends_the_payload_alone) {
    const std::string wire = standard_frame(0x81, "payload");
    std::string out = "and ";
    websocket_frame::read(wire)->append_payload(out, wire + "more");
    EXPECT_EQ(out, "and payload");
}

TEST(websocket_frame, knows_the_codes_that_a_frame_may_carry) {
    const auto may = [](unsigned code) {
        return (code >= 1000 && code < 1004) || (code > 1006 && code < 1015) ||
               (code > 2999 && code < 5000);
    };
    for (unsigned code = 0; code < 65536; ++code) ASSERT_EQ(is_close_code(code), may(code)) << code;
}

TEST(websocket_frame, knows_text) {
    struct row {
        std::string text;
        bool is_text;
    };
    for (const row& r :
         {row{"", true}, row{"\0\x7F"s, true}, row{"\xC2\x80\xDF\xBF", true},
          row{"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", true},
          row{"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true}, row{"\x80", false}, row{"\xC1\xBF", false},
          row{"\xE0\x9F\xBF", false}, row{"\xED\xA0\x80", false}, row{"\xF0\x8F\xBF\xBF", false},
          row{"\xF4\x90\x80\x80", false}, row{"a\xE2\x82", false}, row{"\xE2\x82z", false},
          row{"\xFF", false}, row{"\xC3\0"s, false}})
        EXPECT_EQ(is_utf8(r.text), r.is_text) << testing::PrintToString(r.text);
}
