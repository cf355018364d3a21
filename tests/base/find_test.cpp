#include "vindra/base/find.h"

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

struct find_case {
    const char* name;
    std::string_view text;
    std::string_view pattern;
    std::size_t from;
    std::ptrdiff_t position;
};

constexpr std::string_view head =
    "GET /host: HTTP/1.1\r\nHost: a\r\nX-Forwarded-For: b\r\ncontent-LENGTH: 12";

constexpr find_case find_cases[] = {
    // name                        text            pattern          from position
    {"literal", "abcabc"sv, "bc"sv, 0, 1},
    {"literal, from behind", "abcabc"sv, "bc"sv, 2, 4},
    {"literal, from its place", "abcabc"sv, "bc"sv, 4, 4},
    {"literal, too late", "abcabc"sv, "bc"sv, 5, -1},
    {"whole text", "abc"sv, "abc"sv, 0, 0},
    {"longer than the text", "ab"sv, "abc"sv, 0, -1},
    {"longer than the rest", "abc"sv, "bcd"sv, 1, -1},
    {"capital in the pattern", "xabc"sv, "ABC"sv, 0, 1},
    {"capital in the text", "xABC"sv, "abc"sv, 0, 1},
    {"last letter leads", "yZ"sv, "z"sv, 0, 1},
    {"last letter leads in capitals", "yz"sv, "Z"sv, 0, 1},
    {"first letter leads", "bA"sv, "a"sv, 0, 1},
    {"no letters below A", "x@"sv, "`"sv, 0, -1},
    {"no letters behind Z", "x["sv, "{"sv, 0, -1},
    {"no folding beyond ASCII", "\xc3\x89"sv, "\xc3\xa9"sv, 0, -1},
    {"high byte", "a\xff"sv, "\xff"sv, 0, 1},
    {"zero byte", "a\0b"sv, "\0B"sv, 0, 1},
    {"false start", "\r\r\n\r\nx"sv, "\r\nx"sv, 0, 3},
    {"overlapping start", "aaab"sv, "aab"sv, 0, 1},
    {"cut short at the end", "xx\r"sv, "\r\n"sv, 0, -1},

    {"empty pattern", "abc"sv, ""sv, 0, 0},
    {"empty pattern further on", "abc"sv, ""sv, 2, 2},
    {"empty pattern at the end", "abc"sv, ""sv, 3, 3},
    {"empty pattern past the end", "abc"sv, ""sv, 4, -1},
    {"empty text", ""sv, "a"sv, 0, -1},
    {"both empty", ""sv, ""sv, 0, 0},
    {"far past the end", "abc"sv, "a"sv, std::string_view::npos, -1},
    {"star past the end", "abc"sv, "*"sv, 4, -1},

    {"question mark in the middle", "abc a-c"sv, "a?c"sv, 1, 4},
    {"question mark takes a line end", "a\nc"sv, "a?c"sv, 0, 0},
    {"question mark takes a zero", "a\0c"sv, "a?c"sv, 0, 0},
    {"question mark needs a byte", "ab"sv, "ab?"sv, 0, -1},
    {"leading question mark", "xab"sv, "?b"sv, 0, 1},
    {"leading question mark needs a byte", "b"sv, "?b"sv, 0, -1},
    {"question marks alone", "abc"sv, "???"sv, 0, 0},
    {"one question mark too many", "abc"sv, "????"sv, 0, -1},
    {"question mark in the text is a byte", "a?b"sv, "a?b"sv, 0, 0},

    {"star takes nothing", "ab"sv, "a*b"sv, 0, 0},
    {"star takes a run", "xa123b"sv, "a*b"sv, 0, 1},
    {"star crosses lines", "a\r\n\r\nb"sv, "a*b"sv, 0, 0},
    {"star takes zero bytes", "a\0\0b"sv, "a*b"sv, 0, 0},
    {"star alone", "abc"sv, "*"sv, 1, 1},
    {"star alone at the end", "abc"sv, "*"sv, 3, 3},
    {"leading star starts at once", "xxab"sv, "*ab"sv, 1, 1},
    {"leading star still needs the rest", "xxa"sv, "*ab"sv, 0, -1},
    {"trailing star", "xab"sv, "ab*"sv, 0, 1},
    {"two stars in a row", "xa-b"sv, "a**b"sv, 0, 1},
    {"star with a question mark", "a1b"sv, "a*?b"sv, 0, 0},
    {"question mark behind a star needs a byte", "ab"sv, "a*?b"sv, 0, -1},
    {"pieces do not overlap", "aba"sv, "ab*ba"sv, 0, -1},
    {"pieces in order", "c b a"sv, "a*b"sv, 0, -1},
    {"three pieces", "1a2b3c4"sv, "a*b*c"sv, 0, 1},
    {"first of two starts", "aa b"sv, "a*b"sv, 0, 0},
    {"star in the text is a byte", "a*b"sv, "a*b"sv, 0, 0},

    {"header", head, "\r\nhost"sv, 0, 19},
    {"header in other letters", head, "\r\nContent-Length"sv, 0, 48},
    {"not the request line", head, "\r\nGET"sv, 0, -1},
    {"header with a wildcard", head, "\r\nx-*-for"sv, 0, 28},
    {"header name without its end", head, "\r\nX-Forwarded"sv, 0, 28},
};

