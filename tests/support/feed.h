#pragma once

#include "vindra/core/connection.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

/// Hands `wire` to a connection as one block. The block stands in storage of exactly its
/// size, which is gone after the call: reading past its end, or keeping a pointer into it,
/// shows under the address sanitizer.
inline void feed(connection& conn, std::string_view wire) {
    const auto block = std::make_unique<char[]>(wire.size());
    std::copy(wire.begin(), wire.end(), block.get());
    conn.on_recv(block.get(), static_cast<int>(wire.size()));
}

/// The same in blocks of `piece` bytes and a last one with the rest.
inline void feed(connection& conn, std::string_view wire, std::size_t piece) {
    for (; !wire.empty(); wire.remove_prefix(std::min(piece, wire.size()))) {
        feed(conn, wire.substr(0, piece));
    }
}

/// The same in two blocks, cut before byte `cut`.
inline void feed_cut(connection& conn, std::string_view wire, std::size_t cut) {
    if (cut > 0) feed(conn, wire.substr(0, cut));
    if (cut < wire.size()) feed(conn, wire.substr(cut));
}
