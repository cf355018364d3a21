#pragma once

#include "vindra/core/server.h"
#include "vindra/proxy/redirector.h"

/// The server<T> of the plain port beside an HTTPS port. The clients that it accepts are
/// redirectors. Connections of other classes may be added to its list as to any server's.
template <typename T>
class redirect_server : public server<T> {
public:
    using server<T>::server;

    /// Makes a redirector for any peer.
    connection* create_connection(int peer_address) override;

private:
    const bool moves_as_this_ = this->moves_as(class_of<redirect_server>());
};

template <typename T>
connection* redirect_server<T>::create_connection(int /*peer_address*/) {
    return new redirector;
}
