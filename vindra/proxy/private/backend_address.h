#pragma once

#include <string>

#include <sys/socket.h>

/// Where to connect to, as socket() and connect() want it.
///
/// For http_proxy alone.
struct backend_address {
    /// What became of a look-up.
    enum class outcome {
        /// There is an address.
        found,
        /// The name cannot be resolved, or there is no such port.
        unresolved,
        /// The name has IPv6 addresses alone.
        unusable
    };

    /// Stores the first address of `host` that is not IPv6 in `result`. May block.
    ///
    /// What was found is remembered for a second, as long as the hosts file stays as it is: a
    /// resolver's answer costs as much as two requests, and a backend connection may be made for
    /// each. What was not found is asked again every time.
    static outcome find(const std::string& host, int port, backend_address& result);

    /// Arguments of socket().
    int family = 0;
    int type = 0;
    int protocol = 0;

    /// Arguments of connect(): the first `length` bytes of `address`.
    sockaddr_storage address{};
    socklen_t length = 0;
};
