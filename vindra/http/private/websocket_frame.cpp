#include "vindra/http/private/websocket_frame.h"

#include "vindra/base/utf8_decode.h"

#include <cassert>

namespace {

constexpr std::size_t key_size = 4;

unsigned byte_at(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

std::uint64_t high_byte_first(std::string_view bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) value = value << 8 | byte_at(bytes, i);
    return value;
}

// Judges by the first two bytes.
bool may_be_sent(unsigned first, unsigned second) {
    const unsigned opcode = first & 15U;
    const bool reserved_bits = (first & 0x70U) != 0;
    const bool masked = (second & 0x80U) != 0;
    if (reserved_bits || !masked) return false;
    if (opcode < websocket_frame::closing) return opcode <= websocket_frame::binary;
    const bool final = (first & 0x80U) != 0;
    return opcode <= websocket_frame::pong && final &&
           (second & 0x7FU) <= websocket_frame::longest_control;
}

} // namespace

std::optional<websocket_frame> websocket_frame::read(std::string_view bytes) {
    if (bytes.size() < 2) return std::nullopt;
    const unsigned first = byte_at(bytes, 0);
    const unsigned short_length = byte_at(bytes, 1) & 0x7FU;

    websocket_frame frame;
    frame.final = (first & 0x80U) != 0;
    frame.opcode = first & 15U;
    if (!may_be_sent(first, byte_at(bytes, 1))) return frame;

    const std::size_t length_size = short_length == 127 ? 8 : short_length == 126 ? 2 : 0;
    frame.head_size = 2 + length_size + key_size;
    if (bytes.size() < frame.head_size) return std::nullopt;
    frame.length = length_size == 0 ? short_length : high_byte_first(bytes.substr(2, length_size));

    const std::uint64_t shortest = length_size == 8 ? 65536 : length_size == 2 ? 126 : 0;
    const bool top_bit = frame.length >> 63 != 0;
    frame.sound = frame.length >= shortest && !top_bit;
    return frame;
}

void websocket_frame::append_payload(std::string& out, std::string_view bytes) const {
    assert(bytes.size() >= head_size && bytes.size() - head_size >= length);
    const std::string_view key = bytes.substr(head_size - key_size, key_size);
    const std::size_t start = out.size();
    out.append(bytes, head_size, static_cast<std::size_t>(length));
    for (std::size_t i = start; i < out.size(); ++i)
        out[i] = static_cast<char>(out[i] ^ key[(i - start) % key_size]);
}

bool is_utf8(const std::string& text) {
    constexpr int last_code_point = 0x10FFFF;
    std::size_t at = 0;
    while (at < text.size()) {
        int length = 1;
        // Faster for ASCII, which most texts are.
        if (byte_at(text, at) >= 0x80) {
            const int code_point = base::utf8_decode(text.c_str() + at, &length);
            if (code_point < 0 || code_point > last_code_point) return false;
        }
        at += static_cast<std::size_t>(length);
    }
    return true;
}

// 1004 to 1006 and 1015 are reserved, and never appear in a frame.
bool is_close_code(unsigned code) {
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
           (code >= 3000 && code <= 4999);
}
