#include "vindra/tls/openssl.h"

#include <string>

namespace openssl {

// Called through pointers of every type below. The calling conventions of the supported machines
// allow that for a function that reads no argument and never returns. Only clang's check of the
// type at each call has to be switched off.
#if defined(__clang__)
__attribute__((no_sanitize("function")))
#endif
void throw_import_error() {
    throw std::string(_import.error);
}

namespace {

// The library's function `name`, or throw_import_error().
template <typename Function>
Function bound(const char* name) {
    void* const fallback = reinterpret_cast<void*>(&throw_import_error);
    return reinterpret_cast<Function>(_import.proc(name, fallback));
}

} // namespace

// The variables of a file are initialised in their order here. The library comes first; the order
// of the others is that of the missing names in `error`.
class import _import("libssl.so");

// NOLINTNEXTLINE(bugprone-macro-parentheses): a declared name takes none
#define BIND(name) decltype(name) name = bound<decltype(name)>(#name)

BIND(OpenSSL_version_num);
BIND(SSL_load_error_strings);
BIND(SSL_library_init);
BIND(OPENSSL_init_ssl);
BIND(SSL_CTX_new);
BIND(SSLv23_server_method);
BIND(SSLv23_client_method);
BIND(TLS_server_method);
BIND(TLS_client_method);
BIND(SSL_CTX_free);
BIND(SSL_CTX_use_PrivateKey_file);
BIND(SSL_CTX_use_certificate_file);
BIND(SSL_new);
BIND(SSL_free);
BIND(SSL_set_fd);
BIND(SSL_accept);
BIND(SSL_connect);
BIND(SSL_shutdown);
BIND(SSL_read);
BIND(SSL_write);
BIND(SSL_set_verify);
BIND(SSL_CTX_ctrl);
BIND(SSL_get_error);
BIND(SSL_ctrl);
BIND(SSL_get_peer_certificate);
BIND(SSL_get1_peer_certificate);
BIND(BIO_s_mem);
BIND(BIO_new);
BIND(PEM_write_bio_X509);
BIND(BIO_ctrl);
BIND(BIO_free);
BIND(X509_free);

#undef BIND

} // namespace openssl
