#pragma once

#include "vindra/base/file_info.h"
#include "vindra/core/connection.h"
#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/tls/openssl.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

/// A server<T> whose connections speak TLS: its hooks put a session of the library between each
/// accepted socket and its connection, which notices nothing of it.
///
/// Also takes a renewed certificate into the running server. Any call into the library may throw
/// the std::string of a missing function, from the constructor (where a library that is too old
/// or not there at all shows itself) to the destructor.
///
/// Connections without a session, such as backend connections that others put into its list, are
/// read and written as on a plain server. Where the library makes no context, or no session for a
/// client, the client is closed.
///
/// The library keeps at most 16 errors per thread and bounds its memory of past sessions, so
/// neither is emptied here.
template <typename T>
class ssl_server : public server<T> {
public:
    /// Reads the key and the certificate (PEM files) into a new context. Unreadable files are
    /// not noticed here: handshakes fail then. Opens no socket; see start().
    ssl_server(int port, bool localhost_only, const std::string& key_path,
               const std::string& crt_path);

    /// Frees the context and ends every connection as a plain server does: these hooks are no
    /// longer in force, so that the sessions still open are never shut down nor released.
    ~ssl_server() noexcept(false) override;

    /// Looks after the certificate.
    void on_idle() override;

    /// Gives the connection a session and begins its handshake, which recv() and send() carry on.
    /// False where no session is to be had.
    bool on_accept(connection* conn) override;

    /// Releases the session, without waiting for the peer's close alert. The socket is closed by
    /// now and its number taken by a stand-in, so that our own alert goes nowhere.
    void on_remove(connection* conn) override;

    /// Bytes through the session, with the library's own results: positive is a count, 0 the
    /// peer's end, negative nothing now. A session that has failed for good stays negative; the
    /// connection's time-out ends it.
    int recv(connection* conn, char* buffer, int length) override;
    int send(connection* conn, char* buffer, int length) override;

    /// Loads the certificate again if its file has a newer modification time than the one that
    /// is in use; a failure to read it is not noticed. Does nothing within a minute of its last
    /// look. The key stays as it is, so the new certificate has to be one for that key.
    void load_certificate_maybe();

    /// The library's context, shared by all sessions of this server; null where it could make none.
    ssl_ctx_st* ctx = nullptr;

    /// The library has been initialised.
    bool initialised = false;

    /// Paths of the private key and the certificate as they were given.
    std::string key;
    std::string crt;

    /// Modification time of the certificate in use, in seconds; 0 before the first load.
    double crt_mtime = 0;

    /// Second of the last look at the certificate's file.
    double last_check = 0;

private:
    static ssl_st* session_(connection* conn) { return static_cast<ssl_st*>(conn->ssl); }

    // Whether the call that has just given no bytes, errno having been 0 before it, would give
    // none until the kernel has news: the socket had nothing to read or no room (EAGAIN), or
    // was not even asked because the session has failed for good (0). Any other errno comes from
    // the socket, and the next call may see the end of the stream.
    static bool waits_for_news_() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == 0; }

    static constexpr double seconds_between_looks_ = 60.0;
};

template <typename T>
ssl_server<T>::ssl_server(int listen_port, bool only_localhost, const std::string& key_path,
                          const std::string& crt_path)
    : server<T>(listen_port, only_localhost), key(key_path), crt(crt_path) {
    // Asked for before all else: a library before 1.1 lacks it, and says so here.
    openssl::OpenSSL_version_num();
    initialised = true;
    openssl::OPENSSL_init_ssl(0, nullptr);
    ctx = openssl::SSL_CTX_new(openssl::TLS_server_method());
    if (ctx == nullptr) return;
    sockets::prepare_to_keep();
    openssl::SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), openssl::filetype_pem);
    load_certificate_maybe();
    openssl::SSL_CTX_ctrl(ctx, openssl::ctrl_mode, openssl::mode_enable_partial_write, nullptr);
}

template <typename T>
ssl_server<T>::~ssl_server() noexcept(false) {
    if (ctx == nullptr) return;
    try {
        openssl::SSL_CTX_free(ctx);
    } catch (const std::string&) {
        // One missing function is enough to tell: on the way out of another's call, this text
        // must not meet the one under way, which would end the process.
        if (std::uncaught_exceptions() == 0) throw;
    }
}

template <typename T>
void ssl_server<T>::on_idle() {
    load_certificate_maybe();
}

template <typename T>
bool ssl_server<T>::on_accept(connection* conn) {
    if (ctx == nullptr) return false;
    ssl_st* const session = openssl::SSL_new(ctx);
    if (session == nullptr) return false;
    openssl::SSL_set_fd(session, conn->fd);
    // The client's first bytes have hardly arrived: this tells the session its role.
    openssl::SSL_accept(session);
    conn->ssl = session;
    return true;
}

template <typename T>
void ssl_server<T>::on_remove(connection* conn) {
    if (conn->ssl == nullptr) return;
    openssl::SSL_shutdown(session_(conn));
    openssl::SSL_free(session_(conn));
}

template <typename T>
int ssl_server<T>::recv(connection* conn, char* buffer, int length) {
    if (conn->ssl == nullptr) return server<T>::recv(conn, buffer, length);
    errno = 0;
    const int result = openssl::SSL_read(session_(conn), buffer, length);
    if (result < 0 && waits_for_news_()) sockets::drained(conn->fd);
    return result;
}

template <typename T>
int ssl_server<T>::send(connection* conn, char* buffer, int length) {
    if (conn->ssl == nullptr) return server<T>::send(conn, buffer, length);
    errno = 0;
    const int result = openssl::SSL_write(session_(conn), buffer, length);
    if (result <= 0 && waits_for_news_()) sockets::filled(conn->fd);
    return result;
}

template <typename T>
void ssl_server<T>::load_certificate_maybe() {
    if (ctx == nullptr) return;
    const auto now = static_cast<double>(std::time(nullptr));
    if (!(now - last_check > seconds_between_looks_)) return;
    last_check = now;

    const file_info file(normalise_path(crt));
    if (!(crt_mtime < file.mtime)) return;
    if (crt_mtime > 0) std::puts("Reloading certificate...");
    crt_mtime = file.mtime;
    openssl::SSL_CTX_use_certificate_file(ctx, crt.c_str(), openssl::filetype_pem);
}
