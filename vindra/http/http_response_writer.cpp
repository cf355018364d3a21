// Writing responses: cuts them into pieces that fit the send buffer, and hands those over.

#include "vindra/base/print.h"
#include "vindra/core/sockets.h"
#include "vindra/http/deferred_result.h"
#include "vindra/http/http_connection.h"
#include "vindra/http/private/late_answer.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include <sys/types.h>

namespace {

// One piece of output fills one send buffer.
constexpr std::size_t piece_size = connection::send_buffer_size;

// Longest deferred result that is sent, chunked coding included.
constexpr int chunk_length_max = 1048576;

// `content` as the only chunk of a body in chunked coding (RFC 9112, section 7.1).
std::string only_chunk(const std::string& content) {
    std::array<char, 2 * sizeof(std::size_t) + 1> digits{};
    std::snprintf(digits.data(), digits.size(), "%zX", content.size());
    std::string chunk(digits.data());
    chunk += "\r\n";
    chunk += content;
    chunk += "\r\n0\r\n\r\n";
    return chunk;
}

} // namespace

void http_connection::write(std::string head, const std::string& body) {
    if (is_answered_()) return;

    // On other connections, the end of the connection ends the response.
    if (keep_alive && find_header_("\r\ncontent-length", head).empty() &&
        find_header_("\r\ntransfer-encoding", head).empty()) {
        head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    head += extra_headers;
    head += "\r\n";
    if (method != "HEAD") head += body;
    queue_answer_(std::move(head));
}

bool http_connection::is_answered_() const {
    if (written) base::puts("Warning! Double write() detected!");
    return written;
}

void http_connection::queue_answer_(std::string text) {
    if (text.size() <= piece_size) {
        queue_text_(std::move(text));
    } else {
        for (std::size_t at = 0; at < text.size(); at += piece_size) {
            queue_text_(text.substr(at, piece_size));
        }
    }
    assert(parts.count > 0);
    written = true;
}

bool http_connection::on_send(char* buffer, int capacity, int* length) {
    if (strict_stage_ == stage_::answering) go_on_strictly_();

    // On a kept connection reset() has cleared `written`: it waits for its next request.
    if (parts.count <= 0) return written ? keep_alive || lingers_() : true;

    response_part& part = *parts.head->next->value;
    if (part.result && !part.file && !part.result->done.load(std::memory_order_acquire)) {
        return true;
    }

    const int queued = parts.count;
    send_part_(part, buffer, capacity, length);
    // An empty part, or a file at its end. The next part, or the end of the connection, is due in
    // the next turn, and no socket will report that.
    if (*length == 0 && parts.count < queued) sockets::hurry();
    return true;
}

void http_connection::send_part_(response_part& part, char* buffer, int capacity, int* length) {
    if (part.file) {
        send_file_(part, buffer, capacity, length);
    } else if (part.result) {
        send_deferred_(part, buffer, capacity, length);
    } else {
        send_text_(part, buffer, capacity, length);
    }
}

void http_connection::send_file_(response_part& part, char* buffer, int capacity, int* length) {
    int wanted = capacity;
    if (part.budget >= 0) {
        if (part.budget < wanted) {
            // Not reduced: it is the size of each piece from now on.
            wanted = static_cast<int>(part.budget);
        } else {
            part.budget -= wanted;
        }
    }
    if (wanted <= 0) {
        *length = 0;
        drop_first_part_();
        return;
    }

    const std::size_t got = std::fread(buffer, 1, static_cast<std::size_t>(wanted), part.file);
    assert(got <= static_cast<std::size_t>(capacity));
    *length = static_cast<int>(got);
    if (got < static_cast<std::size_t>(wanted)) drop_first_part_();
}

// Turns a deferred part whose result is done into a text part, and sends that. The result is
// deleted last: its destructor is the application's, and must find the connection in its final
// state.
void http_connection::send_deferred_(response_part& part, char* buffer, int capacity, int* length) {
    if (const auto* whole = dynamic_cast<const late_answer*>(part.result)) {
        part.text = whole->text();
    } else if (part.text = only_chunk(static_cast<std::string>(part.result->output));
               part.text.size() > chunk_length_max) {
        base::printf("Warning! Thread response (%zd) exceeds buffer size (%d).\n",
                     static_cast<ssize_t>(part.text.size()), chunk_length_max);
        part.text = "0\r\n\r\n";
    }

    last_active = std::time(nullptr);
    // After an upgrade only the handshake and hooks set the time-out. Restoring an earlier one
    // would revive a client that has been turned away since.
    if (!upgraded) timeout = part.restore_timeout;

    const std::unique_ptr<deferred_result> sent(std::exchange(part.result, nullptr));
    send_text_(part, buffer, capacity, length);
}

// The longest frame is a few bytes longer than the send buffer, and an application's text may have
// any length. The rest waits. It stays in place, as erasing the front would copy it each time.
void http_connection::send_text_(response_part& part, char* buffer, int capacity, int* length) {
    const std::size_t space = capacity > 0 ? static_cast<std::size_t>(capacity) : 0;
    // The application may have shortened the text meanwhile.
    const std::string_view rest =
        std::string_view(part.text).substr(std::min(part.text_taken_, part.text.size()));
    const std::size_t count = rest.copy(buffer, space);
    assert(count <= space);
    *length = static_cast<int>(count);
    part.text_taken_ += count;
    if (count == rest.size()) drop_first_part_();
}

void http_connection::queue_text_(std::string text) {
    auto* part = new response_part;
    part->text = std::move(text);
    parts.add(part);
    wake();
}

void http_connection::drop_first_part_() {
    assert(parts.count > 0);
    delete parts.pop();
}
