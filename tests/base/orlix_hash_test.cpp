#include "vindra/base/orlix_hash.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::uint32_t hash_of(const std::string& key) {
    return base::orlix_hash(key.data(), static_cast<unsigned>(key.size()));
}

TEST(orlix_hash, gives_the_reference_values) {
    EXPECT_EQ(hash_of(""), 843U);
    EXPECT_EQ(hash_of("a"), 4770U);
    EXPECT_EQ(hash_of("ab"), 86435U);
    EXPECT_EQ(hash_of("localhost"), 1363296717U);
}

TEST(orlix_hash, a_zero_byte_wipes_out_what_stood_before_it) {
    const std::string one("xabc\0z", 6);
    const std::string other("xdef\0z", 6);
    EXPECT_EQ(hash_of(one), hash_of(other));
}

TEST(orlix_hash, reads_bytes_as_unsigned) {
    EXPECT_NE(hash_of("\x80"), hash_of("\x7f"));
    // 0xFF as the first byte: h = 19 + 255, not 19 - 1.
    const std::uint32_t h = 255U ^ ((19U + 255U) << 2);
    const std::uint32_t x = 11 * h + 7;
    EXPECT_EQ(hash_of("\xff"), x ^ (x >> 16));
}

} // namespace
