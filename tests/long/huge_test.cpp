// What takes gibibytes: for tests/long/run, never for CTest.

#include "vindra/base/sha1.h"
#include "vindra/base/var.h"

#include <cstdio>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string digest_of(std::size_t length) {
    std::string text;
    for (const char c : base::sha1(std::string(length, 'a'))) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(c));
        text += two;
    }
    return text;
}

} // namespace

// The last one is the published digest; the others are made by another implementation whose padding
// has the same length field.
TEST(sha1, writes_the_length_in_bits_as_32_bits) {
    EXPECT_EQ(digest_of(536870915), "7943c977c1e73d58c568c26d037737c2479ecb0e");
    EXPECT_EQ(digest_of(536870912), "40cd9c4b14e7b8d0940a3a92c8a7661fad85a821");
    EXPECT_EQ(digest_of(536870911), "d8d6bf0518439c00a034780cf0ace7354202255e");
}

TEST(var, tells_the_largest_int_for_a_string_of_two_gibibytes_and_reaches_all_of_it) {
    constexpr int largest = std::numeric_limits<int>::max();
    std::string bytes;
    bytes.resize(2147483648, '-');
    bytes.front() = 'a';
    bytes.back() = 'z';
    const var text(bytes);
    EXPECT_EQ(text.size(), largest);
    EXPECT_EQ(std::string(text.get(0)), "a");
    EXPECT_EQ(std::string(text.get(-1)), "z");
    EXPECT_EQ(std::string(text.get(largest)), "z");
    EXPECT_EQ(std::string(text.get(std::numeric_limits<int>::min())), "a");
}
