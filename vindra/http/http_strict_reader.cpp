// Reading requests by RFC 9112, for classes that call read_strictly().
//
//   head -> body -> answering -> head of the next     kept; pipelined requests wait meanwhile
//                             -> ended by the server  not kept
//   head -> refused -> ended by the server            when the client is silent or has sent enough

#include "vindra/http/http_connection.h"
#include "vindra/http/private/request_head.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <limits>

namespace {

constexpr std::size_t longest_head = 65536;
constexpr std::string_view blank_line = "\r\n\r\n";

// Pipelined bytes that may wait: one read by the server, and a little more.
constexpr std::size_t most_ahead = connection::send_buffer_size + longest_head;

// A client that is silent for longer has read the refusal, or never will.
constexpr std::time_t linger_seconds = 1;

} // namespace

void http_connection::read_strictly(int largest_body) {
    if (strict_stage_ == stage_::off) strict_stage_ = stage_::head;
    largest_body_ = largest_body;
}

void http_connection::take_strictly_(char* bytes, int length) {
    if (upgraded) return on_data(bytes, length);
    const int taken = take_requests_(bytes, length);
    if (taken < length) keep_ahead_(bytes + taken, length - taken);
}

int http_connection::take_requests_(char* bytes, int length) {
    int taken = 0;
    while (taken < length) {
        if (upgraded) {
            on_data(bytes + taken, length - taken);
            return length;
        }
        switch (strict_stage_) {
        case stage_::head:
            taken += take_strict_head_(bytes + taken, length - taken);
            break;
        case stage_::body:
            taken += take_strict_body_(bytes + taken, length - taken);
            break;
        case stage_::refused:
            linger_bytes_ -= length - taken;
            return length;
        case stage_::off:
        case stage_::answering:
            return taken;
        }
    }
    return taken;
}

// Looks only at what can belong to this head: many more requests may be waiting behind it.
int http_connection::take_strict_head_(char* bytes, int length) {
    // Some clients send a line end behind a body. It belongs to no request.
    if (headers.empty() && (*bytes == '\r' || *bytes == '\n')) return 1;

    const std::string_view block(bytes, static_cast<std::size_t>(length));
    const std::size_t end = headers.empty() ? block.find(blank_line) : std::string_view::npos;
    const std::size_t room = longest_head + blank_line.size() - headers.size();
    const std::size_t offered =
        end == std::string_view::npos ? block.size() : end + blank_line.size();
    const int taken = take_head_(bytes, static_cast<int>(std::min(offered, room)));
    received += taken;
    if (headers_done) {
        begin_strict_request_();
    } else if (headers.size() > longest_head) {
        refuse_(431, std::numeric_limits<int>::max());
    }
    return taken;
}

void http_connection::begin_strict_request_() {
    const request_head head(headers);
    const bool kept = keep_alive;
    read_head_();
    keep_alive = kept && head.keeps;
    cookie = header("cookie").value_or("");
    content_length =
        static_cast<int>(std::min<long long>(head.content_length, std::numeric_limits<int>::max()));
    if (head.refusal != 0) return refuse_(head.refusal, std::numeric_limits<int>::max());

    strict_stage_ = stage_::body;
    if (is_handshake()) {
        shake_hands_();
    } else {
        on_headers();
    }
    // A refused handshake may have a body too.
    if (!upgraded && content_length >= largest_body_) refuse_body_over(largest_body_);
    if (strict_stage_ == stage_::refused) return;
    await_body_();
}

void http_connection::await_body_() {
    if (upgraded) return;
    if (content_length == 0) return finish_strict_request_();
    if (!expects_continue_()) return;
    if (!written) return answer(100, "", "");
    // Answered before the body. The client may or may not send it now, so the end of this request
    // is unknown.
    keep_alive = false;
    finish_strict_request_();
}

int http_connection::take_strict_body_(char* bytes, int length) {
    const int taken = std::min(length, content_length - body_received);
    received += taken;
    body_received += taken;
    on_data(bytes, taken);
    if (strict_stage_ == stage_::body && body_received == content_length) finish_strict_request_();
    return taken;
}

void http_connection::finish_strict_request_() {
    strict_stage_ = stage_::answering;
    // A refused handshake has its answer.
    if (!is_handshake()) on_request();
}

void http_connection::keep_ahead_(const char* bytes, int length) {
    if (!keep_alive) return;
    ahead_.erase(0, ahead_read_);
    ahead_read_ = 0;
    ahead_.append(bytes, static_cast<std::size_t>(length));
    if (ahead_.size() <= most_ahead) return;
    keep_alive = false;
    empty_(ahead_);
}

void http_connection::go_on_strictly_() {
    while (strict_stage_ == stage_::answering && written && keep_alive && parts.count <= 0) {
        reset();
        strict_stage_ = stage_::head;
        ahead_read_ += static_cast<std::size_t>(take_requests_(
            ahead_.data() + ahead_read_, static_cast<int>(ahead_.size() - ahead_read_)));
        if (ahead_read_ < ahead_.size()) continue;
        empty_(ahead_);
        ahead_read_ = 0;
    }
}

void http_connection::refuse(int status, std::string_view content_type, std::string_view body) {
    keep_alive = false;
    if (!written) answer(status, content_type, body);
    refuse_(status, std::numeric_limits<int>::max());
}

void http_connection::refuse_(int status, long long linger_bytes) {
    keep_alive = false;
    strict_stage_ = stage_::refused;
    // If the socket is closed while bytes arrive, TCP resets the connection, and the client may
    // lose the answer.
    linger_bytes_ = linger_bytes;
    if (max_request_length > 0)
        linger_bytes_ = std::min<long long>(linger_bytes_, max_request_length);
    if (!written) answer(status, "", "");
}

bool http_connection::lingers_() const {
    return linger_bytes_ > 0 && std::time(nullptr) - last_active <= linger_seconds;
}
