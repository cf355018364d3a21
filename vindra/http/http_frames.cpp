// WebSocket frames: reading them without speak_websocket(), and sending them.
//
// Layout of a client's frame, by the low seven bits of its second byte. Positions count from its
// start:
//
//   bits        payload length          masking key   payload
//   0 to 125    those bits              2 to 5        from 6
//   126         2 and 3, low first      4 to 7        from 8
//   127         8 to 15, low first      16 to 19      from 14
//
// The two extended forms differ from RFC 6455, section 5.2: the low byte comes first, and the key
// of the longest form lies inside the payload. Payloads of up to 125 bytes are read as in the RFC.
// Sent frames always follow the RFC.

#include "vindra/base/print.h"
#include "vindra/http/http_connection.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include <sys/types.h>

namespace {

constexpr unsigned final_bit = 128;
constexpr unsigned mask_bit = 128;

// Two bytes and a masking key: the shortest frame that a client may send.
constexpr std::size_t shortest_frame = 6;

// Without speak_websocket(), a payload of this length or more is sent without a length.
constexpr std::size_t payload_limit = 1048576;

enum frame_kind : int { continuation = 0, text = 1, binary = 2, closing = 8, ping = 9, pong = 10 };

// Positions in the received bytes. The length may be anything up to 2^64, so it is a double.
struct frame_layout {
    std::size_t key;
    std::size_t payload;
    double length;
};

std::uint8_t byte_at(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint8_t>(bytes[at]);
}

double low_byte_first(std::string_view bytes, std::size_t at, std::size_t count) {
    double value = 0;
    for (std::size_t i = count; i > 0; --i) value = value * 256 + byte_at(bytes, at + i - 1);
    return value;
}

// Returns nothing while the length is unknown. The tests for 8 and 14 count all bytes, those of
// earlier frames too, so a length may be known before its head is complete.
std::optional<frame_layout> read_layout(std::string_view bytes, std::size_t at) {
    const unsigned short_length = byte_at(bytes, at + 1) & 127U;
    if (short_length < 126) {
        return frame_layout{at + 2, at + 6, static_cast<double>(short_length)};
    }
    if (short_length == 126) {
        if (bytes.size() < 8) return std::nullopt;
        return frame_layout{at + 4, at + 8, low_byte_first(bytes, at + 2, 2)};
    }
    if (bytes.size() < 14 || bytes.size() < at + 16) return std::nullopt;
    return frame_layout{at + 16, at + 14, low_byte_first(bytes, at + 8, 8)};
}

// True if all bytes that unmasking reads are there. The key may end behind a short payload.
bool is_complete(const frame_layout& frame, std::size_t size) {
    if (frame.payload > size) return false;
    if (frame.length > static_cast<double>(size - frame.payload)) return false;
    return frame.key + std::min<std::size_t>(static_cast<std::size_t>(frame.length), 4) <= size;
}

std::string unmask(std::string_view bytes, const frame_layout& frame) {
    std::array<char, 4> key{};
    bytes.copy(key.data(), key.size(), frame.key);
    std::string payload(bytes.substr(frame.payload, static_cast<std::size_t>(frame.length)));
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(payload[i] ^ key[i % key.size()]);
    }
    return payload;
}

void append_high_byte_first(std::string& out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>(value >> (8 * i));
}

} // namespace

void http_connection::read_frames() {
    if (websocket_ != websocket_stage_::off) return read_messages_();
    std::size_t done = 0;
    while (done + shortest_frame <= data.size()) {
        const frame_outcome_ outcome = take_frame_(done);
        if (outcome == frame_outcome_::ended) return;
        if (outcome == frame_outcome_::incomplete) break;
    }
    data.erase(0, done);
    if (data.empty()) empty_(data);
}

http_connection::frame_outcome_ http_connection::take_frame_(std::size_t& at) {
    const unsigned first = byte_at(data, at);
    if (!(byte_at(data, at + 1) & mask_bit)) {
        base::puts("Warning! Incoming frame has no mask.");
        return end_frames_();
    }

    const std::optional<frame_layout> frame = read_layout(data, at);
    if (!frame) return frame_outcome_::incomplete;
    if (frame->length > max_frame_length) {
        base::printf("Warning! Frame exceeds max length of %d.\n", max_frame_length);
        return end_frames_();
    }
    if (!is_complete(*frame, data.size())) return frame_outcome_::incomplete;

    const std::string payload = unmask(data, *frame);
    at = frame->payload + payload.size();
    assert(at <= data.size());
    return act_on_frame_(static_cast<int>(first & 15U), (first & final_bit) != 0, payload);
}

http_connection::frame_outcome_ http_connection::act_on_frame_(int code, bool final,
                                                               const std::string& payload) {
    switch (code) {
    case continuation:
    case text:
    case binary:
        return add_to_message_(payload, final);
    case closing:
        return end_frames_();
    case ping:
        send_message(payload, pong);
        return frame_outcome_::taken;
    default:
        base::printf("Warning! Unhandled opcode: %d\n", code);
        return frame_outcome_::taken;
    }
}

http_connection::frame_outcome_ http_connection::add_to_message_(const std::string& payload,
                                                                 bool final) {
    message += payload;
    if (message.size() > static_cast<unsigned>(max_message_length)) {
        base::printf("Warning! Message exceeds max length of %d.\n", max_message_length);
        return end_frames_();
    }
    if (final) {
        on_message();
        empty_(message);
    }
    return frame_outcome_::taken;
}

http_connection::frame_outcome_ http_connection::end_frames_() {
    keep_alive = false;
    timeout = 0;
    return frame_outcome_::ended;
}

void http_connection::on_message() {
    send_message(message, text);
}

void http_connection::send_message(const std::string& payload, int opcode) {
    // Nothing may follow a close frame.
    if (websocket_ > websocket_stage_::open) return;
    const std::size_t length = payload.size();
    std::string frame;
    frame.reserve(length + 10);
    frame += static_cast<char>(final_bit | (static_cast<unsigned>(opcode) & 127U));
    if (length <= 125) {
        frame += static_cast<char>(length);
    } else if (length < 65536) {
        frame += static_cast<char>(126);
        append_high_byte_first(frame, length, 2);
    } else if (length < payload_limit || websocket_ != websocket_stage_::off) {
        frame += static_cast<char>(127);
        append_high_byte_first(frame, length, 8);
    } else {
        // Sent without a length all the same, so the client sees a broken frame instead of silence.
        base::printf("send_message() error! Message too long: %zd\n", static_cast<ssize_t>(length));
    }
    frame += payload;
    queue_text_(std::move(frame));
}
