#include "tests/support/captured_output.h"
#include "tests/support/frames.h"

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int message_limit = 70000;

const std::string handshake_head = "GET /live HTTP/1.1\r\nHost: a\r\nUpgrade: WebSocket\r\n"
                                   "Connection: keep-alive, upgrade\r\n"
                                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                                   "Sec-WebSocket-Version: 13\r\n";
const std::string handshake = handshake_head + "\r\n";

// Echoes each message with its opcode, and notes both.
class websocket_connection : public recording_connection {
public:
    websocket_connection() {
        speak_websocket();
        max_message_length = message_limit;
    }
    void on_headers() override {
        recording_connection::on_headers();
        if (choose) choose(*this);
    }
    void on_message() override {
        calls += "message ";
        seen += std::to_string(message_opcode()) + ":" + message + " ";
        if (react) return react(*this);
        send_message(message, message_opcode());
    }

    // What on_headers() does besides, and on_message() instead.
    std::function<void(websocket_connection&)> choose;
    std::function<void(websocket_connection&)> react;
    std::string seen;
};

std::unique_ptr<websocket_connection> new_client() {
    return std::make_unique_for_overwrite<websocket_connection>();
}

std::unique_ptr<websocket_connection> upgraded() {
    auto conn = new_client();
    feed(*conn, handshake);
    drain(*conn);
    conn->calls.clear();
    return conn;
}

// Long after the last byte: nobody is waited for.
bool stays_open(http_connection& conn) {
    conn.last_active -= 5;
    return drain(conn).open;
}

std::string server_frame(int first, const std::string& payload) {
    std::string frame = standard_frame(first, payload, "\0\0\0\0"s);
    frame[1] = static_cast<char>(frame[1] & 0x7F);
    return frame.erase(frame.size() - payload.size() - 4, 4);
}

std::string code(int number) {
    return {static_cast<char>(number / 256), static_cast<char>(number % 256)};
}

std::string text(const std::string& payload) {
    return standard_frame(0x81, payload);
}

std::string closed_with(int number) {
    return server_frame(0x88, code(number));
}

std::string changed(std::string frame, std::size_t at, char byte) {
    frame[at] = byte;
    return frame;
}

struct conversation {
    const char* name;
    std::string wire;
    std::string seen;
    std::string sent;
    bool open = true;
    int close_code = 0;
};

const std::string s125(125, 'a'), s126(126, 'b'), s65535(65535, 'c'), s65536(65536, 'd');

