#pragma once

#include "vindra/core/server.h"
#include "vindra/proxy/redirector.h"

/// The server<T> of the plain port beside an HTTPS port: its own clients are redirectors. It is
/// still a server of T to whoever puts connections of their own into it.
template <typename T>
class redirect_server : public server<T> {
public:
    using server<T>::server;

    /// A new redirector, whatever the peer's address.
    connection* create_connection(int peer_address) override;
};

template <typename T>
connection* redirect_server<T>::create_connection(int /*peer_address*/) {
    return new redirector;
}
