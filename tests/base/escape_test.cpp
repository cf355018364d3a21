#include "vindra/base/escape.h"

#include <string_view>

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

struct escape_case {
    const char* name;
    std::string_view text;
    std::string_view plain;
    std::string_view json;
};

constexpr escape_case escape_cases[] = {
    // name                 text               plain                      json
    {"empty", ""sv, "", ""},
    {"quote and backslash", "a\"b\\c"sv, R"(a\"b\\c)", R"(a\"b\\c)"},
    {"short escapes", "\b\f\n\r\t"sv, R"(\b\f\n\r\t)", R"(\b\f\n\r\t)"},
    {"zero byte", "\0"sv, R"(\0)", R"(\0)"},
    {"zero byte inside", "a\0b"sv, R"(a\0b)", R"(a\0b)"},
    {"slash", "/"sv, "/", "/"},
    {"single quote", "'"sv, "'", "'"},
    {"ends of the printable", " ~"sv, " ~", " ~"},
    {"first control", "\x01"sv, R"(\x01)", R"(\u0001)"},
    {"vertical tab", "\v"sv, R"(\x0b)", R"(\u000b)"},
    {"escape", "\x1b"sv, R"(\x1b)", R"(\u001b)"},
    {"last control", "\x1f"sv, R"(\x1f)", R"(\u001f)"},
    {"delete", "\x7f"sv, R"(\x7f)", R"(\u007f)"},
    {"two bytes", "\xc3\xa9"sv, R"(\xc3\xa9)", R"(\u00e9)"},
    {"three bytes", "\xe2\x82\xac"sv, R"(\xe2\x82\xac)", R"(\u20ac)"},
    {"four bytes", "\xf0\x9f\x98\x80"sv, R"(\xf0\x9f\x98\x80)", R"(\ud83d\ude00)"},
    {"first pair", "\xf0\x90\x80\x80"sv, R"(\xf0\x90\x80\x80)", R"(\ud800\udc00)"},
    {"last pair", "\xf4\x8f\xbf\xbf"sv, R"(\xf4\x8f\xbf\xbf)", R"(\udbff\udfff)"},
    {"beyond Unicode", "\xf7\xbf\xbf\xbf"sv, R"(\xf7\xbf\xbf\xbf)", R"(\udfbf\udfff)"},
    {"last of one unit", "\xef\xbf\xbf"sv, R"(\xef\xbf\xbf)", R"(\uffff)"},
    {"between ASCII", "a\xc3\xa9z"sv, R"(a\xc3\xa9z)", R"(a\u00e9z)"},
    {"surrogate", "\xed\xa0\x80"sv, R"(\xed\xa0\x80)", R"(\uffff\uffff\uffff)"},
    {"overlong zero", "\xc0\x80"sv, R"(\xc0\x80)", R"(\uffff\uffff)"},
    {"stray continuation", "\x80"sv, R"(\x80)", R"(\uffff)"},
    {"five bytes", "\xf8\x88\x80\x80\x80"sv, R"(\xf8\x88\x80\x80\x80)",
     R"(\uffff\uffff\uffff\uffff\uffff)"},
    {"cut at the end", "\xe2\x82"sv, R"(\xe2\x82)", R"(\uffff\uffff)"},
    {"cut by a zero byte", "\xe2\0\x82"sv, R"(\xe2\0\x82)", R"(\uffff\0\uffff)"},
    {"cut by ASCII", "\xe2\x82("sv, R"(\xe2\x82()", R"(\uffff\uffff()"},
    {"cut by a whole one", "\xe2\xc3\xa9"sv, R"(\xe2\xc3\xa9)", R"(\uffff\u00e9)"},
};

TEST(escape, gives_the_body_of_a_quoted_string) {
    for (const auto& c : escape_cases) {
        EXPECT_EQ(base::escape(std::string(c.text), false), c.plain) << c.name;
        EXPECT_EQ(base::escape(std::string(c.text), true), c.json) << c.name;
    }
}

TEST(escape, gives_printable_ascii_only) {
    std::string every_byte;
    for (int c = 0; c < 256; ++c) every_byte += static_cast<char>(c);
    for (const bool json : {false, true}) {
        for (const char c : base::escape(every_byte, json)) EXPECT_TRUE(c >= 0x20 && c <= 0x7e);
    }
}

} // namespace
