#pragma once

#include "vindra/core/server_base.h"

#include <cstdlib>

/// A server whose clients are connections of class `T`, which is default-constructible and
/// derives from connection.
///
/// Start it, then wait and update in turn, or leave that to abstract_server::run(). To change
/// how clients are made, admitted, read or written, derive and override the hooks of
/// server_base.
template <typename T>
class server : public server_base {
public:
    using server_base::server_base;

    /// One turn of the engine; see server_base for its order. After a failed wait that was not
    /// interrupted it stops and starts the server instead, which ends every connection.
    void update() override {
        // One for all servers of this class; received bytes never stay in it beyond a hook.
        static char* const receive_buffer = static_cast<char*>(std::malloc(receive_buffer_size));
        update_with(receive_buffer);
    }

    /// A new `T`.
    connection* create_connection(int /*peer_address*/) override { return new T; }

private:
    const bool moves_as_this_ = moves_as(class_of<server>());
};
