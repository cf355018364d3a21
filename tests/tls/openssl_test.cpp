#include "vindra/tls/openssl.h"

#include "tests/support/temporary_folder.h"

#include <cstdio>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

// The names in the order in which they are bound.
constexpr const char* bound_names[] = {
    "OpenSSL_version_num",
    "SSL_load_error_strings",
    "SSL_library_init",
    "OPENSSL_init_ssl",
    "SSL_CTX_new",
    "SSLv23_server_method",
    "SSLv23_client_method",
    "TLS_server_method",
    "TLS_client_method",
    "SSL_CTX_free",
    "SSL_CTX_use_PrivateKey_file",
    "SSL_CTX_use_certificate_file",
    "SSL_new",
    "SSL_free",
    "SSL_set_fd",
    "SSL_accept",
    "SSL_connect",
    "SSL_shutdown",
    "SSL_read",
    "SSL_write",
    "SSL_set_verify",
    "SSL_CTX_ctrl",
    "SSL_get_error",
    "SSL_ctrl",
    "SSL_get_peer_certificate",
    "SSL_get1_peer_certificate",
    "BIO_s_mem",
    "BIO_new",
    "PEM_write_bio_X509",
    "BIO_ctrl",
    "BIO_free",
    "X509_free",
};
static_assert(std::size(bound_names) == 32);

std::string all_names() {
    std::string text;
    for (const char* name : bound_names) text += std::string("\n") + name;
    return text;
}

// Output of a command, standard error included.
std::string output_of(const std::string& command) {
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return "popen() failed";
    std::string text;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) text += static_cast<char>(c);
    pclose(pipe);
    return text;
}

class library_at_start : public testing::Test {
protected:
    // Puts `file` on a private loader path, under the name that the loader's cache gives.
    void offer(const fs::path& file) {
        const std::string link = folder_.path(_import_probe("libssl.so"));
        fs::remove(link);
        fs::create_symlink(file, link);
    }

    // What a program that starts with that path prints of the library's account of itself. It
    // stands beside this one.
    std::string account() const {
        const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "show_import";
        return output_of("LD_LIBRARY_PATH='" + folder_.path("") + "' '" + program.string() + "'");
    }

    temporary_folder folder_;
};

TEST_F(library_at_start, is_taken_from_the_loader_path) {
    offer(STUB_LIBRARIES "/whole/libssl.so");
    const std::string text = account();
    EXPECT_EQ(text.rfind("Error! Missing export(s) in libssl.so:\nSSL_load_error_strings\n", 0), 0U)
        << text;
}

TEST_F(library_at_start, lists_all_names_in_the_order_of_binding_when_it_has_none) {
    offer(STUB_LIBRARIES "/empty/libssl.so");
    EXPECT_EQ(account(), "Error! Missing export(s) in libssl.so:" + all_names() + "\n");
}

TEST_F(library_at_start, that_is_no_library_is_told_on_standard_error) {
    offer(folder_.write("text", "not a library\n"));
    EXPECT_EQ(account(), "Unable to load libssl.so\nUnable to load libssl.so" + all_names() + "\n");
}

TEST_F(library_at_start, that_lacks_one_function_has_it_in_the_text) {
    offer(STUB_LIBRARIES "/OPENSSL_init_ssl/libssl.so");
    const std::string text = account();
    EXPECT_EQ(text.rfind("Error! Missing export(s) in libssl.so:", 0), 0U) << text;
    EXPECT_THAT(text, testing::HasSubstr("\nOPENSSL_init_ssl\n"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("\nSSL_new\n")));
}

TEST(openssl, throws_a_copy_of_the_text_for_a_missing_function) {
    const auto missing_read = reinterpret_cast<decltype(openssl::SSL_read)>(
        reinterpret_cast<void*>(&openssl::throw_import_error));
    char buffer[4];
    const std::string before = openssl::_import.error;
    for (int i = 0; i < 2; ++i) {
        try {
            missing_read(nullptr, buffer, sizeof buffer);
            FAIL() << "nothing was thrown";
        } catch (std::string& text) {
            EXPECT_EQ(text, before);
            text += "only the copy";
        }
    }
    EXPECT_EQ(openssl::_import.error, before);
}

TEST(openssl, binds_a_library_of_today) {
    if (openssl::_import.handle == nullptr) GTEST_SKIP() << "no TLS library on this machine";
    EXPECT_GE(openssl::OpenSSL_version_num(), 0x10100000UL);
    EXPECT_NE(openssl::TLS_server_method(), nullptr);
    EXPECT_NE(openssl::BIO_s_mem(), nullptr) << "found through the library's own needs";
}

} // namespace