const conversation conversations[] = {
    {"text", text("hi"), "1:hi ", server_frame(0x81, "hi")},
    {"binary", standard_frame(0x82, "\xFF\0"s), "2:\xFF\0 "s, server_frame(0x82, "\xFF\0"s)},
    {"empty", text(""), "1: ", server_frame(0x81, "")},
    {"two frames", text("a") + text("b"), "1:a 1:b ",
     server_frame(0x81, "a") + server_frame(0x81, "b")},
    {"125 bytes", text(s125), "1:" + s125 + " ", server_frame(0x81, s125)},
    {"126 bytes", text(s126), "1:" + s126 + " ", server_frame(0x81, s126)},
    {"65535 bytes", text(s65535), "1:" + s65535 + " ", server_frame(0x81, s65535)},
    {"65536 bytes", text(s65536), "1:" + s65536 + " ", server_frame(0x81, s65536)},
    {"fragments", standard_frame(0x02, "a") + standard_frame(0x00, "") + standard_frame(0x80, "b"),
     "2:ab ", server_frame(0x82, "ab")},
    {"control frames between fragments",
     standard_frame(0x01, "a") + standard_frame(0x89, "x") + standard_frame(0x00, "b") +
         standard_frame(0x8A, "?") + standard_frame(0x80, "c"),
     "1:abc ", server_frame(0x8A, "x") + server_frame(0x81, "abc")},
    {"close between fragments",
     standard_frame(0x01, "a") + standard_frame(0x88, code(1001)) + standard_frame(0x80, "b"), "",
     closed_with(1001), false, 1001},
    {"a character across fragments",
     standard_frame(0x01, "\xE2\x82") + standard_frame(0x80, "\xAC"), "1:\u20AC ",
     server_frame(0x81, "\u20AC")},
    {"ping", standard_frame(0x89, s125), "", server_frame(0x8A, s125)},
    {"pong", standard_frame(0x8A, "x"), "", ""},
    {"close", standard_frame(0x88, code(1000) + "bye"), "", closed_with(1000), false, 1000},
    {"close without a code", standard_frame(0x88, ""), "", server_frame(0x88, ""), false, 1005},
    {"nothing is read behind a close", standard_frame(0x88, code(4999)) + text("a"), "",
     closed_with(4999), false, 4999},
    {"two closes", standard_frame(0x88, code(3000)) + standard_frame(0x88, code(3001)), "",
     closed_with(3000), false, 3000},

    {"no mask", server_frame(0x81, "text"), "", closed_with(1002), false},
    {"reserved bit 1", standard_frame(0xC1, "a"), "", closed_with(1002), false},
    {"reserved bit 2", standard_frame(0xA1, "a"), "", closed_with(1002), false},
    {"reserved bit 3", standard_frame(0x91, "a"), "", closed_with(1002), false},
    {"opcode 3", standard_frame(0x83, "a"), "", closed_with(1002), false},
    {"opcode 7", standard_frame(0x87, "a"), "", closed_with(1002), false},
    {"opcode 11", standard_frame(0x8B, "a"), "", closed_with(1002), false},
    {"opcode 15", standard_frame(0x8F, "a"), "", closed_with(1002), false},
    {"ping of 126 bytes", standard_frame(0x89, s126), "", closed_with(1002), false},
    {"ping in pieces", standard_frame(0x09, "a"), "", closed_with(1002), false},
    {"close in pieces", standard_frame(0x08, ""), "", closed_with(1002), false},
    {"continuation of nothing", standard_frame(0x80, "a"), "", closed_with(1002), false},
    {"a message within a message", standard_frame(0x01, "a") + text("b"), "", closed_with(1002),
     false},
    {"a fault behind a message", text("a") + standard_frame(0x83, ""), "1:a ",
     server_frame(0x81, "a") + closed_with(1002), false},
    {"short length in the 126 form", changed(text(s126), 3, '\x7D'), "", closed_with(1002), false},
    {"short length in the 127 form", changed(changed(text(s65536), 7, 0), 9, '\x7F'), "",
     closed_with(1002), false},
    {"top bit of the 127 form", changed(text(s65536), 2, '\x80'), "", closed_with(1002), false},
    {"close with half a code", standard_frame(0x88, "\x03"), "", closed_with(1002), false},
    {"close with a code that none may send", standard_frame(0x88, code(1005)), "",
     closed_with(1002), false},
    {"close with a reason that is no text", standard_frame(0x88, code(1000) + "\xFF"), "",
     closed_with(1007), false},
    {"text that is not UTF-8", text("a\xC0\x80"), "", closed_with(1007), false},
    {"text cut within a character", text("\xE2\x82"), "", closed_with(1007), false},
    {"text beyond the last code point", text("\xF4\x90\x80\x80"), "", closed_with(1007), false},
    {"surrogate", text("\xED\xA0\x80"), "", closed_with(1007), false},
    {"too long", text(std::string(message_limit + 1, 'x')), "", closed_with(1009), false},
    {"too long in pieces",
     standard_frame(0x01, s65536) + standard_frame(0x00, std::string(message_limit - 65535, 'x')),
     "", closed_with(1009), false},
    {"as long as allowed, in pieces",
     standard_frame(0x01, s65536) + standard_frame(0x80, std::string(message_limit - 65536, 'x')),
     "1:" + s65536 + std::string(message_limit - 65536, 'x') + " ",
     server_frame(0x81, s65536 + std::string(message_limit - 65536, 'x'))},
    {"far too long", "\x82\xFF\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFFKEYS"s, "", closed_with(1009), false},
};

struct handshake_case {
    const char* name;
    std::string request;
    const char* status;
};

std::string with(const std::string& from, const std::string& to) {
    std::string request = handshake;
    return request.replace(request.find(from), from.size(), to);
}

const handshake_case handshakes[] = {
    {"browser", handshake, "101 Switching Protocols"},
    {"two Connection lines", with("keep-alive, upgrade", "a\r\nconnection:Upgrade"),
     "101 Switching Protocols"},
    {"no Upgrade", with("Upgrade: WebSocket\r\n", ""), "200 OK"},
    {"another protocol", with("WebSocket", "h2c"), "200 OK"},
    {"no upgrade in Connection", with(", upgrade", ""), "200 OK"},
    {"no key", with("Key", "Kex"), "400 Bad Request"},
    {"short key", with("dGhlI", ""), "400 Bad Request"},
    {"old version", with("Version: 13", "Version: 8"), "400 Bad Request"},
    {"POST", with("GET", "POST"), "400 Bad Request"},
    {"HTTP/1.0", with("HTTP/1.1", "HTTP/1.0"), "400 Bad Request"},
};

} // namespace

