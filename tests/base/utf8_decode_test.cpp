#include "vindra/base/utf8_decode.h"

#include <string>

#include <gtest/gtest.h>

namespace {

struct utf8_case {
    const char* name;
    const char* bytes;
    int code_point;
    int length;
};

constexpr utf8_case utf8_cases[] = {
    // name                       bytes               code point length
    {"zero", "", 0, 1},
    {"ASCII", "a", 'a', 1},
    {"last of one", "\x7f", 0x7f, 1},
    {"first of two", "\xc2\x80", 0x80, 2},
    {"last of two", "\xdf\xbf", 0x7ff, 2},
    {"first of three", "\xe0\xa0\x80", 0x800, 3},
    {"last of three", "\xef\xbf\xbf", 0xffff, 3},
    {"first of four", "\xf0\x90\x80\x80", 0x10000, 4},
    {"last of Unicode", "\xf4\x8f\xbf\xbf", 0x10ffff, 4},
    {"beyond Unicode", "\xf4\x90\x80\x80", 0x110000, 4},
    {"last of four", "\xf7\xbf\xbf\xbf", 0x1fffff, 4},
    {"before the surrogates", "\xed\x9f\xbf", 0xd7ff, 3},
    {"behind the surrogates", "\xee\x80\x80", 0xe000, 3},
    {"only the first sequence", "\xc3\xa9z", 0xe9, 2},

    {"continuation alone", "\x80", -1, 1},
    {"last continuation alone", "\xbf", -1, 1},
    {"overlong zero", "\xc0\x80", -1, 1},
    {"overlong of two", "\xc1\xbf", -1, 1},
    {"overlong of three", "\xe0\x9f\xbf", -1, 1},
    {"overlong of four", "\xf0\x8f\xbf\xbf", -1, 1},
    {"first surrogate", "\xed\xa0\x80", -1, 1},
    {"last surrogate", "\xed\xbf\xbf", -1, 1},
    {"five bytes", "\xf8\x88\x80\x80\x80", -1, 1},
    {"six bytes", "\xfc\x84\x80\x80\x80\x80", -1, 1},
    {"FE", "\xfe\x80\x80\x80\x80\x80\x80", -1, 1},
    {"FF", "\xff\xbf\xbf\xbf\xbf\xbf\xbf", -1, 1},
    {"two, cut", "\xc3", -1, 1},
    {"three, cut to one", "\xe2", -1, 1},
    {"three, cut to two", "\xe2\x82", -1, 1},
    {"four, cut to three", "\xf0\x9f\x98", -1, 1},
    {"ASCII for a continuation", "\xc3(", -1, 1},
    {"ASCII for the second", "\xe2\x82(", -1, 1},
    {"start for a continuation", "\xe2\xc3\xa9", -1, 1},
};

TEST(utf8_decode, tells_code_point_and_length) {
    for (const auto& c : utf8_cases) {
        // A copy that ends with its zero, so that a read beyond it is caught.
        const std::string bytes = c.bytes;
        int length = 0;
        EXPECT_EQ(base::utf8_decode(bytes.c_str(), &length), c.code_point) << c.name;
        EXPECT_EQ(length, c.length) << c.name;
    }
}

std::string encode(unsigned c) {
    const auto tail = [c](unsigned shift) { return static_cast<char>(0x80 | (c >> shift & 0x3f)); };
    if (c < 0x80) return {static_cast<char>(c)};
    if (c < 0x800) return {static_cast<char>(0xc0 | c >> 6), tail(0)};
    if (c < 0x10000) return {static_cast<char>(0xe0 | c >> 12), tail(6), tail(0)};
    return {static_cast<char>(0xf0 | c >> 18), tail(12), tail(6), tail(0)};
}

TEST(utf8_decode, gives_back_everything_but_surrogates) {
    for (unsigned c = 0; c <= 0x1fffff; ++c) {
        const bool is_surrogate = c >= 0xd800 && c <= 0xdfff;
        const std::string bytes = encode(c);
        int length = 0;
        ASSERT_EQ(base::utf8_decode(bytes.c_str(), &length),
                  is_surrogate ? -1 : static_cast<int>(c));
        ASSERT_EQ(length, is_surrogate ? 1 : static_cast<int>(bytes.size())) << c;
    }
}

} // namespace
