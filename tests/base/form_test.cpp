#include "vindra/base/form.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using pairs = std::vector<base::form::pair>;

TEST(percent_decode, decodes_what_is_encoded_and_nothing_else) {
    const struct {
        const char* name;
        std::string text;
        std::string decoded;
    } cases[] = {
        {"nothing", "", ""},
        {"plain", "/a/b.c~d", "/a/b.c~d"},
        {"either case", "%2f%2F%aB%Ab", "//\xAB\xAB"},
        {"any byte", "%00%FF%25", "\0\xFF%"s},
        {"once only", "%2541", "%41"},
        {"plus stays", "a+b", "a+b"},
        {"no digits", "100%", "100%"},
        {"one digit", "%4", "%4"},
        {"second is none", "%4g%41", "%4gA"},
        {"first is none", "%g4%41", "%g4A"},
        {"two signs", "%%41", "%A"},
        {"letters behind f", "%G0%0G%@0%`0", "%G0%0G%@0%`0"},
        {"sign at the end", "%41%", "A%"},
    };
    for (const auto& c : cases) EXPECT_EQ(base::percent_decode(c.text), c.decoded) << c.name;
}

TEST(form, reads_pairs_in_order) {
    const struct {
        const char* name;
        std::string_view text;
        pairs expected;
    } cases[] = {
        {"nothing", "", {}},
        {"separators alone", "&&&", {}},
        {"one", "a=1", {{"a", "1"}}},
        {"repeated", "b=2&a=1&b=3", {{"b", "2"}, {"a", "1"}, {"b", "3"}}},
        {"no sign", "a&b=1", {{"a", ""}, {"b", "1"}}},
        {"no value", "a=", {{"a", ""}}},
        {"no name", "=1", {{"", "1"}}},
        {"sign alone", "=", {{"", ""}}},
        {"second sign", "a=b=c", {{"a", "b=c"}}},
        {"empty pieces", "&a=1&&b=2&", {{"a", "1"}, {"b", "2"}}},
        {"blanks", "a+b=c+d&e=%2B", {{"a b", "c d"}, {"e", "+"}}},
        {"encoded separators", "a%26b=c%3Dd", {{"a&b", "c=d"}}},
        {"no semicolons", "a=1;b=2", {{"a", "1;b=2"}}},
        {"mark of the query", "?a=1", {{"?a", "1"}}},
        {"broken encoding", "a=100%&b=%zz", {{"a", "100%"}, {"b", "%zz"}}},
    };
    for (const auto& c : cases) EXPECT_EQ(base::form(c.text).pairs, c.expected) << c.name;
}

// The pieces are those of the Unicode standard's "substitution of maximal subparts".
TEST(form, gives_valid_utf8) {
    const std::string mark = "\xEF\xBF\xBD";
    const struct {
        const char* name;
        std::string_view text;
        std::string value;
    } cases[] = {
        {"two bytes", "%C3%A9", "\xC3\xA9"},
        {"not encoded", "\xC3\xA9", "\xC3\xA9"},
        {"three bytes", "%E2%82%AC", "\xE2\x82\xAC"},
        {"four bytes", "%F0%9F%99%82", "\xF0\x9F\x99\x82"},
        {"largest", "%F4%8F%BF%BF", "\xF4\x8F\xBF\xBF"},
        {"too large", "%F4%90%80%80", mark + mark + mark + mark},
        {"byte order mark", "%EF%BB%BFa", "\xEF\xBB\xBF"s + "a"},
        {"continuation", "a%80b", "a" + mark + "b"},
        {"overlong in two", "%C0%AF", mark + mark},
        {"overlong in three", "%E0%9F%BF", mark + mark + mark},
        {"overlong in four", "%F0%8F%BF%BF", mark + mark + mark + mark},
        {"surrogate", "%ED%A0%80", mark + mark + mark},
        {"before the surrogates", "%ED%9F%BF", "\xED\x9F\xBF"},
        {"cut at the end", "%E2%82", mark},
        {"cut by a letter", "%E2%82a", mark + "a"},
        {"cut by a lead", "%F0%9F%C3%A9", mark + "\xC3\xA9"},
        {"no lead", "%F5%FF", mark + mark},
    };
    for (const auto& c : cases) {
        const base::form read("a=" + std::string(c.text));
        EXPECT_EQ(read.get("a"), c.value) << c.name;
    }
}

TEST(form, finds_values_by_exact_name) {
    const base::form read("tag=a&Tag=b&tag=c&empty=");
    EXPECT_EQ(read.get("tag"), "a");
    EXPECT_EQ(read.get_all("tag"), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(read.get("empty"), "");
    EXPECT_EQ(read.get("ta"), std::nullopt);
    EXPECT_EQ(read.get_all("ta"), std::vector<std::string>{});
    EXPECT_EQ(read.get("none").value_or("default"), "default");
}

} // namespace