TEST(websocket, converses_as_the_standard_says_in_every_piece_size) {
    for (const conversation& c : conversations) {
        const bool is_long = c.wire.size() > 1000;
        for (const std::size_t piece :
             {c.wire.size(), std::size_t{1}, std::size_t{2}, std::size_t{is_long ? 1021U : 3U}}) {
            SCOPED_TRACE(testing::Message() << c.name << ", pieces of " << piece);
            const auto conn = upgraded();
            captured_output output;
            feed(*conn, c.wire, piece);
            ASSERT_TRUE(conn->seen == c.seen) << conn->seen.substr(0, 100);
            const std::string sent = drain(*conn).bytes();
            ASSERT_TRUE(sent == c.sent) << testing::PrintToString(sent.substr(0, 100));
            EXPECT_EQ(stays_open(*conn), c.open);
            EXPECT_EQ(conn->close_code(), c.close_code);
            EXPECT_EQ(output.take(), "");
        }
    }
}

TEST(websocket, reads_alike_wherever_a_conversation_is_cut) {
    const std::string wire = text("a") + standard_frame(0x01, s126) + standard_frame(0x89, "x") +
                             standard_frame(0x80, "b") + standard_frame(0x88, code(1000));
    for (std::size_t cut = 0; cut <= wire.size(); ++cut) {
        const auto conn = upgraded();
        feed_cut(*conn, wire, cut);
        ASSERT_EQ(conn->seen, "1:a 1:" + s126 + "b ") << "cut at " << cut;
        ASSERT_EQ(conn->close_code(), 1000);
    }
}

TEST(websocket, takes_a_frame_that_comes_with_the_handshake) {
    const auto conn = new_client();
    feed(*conn, handshake + text("early"));
    EXPECT_EQ(conn->calls, "headers upgrade data message ");
    EXPECT_THAT(drain(*conn).bytes(), EndsWith("\r\n\r\n" + server_frame(0x81, "early")));
}

TEST(websocket, answers_each_handshake_as_it_deserves) {
    for (const handshake_case& c : handshakes) {
        SCOPED_TRACE(c.name);
        const auto conn = new_client();
        feed(*conn, c.request, 7);
        EXPECT_THAT(drain(*conn).bytes(), StartsWith("HTTP/1.1 "s + c.status + "\r\n"));
        EXPECT_EQ(conn->upgraded, c.status[0] == '1');
    }
}

