#include "vindra/base/base64.h"
#include "vindra/base/sha1.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(c));
        text += two;
    }
    return text;
}

struct sha1_case {
    const char* name;
    std::string data;
    const char* digest;
};

// The published vectors, then the lengths around the ends of a block.
const sha1_case sha1_cases[] = {
    {"empty", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    {"abc", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"448 bits", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {"a million", std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {"55 bytes", std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
    {"56 bytes", std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
    {"57 bytes", std::string(57, 'a'), "f08f24908d682555111be7ff6f004e78283d989a"},
    {"63 bytes", std::string(63, 'a'), "03f09f5b158a7a8cdad920bddc29b81c18a551f5"},
    {"64 bytes", std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
    {"65 bytes", std::string(65, 'a'), "11655326c708d70319be2610e8a57d9a5b959d3b"},
    {"119 bytes", std::string(119, 'a'), "ee971065aaa017e0632a8ca6c77bb3bf8b1dfc56"},
    {"120 bytes", std::string(120, 'a'), "f34c1488385346a55709ba056ddd08280dd4c6d6"},
    {"128 bytes", std::string(128, 'a'), "ad5b3fdbcb526778c2839d2f151ea753995e26a0"},
    {"zero bytes", std::string(3, '\0'), "29e2dcfbb16f63bb0254df7585a15bb6fb5e927d"},
    {"high bytes", std::string(70, '\xff'), "9e25deb8d3822ba70a8519480ea5691272a2012a"},
};

TEST(sha1, gives_the_published_digest) {
    for (const auto& c : sha1_cases) EXPECT_EQ(hex(base::sha1(c.data)), c.digest) << c.name;
}

TEST(sha1, gives_20_raw_bytes) {
    EXPECT_EQ(base::sha1("").size(), 20U);
    EXPECT_EQ(base::sha1("")[0], '\xda');
}

TEST(sha1, with_base64_makes_the_websocket_accept_of_rfc_6455) {
    const std::string key = "dGhlIHNhbXBsZSBub25jZQ==";
    EXPECT_EQ(base::base64(base::sha1(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")),
              "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
}

} // namespace
