// The library's own headers come first, with all their macros: the worst case for ours.
#if __has_include(<openssl/ssl.h>)
#define HAS_LIBRARY_HEADERS
#include <openssl/pem.h>
#include <openssl/ssl.h>
#endif

#include "vindra/tls/openssl.h"

#include <type_traits>

#include <gtest/gtest.h>

#ifndef HAS_LIBRARY_HEADERS

TEST(openssl_types, are_those_of_the_headers) {
    GTEST_SKIP() << "the headers of the TLS library are not installed";
}

#else

#define SAME_TYPE(name)                                                                            \
    static_assert(std::is_same_v<decltype(openssl::name), std::add_pointer_t<decltype(::name)>>)

SAME_TYPE(OpenSSL_version_num);
SAME_TYPE(OPENSSL_init_ssl);
SAME_TYPE(SSL_CTX_new);
SAME_TYPE(TLS_server_method);
SAME_TYPE(TLS_client_method);
SAME_TYPE(SSL_CTX_free);
SAME_TYPE(SSL_CTX_use_PrivateKey_file);
SAME_TYPE(SSL_CTX_use_certificate_file);
SAME_TYPE(SSL_new);
SAME_TYPE(SSL_free);
SAME_TYPE(SSL_set_fd);
SAME_TYPE(SSL_accept);
SAME_TYPE(SSL_connect);
SAME_TYPE(SSL_shutdown);
SAME_TYPE(SSL_read);
SAME_TYPE(SSL_write);
SAME_TYPE(SSL_set_verify);
SAME_TYPE(SSL_CTX_ctrl);
SAME_TYPE(SSL_get_error);
SAME_TYPE(SSL_ctrl);
SAME_TYPE(BIO_s_mem);
SAME_TYPE(BIO_new);
SAME_TYPE(BIO_ctrl);
SAME_TYPE(BIO_free);
SAME_TYPE(X509_free);

// From 3.0 on the certificate is const; before, the same call took it without.
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
SAME_TYPE(PEM_write_bio_X509);
SAME_TYPE(SSL_get1_peer_certificate);
#endif

// Names that this library's headers give to macros have no type to compare with:
// SSL_load_error_strings, SSL_library_init, SSLv23_server_method, SSLv23_client_method and
// SSL_get_peer_certificate. Their types follow from the functions that replaced them.
static_assert(std::is_same_v<decltype(openssl::SSL_load_error_strings), void (*)()>);
static_assert(std::is_same_v<decltype(openssl::SSL_library_init), int (*)()>);

static_assert(openssl::filetype_pem == SSL_FILETYPE_PEM);
static_assert(openssl::ctrl_mode == SSL_CTRL_MODE);
static_assert(openssl::mode_enable_partial_write == SSL_MODE_ENABLE_PARTIAL_WRITE);

// With the macros back, a name that one of them replaces means the function that replaced it.
TEST(openssl_types, leave_the_macros_of_the_headers_in_force) {
#ifdef SSLv23_server_method
    EXPECT_EQ(&openssl::SSLv23_server_method, &openssl::TLS_server_method);
#endif
#ifndef SSL_library_init
    FAIL() << "a macro of the headers is gone";
#endif
}

#pragma push_macro("SSLv23_server_method")
#pragma push_macro("SSLv23_client_method")
#pragma push_macro("SSL_get_peer_certificate")
#undef SSLv23_server_method
#undef SSLv23_client_method
#undef SSL_get_peer_certificate

// Would not link if the header had declared the macro's replacement instead.
TEST(openssl_types, declare_the_names_behind_the_macros) {
    static_assert(std::is_same_v<decltype(openssl::SSLv23_server_method),
                                 decltype(openssl::TLS_server_method)>);
    static_assert(std::is_same_v<decltype(openssl::SSLv23_client_method),
                                 decltype(openssl::TLS_client_method)>);
    static_assert(std::is_same_v<decltype(openssl::SSL_get_peer_certificate),
                                 decltype(openssl::SSL_get1_peer_certificate)>);
    EXPECT_NE(&openssl::SSLv23_server_method, &openssl::TLS_server_method);
    EXPECT_NE(&openssl::SSLv23_client_method, &openssl::TLS_client_method);
    EXPECT_NE(&openssl::SSL_get_peer_certificate, &openssl::SSL_get1_peer_certificate);
}

#pragma pop_macro("SSLv23_server_method")
#pragma pop_macro("SSLv23_client_method")
#pragma pop_macro("SSL_get_peer_certificate")

#endif
