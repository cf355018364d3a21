#pragma once

#include "vindra/tls/openssl.h"

#include "tests/support/far_end.h"

#include <string>

/// A client on a plain socket that never blocks. Two clients of one interface: pump() moves what
/// can be moved now, everything else only asks or orders.
class plain_client {
public:
    explicit plain_client(int port) : far_(far_end::connect_to(port)) {}

    /// Sends `bytes` as the socket takes them.
    void send(const std::string& bytes) { waiting_ += bytes; }

    void pump();

    /// Everything that has arrived.
    std::string received;

    bool has_sent_all() const { return waiting_.empty(); }

    /// The server has ended the connection.
    bool ended() const { return far_.closed_by_peer(); }

    /// Ends the connection in good order.
    void leave() { far_.close(); }

    far_end& socket() { return far_; }

private:
    far_end far_;
    std::string waiting_;
};

/// Versions of TLS as the library numbers them.
enum class tls_version { tls_1_2 = 0x0303, tls_1_3 = 0x0304 };

/// The same through a session of the library, which trusts every certificate.
class tls_client {
public:
    explicit tls_client(int port, tls_version version = tls_version::tls_1_3);
    tls_client(const tls_client&) = delete;
    tls_client& operator=(const tls_client&) = delete;
    ~tls_client();

    void send(const std::string& bytes) { waiting_ += bytes; }
    void pump();
    std::string received;
    bool has_sent_all() const { return waiting_.empty(); }
    bool ended() const { return ended_; }
    void leave();

    /// The handshake is complete on this side.
    bool is_connected() const { return connected_; }

    /// The certificate that the server has shown.
    std::string certificate() const;

    ssl_st* session() const { return session_; }
    far_end& socket() { return far_; }

    /// Never asks for a ticket, so that a past session is a matter of the server's memory.
    void refuse_tickets();

private:
    // Whether the call that gave `result` is to be made again later.
    bool would_block_(int result);

    far_end far_;
    ssl_ctx_st* ctx_;
    ssl_st* session_;
    std::string waiting_;
    bool connected_ = false;
    bool ended_ = false;
};
