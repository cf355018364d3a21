#include "vindra/base/utf8_decode.h"

#include <cstdint>

namespace base {

namespace {

// True if a sequence with `n` continuation bytes may not encode this code point, although it has
// the room. The upper bound is more than three bytes hold, and four are not checked.
bool is_excluded(std::uint32_t code_point, int n) {
    return n == 2 && ((code_point >= 0xd800 && code_point <= 0xdfff) || code_point >= 0x11000);
}

} // namespace

int utf8_decode(const char* p, int* length) {
    // The largest value of a sequence, by its number of continuation bytes.
    static constexpr std::uint32_t mask[] = {0x7f, 0x7ff, 0xffff, 0x1fffff};

    *length = 1;
    const auto first = static_cast<unsigned char>(*p);
    if (first < 0x80) return first;
    if (first < 0xc0) return -1;

    // Each 1 bit behind the top bit of the first byte announces a continuation byte. A zero byte
    // is none, so the loop ends where the string does.
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
