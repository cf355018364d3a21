#pragma once

#include <string>

#include <sys/socket.h>

/// Arguments of socket() and connect() for a backend. Only http_proxy uses it.
struct backend_address {
    /// Result of a look-up.
    enum class outcome {
        /// There is an address.
        found,
        /// The name cannot be resolved, or there is no such port.
        unresolved,
        /// The name has only IPv6 addresses.
        unusable
    };

    /// Stores the first address of `host` that is not IPv6 in `result`. May block.
    ///
    /// Keeps an address for a second, unless the hosts file changes. A look-up costs as much as two
    /// requests, and each request may need a backend connection. A name that was not found is
    /// looked up again every time.
    static outcome find(const std::string& host, int port, backend_address& result);

    /// Arguments of socket().
    int family = 0;
    int type = 0;
    int protocol = 0;

    /// Arguments of connect(): the first `length` bytes of `address`.
    sockaddr_storage address{};
    socklen_t length = 0;
};