TEST(websocket, answers_a_handshake_without_a_length) {
    const auto conn = new_client();
    feed(*conn, handshake);
    EXPECT_EQ(drain(*conn).bytes(), "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                                    "Connection: Upgrade\r\n"
                                    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n");
}

TEST(websocket, tells_the_version_it_speaks_to_whom_it_refuses) {
    const auto conn = new_client();
    feed(*conn, with("Version: 13", "Version: 8"));
    EXPECT_THAT(drain(*conn).bytes(), HasSubstr("\r\nSec-WebSocket-Version: 13\r\n"));
}

TEST(websocket, lets_a_hook_refuse_a_handshake_and_reads_the_next_request) {
    for (const bool strictly : {false, true}) {
        const auto conn = new_client();
        if (strictly) conn->read_strictly();
        conn->choose = [](http_connection& c) {
            if (c.is_handshake()) c.answer(403, "", "no");
        };
        feed(*conn, handshake);
        const std::string refusal = drain(*conn).bytes();
        EXPECT_EQ(refusal, "HTTP/1.1 403 Forbidden\r\nContent-Length: 2\r\n\r\nno");
        EXPECT_FALSE(conn->upgraded);
        feed(*conn, "GET /2 HTTP/1.1\r\nHost: a\r\n\r\n");
        EXPECT_EQ(conn->calls, "headers headers request ");
    }
}

TEST(websocket, names_the_subprotocol_that_was_chosen) {
    std::vector<bool> offered;
    const auto choose = [&offered](http_connection& conn) {
        for (const char* name : {"mqtt", "chat.v1", "ch"})
            offered.push_back(conn.choose_protocol(name));
    };
    const auto conn = new_client();
    conn->choose = choose;
    feed(*conn, handshake_head + "Sec-WebSocket-Protocol: chat.v2\r\n"
                                 "Sec-WebSocket-Protocol: soap , chat.v1\r\n\r\n");
    EXPECT_THAT(drain(*conn).bytes(), HasSubstr("=\r\nSec-WebSocket-Protocol: chat.v1\r\n\r\n"));
    EXPECT_EQ(offered, (std::vector<bool>{false, true, false}));
}

TEST(websocket, reads_no_frames_for_a_class_that_does_not_accept) {
    class refusing_connection : public websocket_connection {
        void on_upgrade() override { keep_alive = false; }
    };
    const auto conn = std::make_unique_for_overwrite<refusing_connection>();
    feed(*conn, handshake + text("a"));
    EXPECT_EQ(conn->seen, "");
    EXPECT_EQ(conn->data, "");
    EXPECT_FALSE(drain(*conn).open);
}

TEST(websocket, sends_a_message_of_any_length) {
    const auto conn = upgraded();
    const std::string payload(3000000, 'x');
    captured_output output;
    conn->send_message(payload, 2);
    EXPECT_TRUE(drain(*conn).bytes() == server_frame(0x82, payload));
    EXPECT_EQ(output.take(), "");
}

TEST(websocket, has_an_opcode_during_a_message_only) {
    const auto conn = upgraded();
    feed(*conn, standard_frame(0x02, "a"));
    EXPECT_EQ(conn->message_opcode(), 2);
    feed(*conn, standard_frame(0x80, "b"));
    EXPECT_EQ(conn->message_opcode(), 0);
}

TEST(websocket, waits_for_the_answer_to_its_close_frame) {
    const auto conn = upgraded();
    conn->send_close(4001, "enough");
    EXPECT_EQ(drain(*conn).bytes(), server_frame(0x88, code(4001) + "enough"));
    feed(*conn, text("dropped"));
    EXPECT_EQ(conn->seen, "");
    EXPECT_TRUE(drain(*conn).open);
    feed(*conn, standard_frame(0x88, code(4001)));
    EXPECT_EQ(conn->close_code(), 4001);
    const drained end = drain(*conn);
    EXPECT_EQ(end.bytes(), "");
    EXPECT_FALSE(end.open);
}

TEST(websocket, does_not_wait_for_a_silent_client_for_long) {
    const auto conn = upgraded();
    conn->last_active -= 3600;
    conn->send_close();
    EXPECT_EQ(drain(*conn).bytes(), closed_with(1000));
    EXPECT_GE(conn->last_active, std::time(nullptr) - 1);
    EXPECT_GT(conn->timeout, 0);
    conn->last_active -= 2;
    EXPECT_FALSE(drain(*conn).open);
}

TEST(websocket, does_not_wait_for_a_client_that_sends_on_and_on) {
    const auto conn = upgraded();
    conn->send_close();
    drain(*conn);
    const std::string block = standard_frame(0x82, s65535);
    for (int i = 0; i < 15; ++i) feed(*conn, block);
    EXPECT_TRUE(drain(*conn).open);
    for (int i = 0; i < 2; ++i) feed(*conn, block);
    EXPECT_FALSE(drain(*conn).open);
}

TEST(websocket, keeps_nothing_of_what_comes_behind_a_fault) {
    const auto conn = upgraded();
    feed(*conn, standard_frame(0x83, "x"));
    drain(*conn);
    feed(*conn, text("a"));
    feed(*conn, std::string(100000, 'x'));
    EXPECT_EQ(conn->data, "");
    EXPECT_EQ(conn->seen, "");
    EXPECT_TRUE(drain(*conn).open);
    EXPECT_FALSE(stays_open(*conn));
}

TEST(websocket, sends_nothing_behind_its_close_frame) {
    const auto conn = upgraded();
    conn->subscribe("all");
    conn->send_close();
    conn->send_close(4000);
    conn->send_message("late", 1);
    http_connection::publish("all", "late", 1);
    feed(*conn, standard_frame(0x89, "x"));
    EXPECT_EQ(drain(*conn).bytes(), closed_with(1000));
}

TEST(websocket, closes_from_a_message_and_hands_on_no_other) {
    const auto conn = upgraded();
    conn->react = [](http_connection& c) { c.send_close(1003); };
    feed(*conn, text("a") + text("b"));
    EXPECT_EQ(conn->seen, "1:a ");
    EXPECT_EQ(drain(*conn).bytes(), closed_with(1003));
}

TEST(websocket, reads_no_more_when_a_hook_ends_the_connection) {
    const auto conn = upgraded();
    conn->react = [](http_connection& c) { c.end_after_answer(); };
    feed(*conn, text("a") + text("b"));
    feed(*conn, text("c"));
    EXPECT_EQ(conn->seen, "1:a ");
    EXPECT_EQ(conn->data, "");
    EXPECT_FALSE(drain(*conn).open);
}

TEST(websocket, sends_close_frames_that_a_client_may_read) {
    struct row {
        int number;
        std::string reason;
        std::string payload;
    };
    for (const row& r : {row{1005, "", ""}, row{1005, "why", ""},
                         row{1000, std::string(123, 'y'), code(1000) + std::string(123, 'y')},
                         row{1000, std::string(124, 'y'), code(1000)}}) {
        const auto conn = upgraded();
        conn->send_close(r.number, r.reason);
        EXPECT_EQ(drain(*conn).bytes(), server_frame(0x88, r.payload));
    }
}

TEST(websocket, closes_nothing_before_the_upgrade_or_by_the_short_form) {
    const auto fresh = new_client();
    fresh->send_close();
    EXPECT_TRUE(fresh->keep_alive);
    const auto other = upgraded_connection();
    other->send_close();
    EXPECT_EQ(drain(*other).bytes(), "");
    EXPECT_TRUE(other->keep_alive);
}

TEST(websocket, answers_pings_that_wait_with_one_pong) {
    const auto conn = upgraded();
    for (int i = 0; i < 1000; ++i) feed(*conn, standard_frame(0x89, std::to_string(i)));
    EXPECT_EQ(conn->parts.count, 1);
    feed(*conn, text("a") + standard_frame(0x89, "last"));
    EXPECT_EQ(drain(*conn).bytes(),
              server_frame(0x8A, "999") + server_frame(0x81, "a") + server_frame(0x8A, "last"));
}

TEST(websocket, leaves_a_pong_alone_that_has_begun_to_leave) {
    const auto conn = upgraded();
    feed(*conn, standard_frame(0x89, "first"));
    std::string sent = send_once(*conn, 3).bytes;
    feed(*conn, standard_frame(0x89, "second"));
    sent += drain(*conn).bytes();
    EXPECT_EQ(sent, server_frame(0x8A, "first") + server_frame(0x8A, "second"));
}

TEST(websocket, leaves_its_channels_when_the_client_is_gone_within_a_message) {
    {
        const auto conn = upgraded();
        conn->subscribe("gone");
        feed(*conn, standard_frame(0x01, "a") + standard_frame(0x80, "b").substr(0, 6));
        ASSERT_NE(http_connection::channels().get("gone"), nullptr);
        EXPECT_EQ(conn->close_code(), 0);
    }
    EXPECT_EQ(http_connection::channels().get("gone"), nullptr);
}

TEST(websocket, is_quiet_while_nothing_waits_and_nothing_ends) {
    for (const bool by_standard : {true, false}) {
        const std::unique_ptr<recording_connection> conn =
            by_standard ? upgraded() : upgraded_connection();
        EXPECT_TRUE(conn->is_quiet());
        feed(*conn, short_frame(0x89, "ping"));
        EXPECT_FALSE(conn->is_quiet());
        drain(*conn);
        EXPECT_TRUE(conn->is_quiet());
        feed(*conn, short_frame(0x88, ""));
        drain(*conn);
        EXPECT_FALSE(conn->is_quiet());
    }
}

TEST(websocket, is_not_quiet_while_it_waits_for_a_close_frame) {
    const auto conn = upgraded();
    conn->send_close();
    drain(*conn);
    EXPECT_FALSE(conn->is_quiet());
}

TEST(websocket, stays_in_the_short_form_unless_asked) {
    const auto conn = upgraded_connection();
    feed(*conn, standard_frame(0x88, code(1000)));
    EXPECT_EQ(drain(*conn).bytes(), "");
    EXPECT_EQ(conn->close_code(), 0);
    EXPECT_EQ(conn->message_opcode(), 0);
}
