#pragma once

#include "vindra/base/export.h"
#include "vindra/http/http_connection.h"

/// A client of the plain port beside an HTTPS port. Answers each request with a permanent redirect
/// (RFC 9110, section 15.4.2) to the same host and path over HTTPS and closes the connection.
class VINDRA_API redirector : public http_connection {
public:
    redirector();

    /// The port that redirects name. It is 443 until set, and a URL leaves out 443. Set it before
    /// the server of these connections runs.
    static int& ssl_port();

    /// Answers a complete request of any method. The redirect has neither the query nor the port
    /// that the client named.
    void on_request() override;
};
