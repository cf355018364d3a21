#pragma once

#include "vindra/base/export.h"
#include "vindra/core/connection.h"
#include "vindra/proxy/proxy_pipe.h"

/// The backend's side of a relay. Moves bytes between its socket and the pipe that it shares with a
/// client, without parsing them.
///
/// http_proxy makes one for a socket that is still connecting. The server that
/// http_proxy::g_server() names owns it and never times it out. It ends when the backend closes or
/// fails, or when the client is gone and everything that the client sent is written.
class VINDRA_API proxy_connection : public connection {
public:
    /// Takes a share of `shared`, which the destructor releases. The server closes `socket`.
    proxy_connection(int socket, proxy_pipe* shared);

    ~proxy_connection() override;

    /// Appends bytes of the answer to `to_client`.
    void on_recv(char* data, int length) override;

    /// Hands over the bytes of `to_backend`.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Never null. The end that is released last frees it.
    proxy_pipe* pipe;

private:
    /// This connection's share of `pipe`.
    proxy_pipe::end end_{proxy_pipe::end::side::backend, pipe, *this};
};
