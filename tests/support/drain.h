#pragma once

#include "vindra/core/connection.h"

#include <string>
#include <vector>

/// What one call of on_send() gave.
struct sent_piece {
    std::string bytes;
    bool open;
};

/// Asks a connection for output once, with `capacity` bytes of its own send buffer.
inline sent_piece send_once(connection& conn, int capacity = connection::send_buffer_size) {
    int length = 0;
    const bool open = conn.on_send(conn.send_buffer, capacity, &length);
    return {std::string(conn.send_buffer, static_cast<std::size_t>(length)), open};
}

/// Everything a connection had to send, a string for each call that gave some.
struct drained {
    std::vector<std::string> pieces;

    /// The answer of the last call, the one that gave nothing.
    bool open = true;

    std::string bytes() const {
        std::string all;
        for (const std::string& piece : pieces) all += piece;
        return all;
    }
};

/// Asks until a call gives nothing.
inline drained drain(connection& conn, int capacity = connection::send_buffer_size) {
    drained result;
    for (;;) {
        sent_piece piece = send_once(conn, capacity);
        result.open = piece.open;
        if (piece.bytes.empty()) return result;
        result.pieces.push_back(std::move(piece.bytes));
    }
}
