#include "tests/tls/test_certificates.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace {

void run(const std::string& command) {
    ASSERT_EQ(std::system((command + " >/dev/null 2>&1").c_str()), 0) << command;
}

// A certificate becomes visible whole: by rename, as a server's owner would do it.
void make_certificate(const std::string& key_options, const std::string& crt, int serial) {
    run("openssl req -x509 " + key_options + " -out '" + crt +
        ".new' -subj /CN=localhost -days 2 " + "-set_serial " + std::to_string(serial));
    std::filesystem::rename(crt + ".new", crt);
}

std::string new_key(const std::string& path) {
    return "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout '" + path + "'";
}

} // namespace

test_certificates::test_certificates() {
    make_certificate(new_key(key()), crt(), 1);
}

void test_certificates::renew(int serial) const {
    make_certificate("-key '" + key() + "'", crt(), serial);
}

void test_certificates::renew_with_another_key(int serial) const {
    make_certificate(new_key(folder_.path("another.key")), crt(), serial);
}

std::string test_certificates::pem() const {
    std::ifstream file(crt());
    return {std::istreambuf_iterator<char>(file), {}};
}
