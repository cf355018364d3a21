#include "vindra/base/base64.h"

#include <string_view>

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

struct base64_case {
    std::string_view data;
    std::string_view text;
};

constexpr base64_case base64_cases[] = {
    // RFC 4648, section 10
    {""sv, ""},
    {"f"sv, "Zg=="},
    {"fo"sv, "Zm8="},
    {"foo"sv, "Zm9v"},
    {"foob"sv, "Zm9vYg=="},
    {"fooba"sv, "Zm9vYmE="},
    {"foobar"sv, "Zm9vYmFy"},
    // zero bytes are data, high bytes are unsigned
    {"\0"sv, "AA=="},
    {"\0\0"sv, "AAA="},
    {"\0\0\0"sv, "AAAA"},
    {"a\0b"sv, "YQBi"},
    {"\xff"sv, "/w=="},
    {"\xff\xff"sv, "//8="},
    {"\xff\xff\xff"sv, "////"},
    {"\xfb\xef\xbe"sv, "++++"},
};

TEST(base64, gives_the_published_text) {
    for (const auto& c : base64_cases) EXPECT_EQ(base::base64(std::string(c.data)), c.text);
}

TEST(base64, uses_each_letter_of_the_alphabet_in_its_place) {
    std::string data;
    for (unsigned i = 0; i < 64; i += 4) {
        const unsigned group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
        for (const unsigned shift : {16U, 8U, 0U}) data += static_cast<char>(group >> shift & 0xff);
    }
    EXPECT_EQ(base::base64(data),
              "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(base64, breaks_no_lines) {
    EXPECT_EQ(base::base64(std::string(300, 'a')).find_first_of("\r\n "), std::string::npos);
}

} // namespace
