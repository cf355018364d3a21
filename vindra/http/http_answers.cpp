// Whole answers.

#include "vindra/http/http_connection.h"
#include "vindra/http/private/request_head.h"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

struct status_text {
    int status;
    std::string_view reason;
};

// RFC 9110, section 15, and the few from other documents that servers use.
constexpr status_text status_texts[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {103, "Early Hints"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {421, "Misdirected Request"},
    {422, "Unprocessable Content"},
    {426, "Upgrade Required"},
    {428, "Precondition Required"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {451, "Unavailable For Legal Reasons"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

// Empty for an unknown status. The phrase may be missing, the blank before it may not.
std::string_view reason_of(int status) {
    const auto* const found = std::ranges::find(status_texts, status, &status_text::status);
    return found == std::end(status_texts) ? "" : found->reason;
}

bool has_no_body(int status) {
    return status < 200 || status == 204 || status == 304;
}

std::string status_line(int status) {
    std::string line = "HTTP/1.1 " + std::to_string(status) + ' ';
    line += reason_of(status);
    return line += "\r\n";
}

// True for bytes that a URL may contain, "%" of an encoded byte included (RFC 3986, section 2).
bool may_stand_in_url(char c) {
    return c > ' ' && c < '\x7F' && std::string_view("\"<>\\^`{|}").find(c) == std::string::npos;
}

} // namespace

std::string http_connection::answer_text_(int status, std::string_view content_type,
                                          std::string_view body, std::string_view lines,
                                          bool head_alone) {
    std::string text = status_line(status);
    if (!content_type.empty()) {
        text += "Content-Type: ";
        text += content_type;
        text += "\r\n";
    }
    if (!has_no_body(status)) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += lines;
    text += "\r\n";
    if (!head_alone && !has_no_body(status)) text += body;
    return text;
}

std::string http_connection::common_lines_() const {
    std::string_view line;
    if (!keep_alive) line = "Connection: close\r\n";
    // HTTP/1.0 clients expect an end unless they are told.
    if (keep_alive && version == "HTTP/1.0") line = "Connection: keep-alive\r\n";
    return std::string(line) + extra_headers;
}

void http_connection::answer(int status, std::string_view content_type, std::string_view body) {
    if (status < 200) {
        if (version != "HTTP/1.0" && !is_answered_())
            queue_text_(answer_text_(status, content_type, "", "", true));
        return;
    }
    if (is_answered_()) return;
    queue_answer_(answer_text_(status, content_type, body, common_lines_(), method == "HEAD"));
}

void http_connection::redirect(std::string_view location, int status) {
    std::string lines = "Location: ";
    for (const char c : location) {
        if (may_stand_in_url(c)) {
            lines += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            lines += {'%', "0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16]};
        }
    }
    if (is_answered_()) return;
    queue_answer_(answer_text_(status, "", "", lines + "\r\n" + common_lines_(), true));
}

void http_connection::answer_not_allowed(std::string_view methods) {
    if (is_answered_()) return;
    const std::string allow = "Allow: " + std::string(methods) + "\r\n";
    queue_answer_(answer_text_(405, "", "", allow + common_lines_(), true));
}

void http_connection::answer_continue() {
    if (!written && content_length > 0 && body_received == 0 && expects_continue_())
        answer(100, "", "");
}

// `content_length` is only an int of the announced length, so that is read again. If the client
// waits for 100, no body comes and none is waited for.
bool http_connection::refuse_body_over(int largest_body) {
    const std::string announced = header("Content-Length").value_or("");
    const long long length = std::strtoll(announced.c_str(), nullptr, 10);
    if (length <= largest_body) return false;
    refuse_(413, expects_continue_() ? 0 : length);
    return true;
}

bool http_connection::expects_continue_() const {
    return version != "HTTP/1.0" && request_head::lists("Expect", "100-continue", headers);
}
