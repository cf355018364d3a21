// WebSocket by RFC 6455, for classes that call speak_websocket().
//
//   open -> closing -> deaf   we close first, and the client answers
//        -> deaf              the client closes first, or breaks a rule
//
// lingers_() tells how long the connection then stays open for the client to read our close frame.

#include "vindra/http/http_connection.h"
#include "vindra/http/private/request_head.h"
#include "vindra/http/private/websocket_frame.h"

#include <algorithm>
#include <ctime>

namespace {

// RFC 6455, section 7.4.1.
constexpr int protocol_error = 1002;
constexpr int no_close_code = 1005;
constexpr int not_utf8 = 1007;
constexpr int message_too_long = 1009;

// A client's key is 16 bytes in Base64.
constexpr std::size_t key_length = 24;

// Time-out while the close frame cannot be sent, because the client reads nothing.
constexpr int closing_seconds = 10;

// Bytes dropped behind our close frame before we stop waiting for the client's.
constexpr long long most_dropped = 1048576;

} // namespace

void http_connection::speak_websocket() {
    websocket_ = websocket_stage_::open;
}

bool http_connection::is_handshake() const {
    if (!websockets) return false;
    if (websocket_ == websocket_stage_::off)
        return find_header_("\r\nUpgrade", headers) == "websocket";
    return request_head::lists("Upgrade", "websocket", headers) &&
           request_head::lists("Connection", "Upgrade", headers);
}

bool http_connection::choose_protocol(std::string_view name) {
    if (!request_head::lists("Sec-WebSocket-Protocol", name, headers)) return false;
    extra_headers += "Sec-WebSocket-Protocol: ";
    extra_headers += name;
    extra_headers += "\r\n";
    return true;
}

void http_connection::answer_handshake_() {
    on_headers();
    if (written) return;
    const std::string key = header("Sec-WebSocket-Key").value_or("");
    if (method != "GET" || version == "HTTP/1.0" || key.size() != key_length ||
        header("Sec-WebSocket-Version") != "13") {
        extra_headers += "Sec-WebSocket-Version: 13\r\n";
        return answer(400, "", "");
    }
    written = true;
    queue_text_(upgrade_head_(key) + extra_headers + "\r\n");
    upgrade_();
}

void http_connection::read_messages_() {
    std::size_t done = 0;
    while (takes_frames_()) {
        const std::string_view bytes = std::string_view(data).substr(done);
        const auto frame = websocket_frame::read(bytes);
        if (!frame) break;
        if (const int fault = fault_of_(*frame)) {
            fail_(fault);
        } else if (bytes.size() - frame->head_size < frame->length) {
            break;
        } else {
            done += frame->head_size + static_cast<std::size_t>(frame->length);
            handle_frame_(*frame, bytes);
        }
    }
    if (!takes_frames_()) done = data.size();
    if (websocket_ != websocket_stage_::open) linger_bytes_ -= static_cast<long long>(done);
    data.erase(0, done);
    if (data.empty()) empty_(data);
}

// After end_after_answer() nothing more is read.
bool http_connection::takes_frames_() const {
    return websocket_ == websocket_stage_::closing ||
           (websocket_ == websocket_stage_::open && keep_alive);
}

int http_connection::fault_of_(const websocket_frame& frame) const {
    if (!frame.sound) return protocol_error;
    if (frame.is_control()) return 0;
    const bool goes_on = frame.opcode == websocket_frame::continuation;
    if (goes_on != (message_opcode_ != 0)) return protocol_error;
    const auto longest = static_cast<std::uint64_t>(std::max(max_message_length, 0));
    return message.size() + frame.length > longest ? message_too_long : 0;
}

void http_connection::handle_frame_(const websocket_frame& frame, std::string_view bytes) {
    if (!frame.is_control()) return take_fragment_(frame, bytes);
    std::string payload;
    frame.append_payload(payload, bytes);
    if (frame.opcode == websocket_frame::closing) answer_close_(payload);
    if (frame.opcode == websocket_frame::ping) answer_ping_(payload);
}

void http_connection::take_fragment_(const websocket_frame& frame, std::string_view bytes) {
    if (message_opcode_ == 0) message_opcode_ = static_cast<unsigned char>(frame.opcode);
    frame.append_payload(message, bytes);
    if (!frame.final) return;
    if (message_opcode_ == websocket_frame::text && !is_utf8(message)) return fail_(not_utf8);
    if (websocket_ == websocket_stage_::open) on_message();
    message_opcode_ = 0;
    empty_(message);
}

// A client that sends pings and reads nothing must not fill the memory: a pong that still waits is
// replaced, as the RFC allows (section 5.5.3).
void http_connection::answer_ping_(const std::string& payload) {
    constexpr char pong = '\x8A';
    response_part* const last = parts.tail->value;
    const bool waits = last && last->text.starts_with(pong) && last->text_taken_ == 0;
    if (!waits) return send_message(payload, websocket_frame::pong);
    last->text.resize(1);
    last->text += static_cast<char>(payload.size());
    last->text += payload;
}

void http_connection::answer_close_(const std::string& payload) {
    unsigned code = payload.empty() ? no_close_code : 0;
    if (payload.size() >= 2)
        code =
            static_cast<unsigned char>(payload[0]) * 256U + static_cast<unsigned char>(payload[1]);
    if (!payload.empty() && !is_close_code(code)) return fail_(protocol_error);
    if (payload.size() > 2 && !is_utf8(payload.substr(2))) return fail_(not_utf8);

    close_code_ = static_cast<int>(code);
    send_close(close_code_);
    websocket_ = websocket_stage_::deaf;
    linger_bytes_ = 0;
}

void http_connection::fail_(int code) {
    send_close(code);
    websocket_ = websocket_stage_::deaf;
}

void http_connection::send_close(int code, std::string_view reason) {
    if (!upgraded || websocket_ != websocket_stage_::open) return;
    std::string payload;
    if (code != no_close_code) {
        payload += {static_cast<char>(code / 256), static_cast<char>(code % 256)};
        if (payload.size() + reason.size() <= websocket_frame::longest_control) payload += reason;
    }
    send_message(payload, websocket_frame::closing);
    websocket_ = websocket_stage_::closing;
    keep_alive = false;
    linger_bytes_ = most_dropped;
    // The client may have been silent for hours, so time counts from now.
    last_active = std::time(nullptr);
    timeout = closing_seconds;
}
