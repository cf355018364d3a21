// Reading requests: turns blocks of bytes into calls of the hooks.

#include "vindra/base/base64.h"
#include "vindra/base/num.h"
#include "vindra/base/print.h"
#include "vindra/base/sha1.h"
#include "vindra/http/http_connection.h"

#include <cassert>
#include <cstddef>
#include <cstdlib>

namespace {

constexpr std::string_view line_end = "\r\n";
constexpr std::string_view blank_line = "\r\n\r\n";

// Appended to a client's key before hashing (RFC 6455, section 1.3).
constexpr std::string_view websocket_guid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

// The one version of the protocol that RFC 6455 defines.
constexpr int websocket_version = 13;

// Storage that each string of an idle connection may keep. Most heads fit without an allocation.
constexpr std::size_t kept_bytes_max = 2048;

// A long tunnel can count past the largest int.
int wrapping_sum(int a, int b) {
    return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

// strtol() needs a closing zero, hence the copy. Header values are short, so it allocates nothing.
int number(std::string_view digits) {
    return static_cast<int>(std::strtol(std::string(digits).c_str(), nullptr, 10));
}

// Position of the first `wanted` behind position `after`, or -1. With -1 as `after`, searches all.
std::ptrdiff_t find_behind(std::string_view text, std::string_view wanted, std::ptrdiff_t after) {
    return static_cast<std::ptrdiff_t>(text.find(wanted, static_cast<std::size_t>(after + 1)));
}

} // namespace

// head -> body -> complete -> head again (kept) or ended by the server (not kept)
void http_connection::on_recv(char* bytes, int length) {
    if (strict_stage_ != stage_::off) return take_strictly_(bytes, length);
    if (refuses_more_()) return;
    received = wrapping_sum(received, length);

    if (headers_done) {
        body_received = wrapping_sum(body_received, length);
        on_data(bytes, length);
    } else if (const int taken = take_head_(bytes, length); headers_done) {
        const int rest = length - taken;
        assert(rest >= 0 && taken > 0);
        read_head_();
        body_received = rest;
        if (is_handshake()) {
            shake_hands_();
        } else {
            on_headers();
        }
        if (strict_stage_ == stage_::refused) {
            linger_bytes_ -= rest;
            return;
        }
        if (rest > 0) on_data(bytes + taken, rest);
    }

    finish_request_();
}

// Counts what came before this block, so the block that crosses the limit is still processed.
bool http_connection::refuses_more_() const {
    if (!is_too_long_()) return false;
    base::printf("Warning! Request exceeds max length of %d.\n", max_request_length);
    return true;
}

bool http_connection::reads_body_() const {
    return headers_done && strict_stage_ == stage_::off && !is_too_long_();
}

void http_connection::count_body_(int length) {
    received = wrapping_sum(received, length);
    body_received = wrapping_sum(body_received, length);
    finish_request_();
}

int http_connection::take_head_(const char* bytes, int length) {
    if (length <= 0) return 0;
    const std::size_t before = headers.size();
    headers.append(bytes, static_cast<std::size_t>(length));

    // Only the first blank line counts. At the very start it ends no head, and no later one does
    // either, however the bytes are split.
    if (headers.starts_with(blank_line)) return length;

    // Up to three bytes of the blank line may be in earlier blocks. The rest of those was searched.
    const std::size_t seam = blank_line.size() - 1;
    const std::size_t end = headers.find(blank_line, before < seam ? 0 : before - seam);
    if (end == std::string::npos) return length;

    headers.resize(end + line_end.size());
    headers_done = true;
    assert(headers.ends_with(line_end));
    assert(end + blank_line.size() > before);
    return static_cast<int>(end + blank_line.size() - before);
}

void http_connection::read_head_() {
    parse_request_line_();
    content_length = number(find_header_("\r\ncontent-length", headers));
    // Compared byte for byte, and for HTTP/1.0 only. HTTP/1.1 clients close by themselves.
    if (version == "HTTP/1.0" && find_header_("\r\nconnection", headers) != "Keep-Alive") {
        keep_alive = false;
    }
    cookie = find_header_("\r\ncookie", headers);
    split_target_();
}

// A part without a separator keeps its value. The blanks are searched in the whole head, so a
// request line without them takes its parts from the header lines below.
void http_connection::parse_request_line_() {
    const std::ptrdiff_t first = find_behind(headers, " ", -1);
    const std::ptrdiff_t second = find_behind(headers, " ", first);
    const std::ptrdiff_t end = find_behind(headers, line_end, second);

    const auto piece = [this](std::ptrdiff_t from, std::ptrdiff_t to) {
        return std::string_view(headers).substr(static_cast<std::size_t>(from),
                                                static_cast<std::size_t>(to - from));
    };
    if (first > 0) method = piece(0, first);
    if (second > 0) url = piece(first + 1, second);
    if (end > 0) version = piece(second + 1, end);
}

void http_connection::split_target_() {
    const std::size_t mark = url.find('?');
    if (mark == 0 || mark == std::string::npos) {
        path = url;
    } else {
        path.assign(url, 0, mark);
        query.assign(url, mark + 1);
    }
}

void http_connection::shake_hands_() {
    if (websocket_ != websocket_stage_::off) return answer_handshake_();
    const std::string key(find_header_("\r\nSec-WebSocket-Key", headers));
    const int wanted = number(find_header_("\r\nSec-WebSocket-Version", headers));
    if (wanted != websocket_version || key.empty()) {
        // The request then completes like any other. What on_request() writes is refused, because
        // this is the answer.
        write("HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\n", "");
        return;
    }

    write(upgrade_head_(key), "");
    upgrade_();
}

std::string http_connection::upgrade_head_(std::string key) {
    key += websocket_guid;
    return "HTTP/1.1 101 Switching Protocols\r\n"
           "Upgrade: websocket\r\n"
           "Connection: Upgrade\r\n"
           "Sec-WebSocket-Accept: " +
           base::base64(base::sha1(key)) + "\r\n";
}

void http_connection::upgrade_() {
    upgraded = true;
    timeout = -1;
    max_request_length = 0;
    on_upgrade();
}

void http_connection::finish_request_() {
    if (upgraded || !headers_done || body_received < content_length) return;
    if (strict_stage_ == stage_::refused) return;
    // After speak_websocket(), a refused handshake has its answer.
    if (websocket_ == websocket_stage_::off || !is_handshake()) on_request();
    if (keep_alive) reset();
}

void http_connection::reset() {
    max_request_length = default_max_request_length_;
    headers_done = false;
    written = false;
    content_length = 0;
    body_received = 0;
    received = 0;
    for (std::string* text : {&data, &headers, &message, &extra_headers, &cookie, &query, &path,
                              &version, &url, &method}) {
        empty_(*text);
    }
}

void http_connection::on_headers() {
    base::puts(info(true).c_str());
}

void http_connection::on_data(char* bytes, int length) {
    data.append(bytes, static_cast<std::size_t>(length));
    if (upgraded && (keep_alive || websocket_ != websocket_stage_::off)) read_frames();
}

void http_connection::on_upgrade() {
    keep_alive = false;
    timeout = 0;
}

void http_connection::on_request() {
    const std::string size = base::num(static_cast<double>(data.size()));
    write("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n",
          headers + "\r\n" + size + " bytes of content");
}

// Many connections may wait for their next request, so large storage is freed.
void http_connection::empty_(std::string& text) {
    if (text.capacity() > kept_bytes_max) {
        std::string().swap(text);
    } else {
        text.clear();
    }
}
