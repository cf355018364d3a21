#pragma once

#include "vindra/base/export.h"
#include "vindra/core/connection.h"
#include "vindra/proxy/proxy_pipe.h"

/// The backend's side of a relay: moves bytes between its socket and the pipe that it shares
/// with a client, and reads none of them.
///
/// Made by http_proxy for a socket that is still connecting, owned by the server named by
/// http_proxy::g_server(), never timed out. Ends when the backend closes or fails, or once
/// the client is gone and all that it had sent is written.
class VINDRA_API proxy_connection : public connection {
public:
    /// Takes a share of `shared`, which its destructor releases. The server closes `socket`.
    proxy_connection(int socket, proxy_pipe* shared);

    ~proxy_connection() override;

    /// Passes an answer on as it comes.
    void on_recv(char* data, int length) override;

    /// Hands over what the client has sent.
    bool on_send(char* buffer, int capacity, int* length) override;

    /// Never null; freed by whichever end lets go last.
    proxy_pipe* pipe;

private:
    proxy_pipe::end end_{proxy_pipe::end::side::backend, pipe, *this};
};
