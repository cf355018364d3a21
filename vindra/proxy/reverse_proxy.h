#pragma once

#include "vindra/base/export.h"
#include "vindra/base/hashmap.h"
#include "vindra/proxy/http_proxy.h"

/// A client connection whose requests go to a port of this machine. The exact value of the Host
/// header chooses the port. The program `vindra` serves its clients with it.
class VINDRA_API reverse_proxy : public http_proxy {
public:
    /// The port that stands for the built-in echo handler.
    static constexpr int echo_port = -1;

    reverse_proxy();

    /// Maps values of Host, byte for byte, to local ports. Port 0 counts as no mapping. Fill it
    /// before the first client is accepted. It lives until the process exits.
    static base::hashmap<int>& hosts();

    /// Logs the request, then answers it or queues it for its backend. Each request is looked up
    /// anew. An unmapped host gets 404. A host mapped to echo_port gets its own head back. A port
    /// without an address gets 502.
    void on_headers() override;

private:
    /// Queues the head of the request and the client's address as the answer.
    void answer_with_echo_();
    /// Queues the request for the backend at that port, with an X-Forwarded-For line.
    void forward_to_(int mapped_port);
};