TEST(find, gives_the_first_match_at_or_after_its_start) {
    for (const auto& c : find_cases) {
        EXPECT_EQ(base::find(c.text, c.pattern, c.from), c.position) << c.name;
    }
}

class find_exact : public testing::Test {
protected:
    find_exact() { base::find_case_insensitive() = false; }
    ~find_exact() override { base::find_case_insensitive() = true; }
};

TEST(find, folds_letters_unless_told_otherwise) {
    EXPECT_TRUE(base::find_case_insensitive());
}

TEST_F(find_exact, tells_letters_apart_by_case) {
    EXPECT_EQ(base::find("abcABC", "ABC"), 3);
    EXPECT_EQ(base::find("abcABC", "bcA"), 1);
    EXPECT_EQ(base::find("abc", "aBc"), -1);
    EXPECT_EQ(base::find("abc", "A"), -1);
    EXPECT_EQ(base::find("xAxb", "A?b"), 1);
    EXPECT_EQ(base::find("xAxb", "a*b"), -1);
}

// A matcher that tries everything: a table over both lengths, filled from the ends.
bool matches_somehow(std::string_view text, std::string_view pattern, bool folding) {
    const auto same = [folding](char a, char b) {
        if (!folding) return a == b;
        return std::tolower(static_cast<unsigned char>(a)) ==
               std::tolower(static_cast<unsigned char>(b));
    };
    // can[i]: the pattern's tail matches a beginning of text[i..].
    std::vector<bool> can(text.size() + 1, true);
    for (std::size_t p = pattern.size(); p-- > 0;) {
        std::vector<bool> next(text.size() + 1, false);
        for (std::size_t i = text.size() + 1; i-- > 0;) {
            if (pattern[p] == '*') {
                next[i] = can[i] || (i < text.size() && next[i + 1]);
            } else if (i < text.size()) {
                next[i] = can[i + 1] && (pattern[p] == '?' || same(pattern[p], text[i]));
            }
        }
        can = next;
    }
    return can[0];
}

std::ptrdiff_t find_by_trying(std::string_view text, std::string_view pattern, std::size_t from,
                              bool folding) {
    for (std::size_t i = from; i <= text.size(); ++i) {
        if (matches_somehow(text.substr(i), pattern, folding)) {
            return static_cast<std::ptrdiff_t>(i);
        }
    }
    return -1;
}

std::string random_text(std::mt19937& random, std::string_view letters, std::size_t longest) {
    std::string text;
    for (std::size_t n = random() % (longest + 1); n > 0; --n) {
        text += letters[random() % letters.size()];
    }
    return text;
}

void compare_with_trying(bool folding) {
    std::mt19937 random(11);
    for (int i = 0; i < 20000; ++i) {
        const std::string text = random_text(random, "abA\r?*", 12);
        const std::string pattern = random_text(random, "abB\r?*", 5);
        const std::size_t from = random() % 4;
        ASSERT_EQ(base::find(text, pattern, from), find_by_trying(text, pattern, from, folding))
            << "text " << testing::PrintToString(text) << ", pattern "
            << testing::PrintToString(pattern) << ", from " << from;
    }
}

TEST(find, agrees_with_a_search_that_tries_everything) {
    compare_with_trying(true);
}

TEST_F(find_exact, agrees_with_a_search_that_tries_everything) {
    compare_with_trying(false);
}

TEST(find, many_stars_do_not_explode) {
    std::string pattern;
    for (int i = 0; i < 200; ++i) pattern += "a*";
    const std::string text(5000, 'a');
    EXPECT_EQ(base::find(text, pattern + "b"), -1);
    EXPECT_EQ(base::find(text + "b", pattern + "b"), 0);
}

} // namespace
