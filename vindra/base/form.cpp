#include "vindra/base/form.h"

#include <algorithm>
#include <cstddef>

namespace base {

namespace {

// Value of a hexadecimal digit, or -1.
int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

struct byte_range {
    unsigned char first;
    unsigned char last;
};

constexpr byte_range continuation{0x80, 0xBF};

// How many bytes follow the lead byte of a UTF-8 sequence; 0 if `lead` is none. `second` becomes
// the range of the next byte, which excludes overlong forms, surrogates and values above U+10FFFF.
int following(unsigned char lead, byte_range& second) {
    second = continuation;
    if (lead < 0xC2 || lead > 0xF4) return 0;
    if (lead < 0xE0) return 1;
    if (lead == 0xE0) second.first = 0xA0;
    if (lead == 0xED) second.last = 0x9F;
    if (lead < 0xF0) return 2;
    if (lead == 0xF0) second.first = 0x90;
    if (lead == 0xF4) second.last = 0x8F;
    return 3;
}

// Length of the sequence at `at`; `valid` tells whether it is complete. An incomplete one ends
// before the byte that cannot belong to it.
std::size_t sequence_length(std::string_view text, std::size_t at, bool& valid) {
    const auto lead = static_cast<unsigned char>(text[at]);
    valid = lead < 0x80;
    byte_range allowed{};
    const int more = following(lead, allowed);
    std::size_t length = 1;
    for (; length <= static_cast<std::size_t>(more); ++length) {
        if (at + length == text.size()) return length;
        const auto c = static_cast<unsigned char>(text[at + length]);
        if (c < allowed.first || c > allowed.last) return length;
        allowed = continuation;
    }
    valid = valid || more > 0;
    return length;
}

// The text with U+FFFD in place of each invalid sequence.
std::string valid_utf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        bool valid = false;
        const std::size_t length = sequence_length(text, at, valid);
        out += valid ? text.substr(at, length) : "\xEF\xBF\xBD";
        at += length;
    }
    return out;
}

std::string decoded(std::string_view text) {
    std::string blanks(text);
    std::replace(blanks.begin(), blanks.end(), '+', ' ');
    return valid_utf8(percent_decode(blanks));
}

} // namespace

std::string percent_decode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const int high = at + 2 < text.size() ? digit_value(text[at + 1]) : -1;
        const int low = high >= 0 ? digit_value(text[at + 2]) : -1;
        if (text[at] != '%' || low < 0) {
            out += text[at];
        } else {
            out += static_cast<char>(high * 16 + low);
            at += 2;
        }
    }
    return out;
}

form::form(std::string_view text) {
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, text.find('&'));
        text.remove_prefix(std::min(piece.size() + 1, text.size()));
        if (piece.empty()) continue;
        const std::string_view name = piece.substr(0, piece.find('='));
        const std::string_view value = piece.substr(std::min(name.size() + 1, piece.size()));
        pairs.emplace_back(decoded(name), decoded(value));
    }
}

std::optional<std::string> form::get(std::string_view name) const {
    for (const pair& p : pairs)
        if (p.first == name) return p.second;
    return std::nullopt;
}

std::vector<std::string> form::get_all(std::string_view name) const {
    std::vector<std::string> values;
    for (const pair& p : pairs)
        if (p.first == name) values.push_back(p.second);
    return values;
}

} // namespace base
