#pragma once

#include "tests/support/temporary_folder.h"

#include <string>

/// A key of its own and certificates for it, made by the `openssl` command when they are needed.
class test_certificates {
public:
    /// A P-256 key, and a certificate for localhost with the serial number 1.
    test_certificates();

    std::string key() const { return folder_.path("server.key"); }
    std::string crt() const { return folder_.path("server.crt"); }

    /// Puts another certificate for the same key in the place of the one that is there.
    void renew(int serial) const;

    /// The same with a key of its own, which stays behind in another file.
    void renew_with_another_key(int serial) const;

    /// The text of the certificate that is in place.
    std::string pem() const;

private:
    temporary_folder folder_;
};
