// WebSocket by RFC 6455 in arbitrary pieces, beside a reader that is written down plainly here.
//
// Input: a byte, one less than the length of a piece; a byte whose lowest bit asks for a small
// limit; then frames as a client sends them. A message that begins with B is answered by a close
// frame, any other is sent back.

#include "vindra/http/http_connection.h"

#include "fuzz/fuzz.h"
#include "fuzz/utf8.h"
#include "tests/support/drain.h"
#include "tests/support/feed.h"

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr const char* handshake = "GET / HTTP/1.1\r\nHost: a\r\nUpgrade: websocket\r\n"
                                  "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
constexpr int small_limit = 300;

class echo_connection : public http_connection {
public:
    explicit echo_connection(int limit) {
        speak_websocket();
        max_message_length = limit;
    }
    void on_headers() override {}
    void on_upgrade() override {}
    void on_message() override {
        messages.push_back(std::to_string(message_opcode()) + message);
        if (message.starts_with('B')) return send_close(4000);
        send_message(message, message_opcode());
    }
    std::vector<std::string> messages;
};

std::string frame_of(unsigned first, const std::string& payload) {
    std::string frame(1, static_cast<char>(first));
    const std::size_t n = payload.size();
    const int bytes = n < 126 ? 0 : n < 65536 ? 2 : 8;
    frame += static_cast<char>(bytes == 0 ? n : bytes == 2 ? 126 : 127);
    for (int i = bytes - 1; i >= 0; --i) frame += static_cast<char>(n >> (8 * i) & 255U);
    return frame + payload;
}

std::string code_bytes(unsigned code) {
    return {static_cast<char>(code >> 8), static_cast<char>(code & 255U)};
}

bool is_text(const std::string& text) {
    for (const std::uint32_t c : code_points_of(text))
        if (c > 0x10FFFF) return false;
    return true;
}

// As one would write it without a thought of speed.
class plain_reader {
public:
    explicit plain_reader(std::size_t limit) : limit_(limit) {}

    void on_data(const std::string& block) {
        if (ended) return;
        data += block;
        while (!ended && take_frame()) {
        }
        if (ended) data.clear();
    }

    // Frames since the last call.
    std::string take_sent() {
        std::string all;
        for (const std::string& frame : sent_) all += frame;
        sent_.clear();
        return all;
    }

    bool closing = false;
    bool ended = false;
    unsigned client_code = 0;
    std::string data;
    std::string message;
    std::vector<std::string> messages;

private:
    bool take_frame() {
        if (data.size() < 2) return false;
        const unsigned first = at(0);
        const unsigned seven = at(1) & 127U;
        const unsigned code = first & 15U;
        const bool control = code > 7;
        if ((first & 0x70U) != 0 || at(1) < 128 || (code > 2 && code < 8) || code > 10 ||
            (control && (first < 128 || seven > 125)))
            return fail(1002);

        const std::size_t bytes = seven < 126 ? 0 : seven == 126 ? 2 : 8;
        if (data.size() < 6 + bytes) return false;
        std::uint64_t length = bytes == 0 ? seven : 0;
        for (std::size_t i = 0; i < bytes; ++i) length = length * 256 + at(2 + i);
        if ((bytes == 2 && length < 126) || (bytes == 8 && (length < 65536 || length >> 63 != 0)))
            return fail(1002);
        if (!control && (code == 0) != (message_code_ != 0)) return fail(1002);
        if (!control && message.size() + length > limit_) return fail(1009);
        if (data.size() < 6 + bytes + length) return false;

        std::string payload;
        for (std::size_t i = 0; i < length; ++i)
            payload += static_cast<char>(at(6 + bytes + i) ^ at(2 + bytes + i % 4));
        data.erase(0, 6 + bytes + length);
        return act(code, first >= 128, payload);
    }

    bool act(unsigned code, bool last, const std::string& payload) {
        if (code == 10) return true;
        if (code == 9) return pong(payload);
        if (code == 8) return close(payload);
        if (message_code_ == 0) message_code_ = code;
        message += payload;
        if (!last) return true;
        if (message_code_ == 1 && !is_text(message)) return fail(1007);
        if (!closing) {
            messages.push_back(std::to_string(message_code_) + message);
            if (message[0] == 'B') {
                send_close(code_bytes(4000));
            } else {
                sent_.push_back(frame_of(128 | message_code_, message));
            }
        }
        message_code_ = 0;
        message.clear();
        return true;
    }

    bool pong(const std::string& payload) {
        if (closing) return true;
        if (!sent_.empty() && sent_.back()[0] == '\x8A') sent_.pop_back();
        sent_.push_back(frame_of(0x8A, payload));
        return true;
    }

    bool close(const std::string& payload) {
        const unsigned code = payload.size() < 2 ? 0
                                                 : static_cast<unsigned char>(payload[0]) * 256U +
                                                       static_cast<unsigned char>(payload[1]);
        const bool known = (code >= 1000 && code <= 1014 && (code < 1004 || code > 1006)) ||
                           code / 1000 == 3 || code / 1000 == 4;
        if (!payload.empty() && !known) return fail(1002);
        if (!payload.empty() && !is_text(payload.substr(2))) return fail(1007);
        client_code = payload.empty() ? 1005 : code;
        send_close(payload.substr(0, 2));
        ended = true;
        return false;
    }

    bool fail(unsigned code) {
        send_close(code_bytes(code));
        ended = true;
        return false;
    }

    void send_close(const std::string& payload) {
        if (!closing) sent_.push_back(frame_of(0x88, payload));
        closing = true;
    }

    unsigned at(std::size_t i) const { return static_cast<unsigned char>(data.at(i)); }

    std::size_t limit_;
    unsigned message_code_ = 0;
    std::vector<std::string> sent_;
};

void compare(const echo_connection& conn, const plain_reader& plain) {
    require(conn.messages == plain.messages, "the messages are those that were sent");
    require(conn.keep_alive == !plain.closing, "the connection ends when it has to");
    require(conn.close_code() == static_cast<int>(plain.client_code), "the code is the client's");
    require(conn.data == plain.data, "the same bytes wait");
    if (!plain.ended)
        require(conn.message == plain.message, "of an unfinished one the same is kept");
}

// In pieces beside the plain reader, after each of them.
std::unique_ptr<echo_connection> follow(const std::string& wire, std::size_t piece, int limit) {
    std::unique_ptr<echo_connection> conn(new echo_connection(limit));
    feed(*conn, handshake);
    drain(*conn);
    plain_reader plain(static_cast<std::size_t>(limit));
    for (std::size_t at = 0; at < wire.size(); at += piece) {
        feed(*conn, wire.substr(at, piece));
        plain.on_data(wire.substr(at, piece));
        compare(*conn, plain);
        require(drain(*conn).bytes() == plain.take_sent(), "the answers are those that are due");
    }
    conn->last_active -= 5;
    require(drain(*conn).open == !plain.closing, "it ends when nobody is waited for any more");
    return conn;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    source in(data, size);
    const unsigned piece = in.byte() + 1;
    const int limit = in.below(2) != 0 ? small_limit : 1048576;
    const std::string wire(in.rest());
    const auto pieces = follow(wire, piece, limit);
    const auto whole = follow(wire, wire.size() + 1, limit);
    require(whole->messages == pieces->messages, "the messages are the same in pieces");
    require(whole->close_code() == pieces->close_code(), "the code is the same in pieces");
    require(whole->data == pieces->data, "the same bytes wait in the end");
    return 0;
}
