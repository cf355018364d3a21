#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The head of one frame from a client, by RFC 6455, section 5.2. For http_connection's own use.
///
/// ```
/// byte 0   final (1 bit), reserved (3), opcode (4)
/// byte 1   masked (1), length (7): up to 125 itself; 126: in the next 2 bytes; 127: in the next 8
/// then     those bytes of the length, high byte first; 4 bytes of key; the payload
/// ```
struct websocket_frame {
    /// Meaning of a frame; from `close` on, it may stand between the frames of a message.
    enum kind : unsigned { continuation = 0, text = 1, binary = 2, close = 8, ping = 9, pong = 10 };

    /// Longest payload of a close, ping or pong.
    static constexpr std::size_t longest_control = 125;

    /// Reads the head at the front of `bytes`; nothing while it is incomplete. A head that is not
    /// sound is returned as soon as that shows, with no more than its opcode set.
    static std::optional<websocket_frame> read(std::string_view bytes);

    /// True if a client may send this frame at all: masked, without reserved bits, of a known
    /// opcode, the length in its shortest form, and a control frame short and in one piece.
    bool sound = false;

    /// The last frame of its message.
    bool final = false;

    /// One of `kind` in a sound frame.
    unsigned opcode = 0;

    /// Bytes of the head, key included, and of the payload behind it.
    std::size_t head_size = 0;
    std::uint64_t length = 0;

    bool is_control() const { return opcode >= close; }

    /// Appends the unmasked payload to `out`. `bytes` starts with this frame and holds all of it.
    void append_payload(std::string& out, std::string_view bytes) const;
};

/// True if `text` is valid UTF-8 (RFC 3629) and ends with a whole character.
bool is_utf8(const std::string& text);

/// True if a close frame may carry `code` (RFC 6455, section 7.4).
bool is_close_code(unsigned code);
