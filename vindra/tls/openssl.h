#pragma once

#include "vindra/tls/import.h"

#include <cstdint>

// The library's own tags: a program that also includes its headers sees the same types.
struct bio_method_st;
struct bio_st;
struct ossl_init_settings_st;
struct ssl_ctx_st;
struct ssl_method_st;
struct ssl_st;
struct x509_st;
struct x509_store_ctx_st;

// Newer headers of the library define macros with these names, which would make two of the
// declarations below declare other names. The macros are put aside here and restored at the end.
#pragma push_macro("SSL_load_error_strings")
#pragma push_macro("SSL_library_init")
#pragma push_macro("SSLv23_server_method")
#pragma push_macro("SSLv23_client_method")
#pragma push_macro("SSL_get_peer_certificate")
#undef SSL_load_error_strings
#undef SSL_library_init
#undef SSLv23_server_method
#undef SSLv23_client_method
#undef SSL_get_peer_certificate

/// The TLS library, opened at run time and bound by name before `main` runs.
///
/// Building needs neither the library nor its headers. A program linked with this starts on a
/// machine without the library, and uses the version that the loader's cache names.
///
/// Each pointer below has the type of the library's function of that name. It points at that
/// function, or at throw_import_error() if the library lacks it, and never changes. ssl_server uses
/// them; the functions for clients, verification and memory are there for applications.
namespace openssl {

// As VINDRA_API on each of them.
#pragma GCC visibility push(default)

/// The library. A call of a missing function throws the text of its `error`.
extern class import _import;

/// Takes the place of each missing function: throws a copy of `_import.error` as a std::string,
/// whatever its arguments.
[[noreturn]] void throw_import_error();

/// Constants that are macros in the library's headers, under names of our own.
constexpr int filetype_pem = 1;
constexpr int ctrl_mode = 33;
constexpr long mode_enable_partial_write = 1;

/// Version of the library; from 1.1 on.
extern unsigned long (*OpenSSL_version_num)();

/// Initialisation before 1.1, and from 1.1 on. A library offers one of the two forms.
extern void (*SSL_load_error_strings)();
extern int (*SSL_library_init)();
extern int (*OPENSSL_init_ssl)(std::uint64_t opts, const ossl_init_settings_st* settings);

/// What all sessions of one server or client share.
extern ssl_ctx_st* (*SSL_CTX_new)(const ssl_method_st* method);

/// Methods before 1.1, and from 1.1 on.
extern const ssl_method_st* (*SSLv23_server_method)();
extern const ssl_method_st* (*SSLv23_client_method)();
extern const ssl_method_st* (*TLS_server_method)();
extern const ssl_method_st* (*TLS_client_method)();

/// Frees a context; sets the files of its key and its certificate.
extern void (*SSL_CTX_free)(ssl_ctx_st* ctx);
extern int (*SSL_CTX_use_PrivateKey_file)(ssl_ctx_st* ctx, const char* file, int type);
extern int (*SSL_CTX_use_certificate_file)(ssl_ctx_st* ctx, const char* file, int type);

/// One session. SSL_read() and SSL_write() also continue an unfinished handshake.
extern ssl_st* (*SSL_new)(ssl_ctx_st* ctx);
extern void (*SSL_free)(ssl_st* ssl);
extern int (*SSL_set_fd)(ssl_st* ssl, int fd);
extern int (*SSL_accept)(ssl_st* ssl);
extern int (*SSL_connect)(ssl_st* ssl);
extern int (*SSL_shutdown)(ssl_st* ssl);
extern int (*SSL_read)(ssl_st* ssl, void* buffer, int length);
extern int (*SSL_write)(ssl_st* ssl, const void* buffer, int length);
extern void (*SSL_set_verify)(ssl_st* ssl, int mode, int (*callback)(int, x509_store_ctx_st*));
extern long (*SSL_CTX_ctrl)(ssl_ctx_st* ctx, int command, long number, void* pointer);
extern int (*SSL_get_error)(const ssl_st* ssl, int result);
extern long (*SSL_ctrl)(ssl_st* ssl, int command, long number, void* pointer);

/// The peer's certificate, which the caller frees: before 3.0, and from 3.0 on.
extern x509_st* (*SSL_get_peer_certificate)(const ssl_st* ssl);
extern x509_st* (*SSL_get1_peer_certificate)(const ssl_st* ssl);

/// Certificates as text, through a buffer in memory.
extern const bio_method_st* (*BIO_s_mem)();
extern bio_st* (*BIO_new)(const bio_method_st* method);
extern int (*PEM_write_bio_X509)(bio_st* bio, const x509_st* certificate);
extern long (*BIO_ctrl)(bio_st* bio, int command, long number, void* pointer);
extern int (*BIO_free)(bio_st* bio);
extern void (*X509_free)(x509_st* certificate);

#pragma GCC visibility pop

} // namespace openssl

#pragma pop_macro("SSL_load_error_strings")
#pragma pop_macro("SSL_library_init")
#pragma pop_macro("SSLv23_server_method")
#pragma pop_macro("SSLv23_client_method")
#pragma pop_macro("SSL_get_peer_certificate")
