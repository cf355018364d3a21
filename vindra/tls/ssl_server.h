#pragma once

#include "vindra/base/file_info.h"
#include "vindra/base/print.h"
#include "vindra/core/connection.h"
#include "vindra/core/server.h"
#include "vindra/core/sockets.h"
#include "vindra/tls/openssl.h"

#include <cerrno>
#include <ctime>
#include <exception>
#include <string>

/// A server<T> whose connections speak TLS. Its hooks put a session of the library between each
/// accepted socket and its connection, which does not notice.
///
/// Loads a renewed certificate without a restart. A client is closed if the library makes no
/// context or no session for it. Connections without a session, such as backend connections that
/// others add to the list, are read and written as on a plain server.
///
/// Any call into the library may throw the std::string of a missing function, from the constructor
/// (if the library is too old or missing) to the destructor.
///
/// The library keeps at most 16 errors per thread and bounds its session cache, so this clears
/// neither.
template <typename T>
class ssl_server : public server<T> {
public:
    /// Reads the key and the certificate (PEM files) into a new context. Does not report unreadable
    /// files; every handshake fails then. Opens no socket; see start().
    ssl_server(int port, bool localhost_only, const std::string& key_path,
               const std::string& crt_path);

    /// Frees the context. Then the base ends every connection as a plain server does: these hooks
    /// are gone by then, so sessions that are still open are neither shut down nor freed.
    ~ssl_server() noexcept(false) override;

    /// Calls load_certificate_maybe().
    void on_idle() override;

    /// Gives the connection a session and begins its handshake, which recv() and send() continue.
    /// False if there is no session.
    bool on_accept(connection* conn) override;

    /// Frees the session without waiting for the peer's close alert. Our own alert goes nowhere:
    /// the socket is closed already, and a stand-in has taken its number.
    void on_remove(connection* conn) override;

    /// Move bytes through the session. Return what the library returns: a positive count, 0 at the
    /// peer's end, negative for nothing now. After a fatal error the result stays negative until
    /// the connection times out.
    int recv(connection* conn, char* buffer, int length) override;
    int send(connection* conn, char* buffer, int length) override;

    /// Loads the certificate again if its file has become newer. Looks at the file at most once a
    /// minute and does not report a failure to read it. Does not load the key again, so the new
    /// certificate must be one for the same key.
    void load_certificate_maybe();

    /// The library's context, shared by all sessions of this server; null if it could make none.
    ssl_ctx_st* ctx = nullptr;

    /// The library has been initialised.
    bool initialised = false;

    /// Paths of the private key and the certificate as given.
    std::string key;
    std::string crt;

    /// Modification time of the certificate in use, in seconds; 0 before the first load.
    double crt_mtime = 0;

    /// Second in which the certificate's file was last looked at.
    double last_check = 0;

private:
    static ssl_st* session_(connection* conn) { return static_cast<ssl_st*>(conn->ssl); }

    // True if the same call would give no bytes again until the kernel has news. Call this after
    // one that gave none, with errno set to 0 before it. EAGAIN means that the socket was empty or
    // full. 0 means that the session has failed and did not use the socket. Any other errno is the
    // socket's, and the next call may see the end of the stream.
    static bool waits_for_news_() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == 0; }

    static constexpr double seconds_between_looks_ = 60.0;
};

template <typename T>
ssl_server<T>::ssl_server(int listen_port, bool only_localhost, const std::string& key_path,
                          const std::string& crt_path)
    : server<T>(listen_port, only_localhost), key(key_path), crt(crt_path) {
    // The first call, because a library before 1.1 lacks this function: it throws here.
    openssl::OpenSSL_version_num();
    initialised = true;
    this->moves_as(class_of<ssl_server>());
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
        // If another missing function is already being reported, throwing again would terminate.
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
    // This tells the session its role. The client's first bytes have hardly arrived yet.
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
    if (crt_mtime > 0) base::puts("Reloading certificate...");
    crt_mtime = file.mtime;
    openssl::SSL_CTX_use_certificate_file(ctx, crt.c_str(), openssl::filetype_pem);
}
