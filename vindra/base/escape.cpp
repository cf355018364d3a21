#include "vindra/base/escape.h"

#include "vindra/base/utf8_decode.h"

#include <cstdint>

namespace base {

namespace {

// The letter that follows the backslash; 0 if there is no short escape.
char short_escape(char c) {
    switch (c) {
    case '"':
    case '\\':
        return c;
    case '\b':
        return 'b';
    case '\f':
        return 'f';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    case '\0':
        return '0';
    default:
        return 0;
    }
}

void append_hex(std::string& out, std::uint32_t value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
        out += "0123456789abcdef"[value >> shift & 15];
    }
}

void append_unit(std::string& out, std::uint32_t utf16_unit) {
    out += "\\u";
    append_hex(out, utf16_unit, 4);
}

// Appends the code point at `p` and returns the length of its sequence.
int append_code_point(std::string& out, const char* p) {
    int length = 0;
    const int code_point = utf8_decode(p, &length);
    if (code_point < 0) {
        append_unit(out, 0xffff);
    } else if (code_point < 0x10000) {
        append_unit(out, static_cast<std::uint32_t>(code_point));
    } else {
        const auto v = static_cast<std::uint32_t>(code_point - 0x10000);
        append_unit(out, 0xd800 + (v >> 10));
        append_unit(out, 0xdc00 + (v & 0x3ff));
    }
    return length;
}

} // namespace

std::string escape(const std::string& text, bool json) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (const char letter = short_escape(c)) {
            out += '\\';
            out += letter;
            ++i;
        } else if (c >= 0x20 && c <= 0x7e) {
            out += c;
            ++i;
        } else if (json) {
            i += static_cast<std::size_t>(append_code_point(out, &text[i]));
        } else {
            out += "\\x";
            append_hex(out, static_cast<unsigned char>(c), 2);
            ++i;
        }
    }
    return out;
}

} // namespace base
