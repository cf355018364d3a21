#pragma once

#include "vindra/base/export.h"
#include "vindra/base/hashmap.h"
#include "vindra/proxy/http_proxy.h"

/// A client connection whose requests go to a port of this machine chosen by the exact value
/// of their Host header: the application's connection.
class VINDRA_API reverse_proxy : public http_proxy {
public:
    /// The port that stands for the built-in echo handler.
    static constexpr int echo_port = -1;

    reverse_proxy();

    /// Host values, byte for byte, and the local ports that they are mapped to. 0 is as good as
    /// absent. Filled before any client is accepted; lives until the process exits.
    static base::hashmap<int>& hosts();

    /// Logs the request, then answers it or queues it for its backend: the choice is made anew
    /// for every request. An unknown host gets 404, one mapped to echo_port its own head back,
    /// one whose port has no address 502.
    void on_headers() override;

private:
    void answer_with_echo_();
    void forward_to_(int mapped_port);
};
