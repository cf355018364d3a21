#include "vindra/base/base64.h"

#include <cstdint>

namespace base {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The byte at `i`, or 0 past the end.
std::uint32_t byte_at(const std::string& data, std::size_t i) {
    return i < data.size() ? static_cast<unsigned char>(data[i]) : 0;
}

} // namespace

std::string base64(const std::string& data) {
    std::string text;
    text.reserve((data.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < data.size(); i += 3) {
        const std::uint32_t group =
            byte_at(data, i) << 16 | byte_at(data, i + 1) << 8 | byte_at(data, i + 2);
        text += alphabet[group >> 18];
        text += alphabet[group >> 12 & 63];
        text += i + 1 < data.size() ? alphabet[group >> 6 & 63] : '=';
        text += i + 2 < data.size() ? alphabet[group & 63] : '=';
    }
    return text;
}

} // namespace base
