// A library with the TLS library's function names and no cryptography: sessions are plain
// sockets. LACKS_name leaves one function out, LACKS_EVERYTHING all of them.

#include <cstdint>
#include <cstdlib>

#include <sys/socket.h>

struct ssl_ctx_st {
    int unused;
};

struct ssl_st {
    int fd;
};

struct ssl_method_st {
    int unused;
};

#ifndef LACKS_EVERYTHING

extern "C" {

#ifndef LACKS_OpenSSL_version_num
unsigned long OpenSSL_version_num() {
    return 0x30000000UL;
}
#endif

#ifndef LACKS_OPENSSL_init_ssl
int OPENSSL_init_ssl(std::uint64_t, const void*) {
    return 1;
}
#endif

#ifndef LACKS_TLS_server_method
const ssl_method_st* TLS_server_method() {
    static const ssl_method_st method{};
    return &method;
}
#endif

#ifndef LACKS_SSL_CTX_new
ssl_ctx_st* SSL_CTX_new(const ssl_method_st*) {
    return static_cast<ssl_ctx_st*>(std::calloc(1, sizeof(ssl_ctx_st)));
}
#endif

#ifndef LACKS_SSL_CTX_free
void SSL_CTX_free(ssl_ctx_st* ctx) {
    std::free(ctx);
}
#endif

#ifndef LACKS_SSL_CTX_use_PrivateKey_file
int SSL_CTX_use_PrivateKey_file(ssl_ctx_st*, const char*, int) {
    return 1;
}
#endif

#ifndef LACKS_SSL_CTX_use_certificate_file
int SSL_CTX_use_certificate_file(ssl_ctx_st*, const char*, int) {
    return 1;
}
#endif

#ifndef LACKS_SSL_CTX_ctrl
long SSL_CTX_ctrl(ssl_ctx_st*, int, long, void*) {
    return 1;
}
#endif

#ifndef LACKS_SSL_new
ssl_st* SSL_new(ssl_ctx_st*) {
    return static_cast<ssl_st*>(std::calloc(1, sizeof(ssl_st)));
}
#endif

#ifndef LACKS_SSL_free
void SSL_free(ssl_st* ssl) {
    std::free(ssl);
}
#endif

#ifndef LACKS_SSL_set_fd
int SSL_set_fd(ssl_st* ssl, int fd) {
    ssl->fd = fd;
    return 1;
}
#endif

#ifndef LACKS_SSL_accept
int SSL_accept(ssl_st*) {
    return 1;
}
#endif

#ifndef LACKS_SSL_shutdown
int SSL_shutdown(ssl_st*) {
    return 1;
}
#endif

#ifndef LACKS_SSL_read
int SSL_read(ssl_st* ssl, void* buffer, int length) {
    return static_cast<int>(recv(ssl->fd, buffer, static_cast<std::size_t>(length), 0));
}
#endif

#ifndef LACKS_SSL_write
int SSL_write(ssl_st* ssl, const void* buffer, int length) {
    return static_cast<int>(send(ssl->fd, buffer, static_cast<std::size_t>(length), 0));
}
#endif

} // extern "C"

#endif
