#include "vindra/http/private/request_head.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::string_view line_end = "\r\n";
constexpr std::string_view blanks = " \t";

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool same(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trimmed(std::string_view text) {
    const std::size_t from = text.find_first_not_of(blanks);
    if (from == std::string_view::npos) return {};
    return text.substr(from, text.find_last_not_of(blanks) - from + 1);
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_token(std::string_view text) {
    constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
        return is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'z') ||
               marks.find(c) != std::string_view::npos;
    });
}

// With these bytes in a field, another program might read other lines than we do.
bool breaks_lines(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

std::string_view take(std::string_view& text, std::string_view mark) {
    const std::string_view piece = text.substr(0, text.find(mark));
    text.remove_prefix(std::min(piece.size() + mark.size(), text.size()));
    return piece;
}

bool is_listed(std::string_view word, std::string_view list) {
    while (!list.empty())
        if (same(trimmed(take(list, ",")), word)) return true;
    return false;
}

// Value of the next line of that name, without blanks around it. Removes the lines up to it from
// `block`.
std::optional<std::string_view> take_value(std::string_view& block, std::string_view name) {
    while (!block.empty()) {
        std::string_view value = take(block, line_end);
        if (value.find(':') != std::string_view::npos && same(take(value, ":"), name))
            return trimmed(value);
    }
    return std::nullopt;
}

} // namespace

request_head::request_head(std::string_view block) {
    read_request_line(take(block, line_end));
    while (!block.empty()) read_line(take(block, line_end));

    if (!is_old && hosts != 1) refuse(400);
    content_length = length.value_or(0);
    keeps = !says_close && (!is_old || says_keep);
}

std::optional<std::string_view> request_head::find(std::string_view name, std::string_view block) {
    take(block, line_end);
    return take_value(block, name);
}

bool request_head::lists(std::string_view name, std::string_view word, std::string_view block) {
    take(block, line_end);
    while (const auto list = take_value(block, name))
        if (is_listed(word, *list)) return true;
    return false;
}

// Only the first fault counts.
void request_head::refuse(int status) {
    if (refusal == 0) refusal = status;
}

void request_head::read_request_line(std::string_view line) {
    // All bytes beyond ASCII are accepted: some clients do not encode them.
    const auto is_plain = [](char c) { return static_cast<unsigned char>(c) > ' ' && c != '\x7F'; };
    if (!is_token(take(line, " "))) return refuse(400);
    const std::string_view target = take(line, " ");
    if (target.empty() || !std::all_of(target.begin(), target.end(), is_plain)) return refuse(400);

    is_old = line == "HTTP/1.0";
    if (is_old || line == "HTTP/1.1") return;
    const bool is_version = line.size() == 8 && line.starts_with("HTTP/") && is_digit(line[5]) &&
                            line[6] == '.' && is_digit(line[7]);
    refuse(is_version ? 505 : 400);
}

// A name with a blank is no token. So this also refuses a blank before the colon, and folded lines.
void request_head::read_line(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !is_token(line.substr(0, colon)) || breaks_lines(line))
        return refuse(400);
    read_field(line.substr(0, colon), trimmed(line.substr(colon + 1)));
}

void request_head::read_field(std::string_view name, std::string_view value) {
    if (same(name, "content-length")) {
        read_length(value);
    } else if (same(name, "transfer-encoding")) {
        refuse(411);
    } else if (same(name, "host")) {
        ++hosts;
    } else if (same(name, "connection")) {
        says_close = says_close || is_listed("close", value);
        says_keep = says_keep || is_listed("keep-alive", value);
    }
}

void request_head::read_length(std::string_view value) {
    constexpr long long largest = std::numeric_limits<long long>::max();
    if (value.empty() || !std::all_of(value.begin(), value.end(), is_digit)) return refuse(400);
    long long number = 0;
    for (const char c : value) {
        const int digit = c - '0';
        number = number > (largest - digit) / 10 ? largest : number * 10 + digit;
    }
    if (length && *length != number) return refuse(400);
    length = number;
}
