#include "vindra/core/https.h"

#include "tests/support/captured_output.h"
#include "tests/support/held_port.h"
#include "tests/support/scripted_connection.h"
#include "tests/tls/fake_openssl.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

// Somebody else listens on a port that is not shared, so that a server cannot start there and
// run() comes back without a turn.
class https_run : public testing::Test {
protected:
    https_run() : occupied_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        address.sin_family = AF_INET;
        EXPECT_EQ(bind(occupied_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(occupied_, 1), 0);
        getsockname(occupied_, reinterpret_cast<sockaddr*>(&address), &length);
        ssl_port_ = ntohs(address.sin_port);
        port_before_ = redirector::ssl_port();
    }
    ~https_run() override {
        redirector::ssl_port() = port_before_;
        http_proxy::g_server() = nullptr;
        close(occupied_);
    }

    bool run(int port) {
        captured_output out;
        const bool result = https::run<scripted_connection>(ssl_port_, "the.key", "the.crt", port);
        text_ = out.take();
        return result;
    }

    std::string failure() const {
        return "bind() failed: -1 " + std::string(gai_strerror(-1)) +
               "\nCheck that the port isn't already taken.\n"
               "This can be done with 'netstat -an' on windows/mac/linux.\n"
               "Failed to start server(s).\n";
    }

    fake_openssl library_;
    held_port free_;
    int occupied_;
    int ssl_port_ = 0;
    int port_before_ = 0;
    std::string text_;
};

TEST_F(https_run, with_port_0_starts_the_tls_server_alone) {
    redirector::ssl_port() = 1;
    EXPECT_TRUE(run(0)) << "a server that does not start is no failure of the library";
    EXPECT_THAT(text_, StartsWith("Using https only (no http)\nBinding to port " +
                                  std::to_string(ssl_port_) + " on all adapters:\n"));
    EXPECT_THAT(text_, testing::EndsWith(failure()));
    EXPECT_THAT(text_, testing::Not(HasSubstr("Shutting down")));
    EXPECT_EQ(redirector::ssl_port(), 1) << "nobody redirects";
}

TEST_F(https_run, with_a_port_starts_the_redirecting_server_first) {
    EXPECT_TRUE(run(free_.number()));
    EXPECT_THAT(text_,
                StartsWith("Redirecting http (" + std::to_string(free_.number()) + ") to https (" +
                           std::to_string(ssl_port_) + ")\nBinding to port " +
                           std::to_string(free_.number()) + " on all adapters:\n"));
    EXPECT_THAT(text_, testing::EndsWith(failure()));
    EXPECT_EQ(redirector::ssl_port(), ssl_port_);
}

TEST_F(https_run, makes_and_frees_one_context) {
    run(0);
    EXPECT_THAT(fake_openssl::calls, Contains("SSL_CTX_use_PrivateKey_file the.key 1"));
    EXPECT_EQ(fake_openssl::calls.front(), "OpenSSL_version_num");
    EXPECT_EQ(fake_openssl::calls.back(), "SSL_CTX_free");
}

TEST_F(https_run, lets_backends_join_the_plain_server) {
    EXPECT_EQ(http_proxy::g_server(), nullptr);
    run(0);
    EXPECT_NE(http_proxy::g_server(), nullptr);
}

TEST_F(https_run, prints_the_text_of_a_missing_function_before_it_opens_a_socket) {
    for (const char* name : {"OpenSSL_version_num", "OPENSSL_init_ssl", "SSL_CTX_ctrl"}) {
        SCOPED_TRACE(name);
        const fake_openssl library;
        fake_openssl::take_away(name);
        EXPECT_FALSE(run(free_.number()));
        EXPECT_EQ(text_, openssl::_import.error + "\n");
    }
}

TEST_F(https_run, prints_the_text_of_a_function_missing_on_the_way_out) {
    fake_openssl::take_away("SSL_CTX_free");
    EXPECT_FALSE(run(0));
    EXPECT_THAT(text_,
                testing::EndsWith("Failed to start server(s).\n" + openssl::_import.error + "\n"));
}

} // namespace
