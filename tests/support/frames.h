#pragma once

#include "tests/support/drain.h"
#include "tests/support/feed.h"
#include "tests/support/recording_connection.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// `text` with each byte combined with the byte of `key` that masks it. Its own inverse.
inline std::string masked(std::string text, const std::string& key) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>(text[i] ^ key[i % 4]);
    }
    return text;
}

inline std::string bytes_low_first(std::uint64_t value, int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

/// A client's frame of at most 125 bytes of payload; `first` is its byte 0.
inline std::string short_frame(int first, const std::string& payload,
                               const std::string& key = "\x11\x22\x33\x44") {
    std::string frame(1, static_cast<char>(first));
    frame += static_cast<char>(0x80U | static_cast<unsigned>(payload.size()));
    return frame + key + masked(payload, key);
}

/// A client's frame in the 126 form as it is read here: the low byte of the length first.
inline std::string medium_frame(int first, const std::string& payload,
                                const std::string& key = "\x11\x22\x33\x44") {
    return static_cast<char>(first) + std::string("\xFE") + bytes_low_first(payload.size(), 2) +
           key + masked(payload, key);
}

/// A client's frame in the 127 form as it is read here: `wire` are the bytes behind the
/// length, of which the first four are the key too. The payload is long_payload(wire).
inline std::string long_frame(int first, const std::string& wire) {
    return static_cast<char>(first) + std::string("\xFF") + "unread" +
           bytes_low_first(wire.size() + 2, 8) + wire;
}

/// What long_frame() carries: it starts with the two highest bytes of the length.
inline std::string long_payload(const std::string& wire) {
    return masked(std::string(2, '\0') + wire, wire.substr(0, 4));
}

/// A client's frame by RFC 6455, in the shortest form; `first` is its byte 0.
inline std::string standard_frame(int first, const std::string& payload,
                                  const std::string& key = "\x11\x22\x33\x44") {
    const std::size_t n = payload.size();
    const int bytes = n < 126 ? 0 : n < 65536 ? 2 : 8;
    const std::size_t seven = bytes == 0 ? n : bytes == 2 ? 126 : 127;
    std::string frame{static_cast<char>(first), static_cast<char>(0x80U | seven)};
    for (int i = bytes - 1; i >= 0; --i) frame += static_cast<char>(n >> (8 * i));
    return frame + key + masked(payload, key);
}

/// A connection behind its handshake, with nothing left to send.
inline std::unique_ptr<recording_connection> upgraded_connection() {
    auto conn = std::make_unique_for_overwrite<recording_connection>();
    feed(*conn, "GET / HTTP/1.1\r\nUpgrade: websocket\r\nSec-WebSocket-Key: k\r\n"
                "Sec-WebSocket-Version: 13\r\n\r\n");
    drain(*conn);
    conn->calls.clear();
    return conn;
}
