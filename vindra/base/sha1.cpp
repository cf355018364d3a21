#include "vindra/base/sha1.h"

#include <array>
#include <bit>
#include <cassert>
#include <cstdint>

namespace base {

namespace {

constexpr std::size_t block_size = 64;

using digest_words = std::array<std::uint32_t, 5>;

void append_big_endian(std::string& out, std::uint32_t word) {
    for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(word >> shift & 0xff);
}

std::uint32_t read_big_endian(const char* bytes) {
    std::uint32_t word = 0;
    for (int i = 0; i < 4; ++i) word = word << 8 | static_cast<unsigned char>(bytes[i]);
    return word;
}

std::string padded(const std::string& data) {
    std::string message = data;
    message += '\x80';
    while (message.size() % block_size != block_size - 8) message += '\0';
    append_big_endian(message, 0);
    append_big_endian(message, static_cast<std::uint32_t>(data.size() * 8));
    assert(message.size() % block_size == 0);
    return message;
}

// The message schedule: the block's 16 words and 64 more made of them.
std::array<std::uint32_t, 80> schedule(const char* block) {
    std::array<std::uint32_t, 80> w{};
    for (std::size_t t = 0; t < 16; ++t) w[t] = read_big_endian(block + 4 * t);
    for (std::size_t t = 16; t < 80; ++t) {
        w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    }
    return w;
}

// The function and the constant of round `t`, as one sum.
std::uint32_t mix(std::size_t t, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    if (t < 20) return ((b & c) | (~b & d)) + 0x5a827999;
    if (t < 40) return (b ^ c ^ d) + 0x6ed9eba1;
    if (t < 60) return ((b & c) | (b & d) | (c & d)) + 0x8f1bbcdc;
    return (b ^ c ^ d) + 0xca62c1d6;
}

void add_block(digest_words& state, const char* block) {
    const auto w = schedule(block);
    auto [a, b, c, d, e] = state;
    for (std::size_t t = 0; t < 80; ++t) {
        const std::uint32_t next = std::rotl(a, 5) + mix(t, b, c, d) + e + w[t];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

} // namespace

std::string sha1(const std::string& data) {
    const std::string message = padded(data);
    digest_words state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
    for (std::size_t i = 0; i < message.size(); i += block_size) add_block(state, &message[i]);

    std::string digest;
    for (const std::uint32_t word : state) append_big_endian(digest, word);
    assert(digest.size() == 20);
    return digest;
}

} // namespace base
