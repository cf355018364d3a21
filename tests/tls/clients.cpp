#include "tests/tls/clients.h"

#include <cstdint>

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

// Numbers of the library's headers, which need not be there.
constexpr int ctrl_set_min_version = 123;
constexpr int ctrl_set_max_version = 124;
constexpr long mode_accept_moving_buffer = 2;
constexpr int error_want_read = 2;
constexpr int error_want_write = 3;
constexpr int bio_ctrl_info = 3;
constexpr std::uint64_t option_no_ticket = 1U << 14;

} // namespace

void plain_client::pump() {
    waiting_.erase(0, far_.send_some(waiting_));
    received += far_.receive();
}

tls_client::tls_client(int port, tls_version version)
    : far_(far_end::connect_to(port)), ctx_(openssl::SSL_CTX_new(openssl::TLS_client_method())) {
    const long number = static_cast<long>(version);
    EXPECT_EQ(openssl::SSL_CTX_ctrl(ctx_, ctrl_set_min_version, number, nullptr), 1);
    EXPECT_EQ(openssl::SSL_CTX_ctrl(ctx_, ctrl_set_max_version, number, nullptr), 1);
    openssl::SSL_CTX_ctrl(ctx_, openssl::ctrl_mode,
                          openssl::mode_enable_partial_write | mode_accept_moving_buffer, nullptr);
    session_ = openssl::SSL_new(ctx_);
    openssl::SSL_set_fd(session_, far_.fd());
}

tls_client::~tls_client() {
    openssl::SSL_free(session_);
    openssl::SSL_CTX_free(ctx_);
}

bool tls_client::would_block_(int result) {
    const int error = openssl::SSL_get_error(session_, result);
    return error == error_want_read || error == error_want_write;
}

void tls_client::pump() {
    if (ended_) return;
    if (!connected_) {
        const int result = openssl::SSL_connect(session_);
        connected_ = result == 1;
        ended_ = !connected_ && !would_block_(result);
        if (!connected_) return;
    }
    while (!waiting_.empty()) {
        const int count =
            openssl::SSL_write(session_, waiting_.data(), static_cast<int>(waiting_.size()));
        if (count <= 0) break;
        waiting_.erase(0, static_cast<std::size_t>(count));
    }
    char block[65536];
    int count = 0;
    while ((count = openssl::SSL_read(session_, block, sizeof block)) > 0)
        received.append(block, static_cast<std::size_t>(count));
    ended_ = !would_block_(count);
}

void tls_client::leave() {
    openssl::SSL_shutdown(session_);
    far_.close();
}

std::string tls_client::certificate() const {
    x509_st* const shown = openssl::SSL_get1_peer_certificate(session_);
    bio_st* const text = openssl::BIO_new(openssl::BIO_s_mem());
    EXPECT_EQ(openssl::PEM_write_bio_X509(text, shown), 1);
    char* bytes = nullptr;
    const long length = openssl::BIO_ctrl(text, bio_ctrl_info, 0, &bytes);
    std::string pem(bytes, static_cast<std::size_t>(length));
    openssl::BIO_free(text);
    openssl::X509_free(shown);
    return pem;
}

void tls_client::refuse_tickets() {
    using set_options = std::uint64_t (*)(ssl_st*, std::uint64_t);
    const auto set =
        reinterpret_cast<set_options>(dlsym(openssl::_import.handle, "SSL_set_options"));
    ASSERT_NE(set, nullptr);
    set(session_, option_no_ticket);
}
