#pragma once

#include "vindra/base/export.h"
#include "vindra/http/http_connection.h"

/// A client of the plain port beside an HTTPS port: each request is answered with a permanent
/// redirect (RFC 9110, 15.4.2) to the same host and path over HTTPS, then the connection closes.
class VINDRA_API redirector : public http_connection {
public:
    redirector();

    /// The port that redirects name, 443 until set; that one goes without saying in a URL. Set
    /// before the server of these connections runs.
    static int& ssl_port();

    /// Answers a complete request, whatever its method. The query is left out of the redirect,
    /// and so is the port that the client named.
    void on_request() override;
};
