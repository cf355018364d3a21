// Passing requests on, and what relay_strictly() changes.
//
// Each request has one answer, from a backend or from here. The next request is read when that
// answer is out, so each byte of either side belongs to one known request.

#include "vindra/http/answer_reader.h"
#include "vindra/proxy/http_proxy.h"

#include <algorithm>
#include <array>
#include <limits>

namespace {

constexpr std::string_view line_end = "\r\n";

char folded(char c) {
    if (c == '_') return '-';
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool starts_with_name(std::string_view line, std::string_view name) {
    return line.size() >= name.size() &&
           std::equal(name.begin(), name.end(), line.begin(),
                      [](char a, char b) { return folded(a) == folded(b); });
}

bool has_name(std::string_view line, std::string_view name) {
    if (!starts_with_name(line, name)) return false;
    const std::size_t mark = line.find_first_not_of(" \t", name.size());
    return mark != std::string_view::npos && line[mark] == ':';
}

// Lines for this connection alone (RFC 9110, section 7.6.1), and Expect, which is answered here.
// Lines that a Connection line lists are passed on: a client might list Content-Length there.
bool stays_here(std::string_view line) {
    constexpr std::array<std::string_view, 4> names = {"Expect", "Keep-Alive", "TE", "Upgrade"};
    return starts_with_name(line, "Connection") || starts_with_name(line, "Proxy") ||
           std::ranges::any_of(names, [&](std::string_view name) { return has_name(line, name); });
}

// The lines of `block` for which `drops` is false, and the request line.
template <typename Drops>
std::string lines_without(std::string_view block, Drops drops) {
    std::string kept;
    bool dropping = false;
    for (bool first = true; !block.empty(); first = false) {
        const std::string_view line = block.substr(0, block.find(line_end));
        block.remove_prefix(std::min(line.size() + line_end.size(), block.size()));
        // A line that begins with a blank continues the one before.
        const bool goes_on = line.starts_with(' ') || line.starts_with('\t');
        if (!goes_on) dropping = !first && drops(line);
        if (!dropping) kept.append(line).append(line_end);
    }
    return kept;
}

} // namespace

void http_proxy::add_header(std::string_view name, std::string_view value) {
    std::string text(value);
    std::ranges::replace_if(
        text, [](char c) { return c == '\r' || c == '\n' || c == '\0'; }, ' ');
    headers.append(name).append(": ").append(text).append(line_end);
}

void http_proxy::drop_header(std::string_view name) {
    headers = lines_without(headers, [&](std::string_view line) { return has_name(line, name); });
}

void http_proxy::forward_to(const std::string& host, int to_port, const std::string& target) {
    // An absolute target would hide its path from an application that checks `path`.
    if (answer_reader_ && !url.starts_with('/')) return answer(400, "", "");
    drop_unread();
    if (use_backend(host, to_port)) queue_head_(target);
}

void http_proxy::queue_head_(std::string_view target) {
    base::byte_queue& request = pipe->to_backend;
    request += method;
    request += " ";
    request += target;
    request += " " + version + "\r\n";
    request +=
        answer_reader_ ? copy_headers(lines_without(headers, stays_here)) : copy_headers(headers);
    request += "\r\n";
}

void http_proxy::relay_strictly(int largest_body) {
    if (!answer_reader_) answer_reader_ = std::make_unique<answer_reader>();
    // `content_length` stands for all longer bodies when it is the largest int.
    largest_body_ = std::min(largest_body, std::numeric_limits<int>::max() - 1);
    read_strictly(largest_body_);
}

// The reader refuses a body that is too long only after on_headers(). By then the head must not be
// on its way.
bool http_proxy::begin_relaying_() {
    if (!answer_reader_) return true;
    is_relayed_ = content_length <= largest_body_ && !written;
    if (is_relayed_) answer_reader_->begin(method == "HEAD");
    return is_relayed_;
}

// In a fresh client the share of the backend that may still come counts as one without a name, at
// port 0. A target that names exactly that (a zero byte in front of ":0") waits for it.
bool http_proxy::is_usable_(const std::string& name, int at_port) const {
    if (pipe->refs < 2 || backend_host != name || backend_port != at_port) return false;
    // Bytes that came before the request would be taken for its answer.
    return !answer_reader_ || pipe->to_client.empty();
}

bool http_proxy::takes_body_() const {
    return !answer_reader_ || upgraded || is_relayed_;
}

bool http_proxy::send_strictly_(char* buffer, int capacity, int* length) {
    if (parts.count <= 0 && headers_done && !written) pass_answer_(buffer, capacity, length);
    if (*length > 0) return true;

    if (written && body_received >= content_length) {
        // Answered here as well. The backend's answer would be taken for that of the next request.
        if (is_relayed_ && !answer_reader_->is_complete()) keep_alive = false;
        is_relayed_ = false;
    }
    // This may read the next request.
    const bool stays = http_connection::on_send(buffer, capacity, length);
    return stays && (headers_done || written || pipe->refs >= 2);
}

void http_proxy::pass_answer_(char* buffer, int capacity, int* length) {
    answer_reader& reader = *answer_reader_;
    if (reader.is_complete()) reader.begin(method == "HEAD");
    const std::size_t taken = pipe->to_client.take(buffer, static_cast<std::size_t>(capacity));
    const std::size_t own = reader.read({buffer, taken});
    *length = static_cast<int>(own);

    if (reader.is_complete()) {
        written = true;
        if (reader.is_last() || own < taken || !pipe->to_client.empty()) end_strictly_();
    } else if (taken == 0 && pipe->refs < 2) {
        if (!reader.has_begun()) return http_connection::refuse(502);
        written = true;
        end_strictly_();
    }
}

// A client that is still sending when its socket closes may lose the answer.
void http_proxy::end_strictly_() {
    keep_alive = false;
    if (body_received < content_length) http_connection::refuse(502);
}
