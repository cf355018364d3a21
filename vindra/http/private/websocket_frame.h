#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Head of one frame from a client, by RFC 6455, section 5.2. For http_connection only.
///
/// ```
/// byte 0   final (1 bit), reserved (3), opcode (4)
/// byte 1   masked (1), length (7): up to 125 itself; 126: in the next 2 bytes; 127: in the next 8
/// then     those bytes of the length, high byte first; 4 bytes of key; the payload
/// ```
struct websocket_frame {
    /// Opcodes. From `closing` on they are control frames, which may stand inside a message.
    enum kind : unsigned {
        continuation = 0,
        text = 1,
        binary = 2,
        closing = 8,
        ping = 9,
        pong = 10
    };

    /// Longest payload of a close, ping or pong.
    static constexpr std::size_t longest_control = 125;

    /// Reads the head at the front of `bytes`. Returns nothing while it is incomplete. A head that
    /// is not sound is returned as soon as that is known; its other fields mean nothing then.
    static std::optional<websocket_frame> read(std::string_view bytes);

    /// True if a client may send such a frame: masked, no reserved bits, a known opcode, the length
    /// in its shortest form. A control frame must also be short and in one piece.
    bool sound = false;

    /// Last frame of its message.
    bool final = false;

    /// One of `kind`, in a sound frame.
    unsigned opcode = 0;

    /// Bytes of the head, key included, and of the payload behind it.
    std::size_t head_size = 0;
    std::uint64_t length = 0;

    bool is_control() const { return opcode >= closing; }

    /// Appends the unmasked payload to `out`. `bytes` must begin with this frame, whole.
    void append_payload(std::string& out, std::string_view bytes) const;
};

/// True if `text` is valid UTF-8 (RFC 3629) and ends with a whole character.
bool is_utf8(const std::string& text);

/// True if a close frame may carry `code` (RFC 6455, section 7.4).
bool is_close_code(unsigned code);
