#include "vindra/base/utf8_decode.h"

#include <cstdint>

namespace base {

namespace {

// Whether a code point may not stand in a sequence with `n` continuation bytes although it
// fits one. The upper bound is beyond what three bytes hold; four are let through unchecked.
bool is_excluded(std::uint32_t code_point, int n) {
    return n == 2 && ((code_point >= 0xd800 && code_point <= 0xdfff) || code_point >= 0x11000);
}

} // namespace

int utf8_decode(const char* p, int* length) {
    // The most that a sequence can say, by its number of continuation bytes.
    static constexpr std::uint32_t mask[] = {0x7f, 0x7ff, 0xffff, 0x1fffff};

    *length = 1;
    const auto first = static_cast<unsigned char>(*p);
    if (first < 0x80) return first;
    if (first < 0xc0) return -1;

    // One continuation byte for each one bit that follows the top bit of the first byte. A
    // zero byte is none, so the loop stops where the string does.
    std::uint32_t value = first;
    int n = 0;
    while (first & (0x40 >> n)) {
        if (++n == 4) return -1;
        const auto next = static_cast<unsigned char>(p[n]);
        if ((next & 0xc0) != 0x80) return -1;
        value = value << 6 | (next & 0x3f);
    }

    value &= mask[n];
    const bool is_overlong = (value & ~mask[n - 1]) == 0;
    if (is_overlong || is_excluded(value, n)) return -1;
    *length = n + 1;
    return static_cast<int>(value);
}

} // namespace base
