// Prints the library's account of what it lacks, as a call of a missing function throws it.

#include "vindra/tls/openssl.h"

#include <cstdio>
#include <string>

int main() {
    try {
        openssl::throw_import_error();
    } catch (const std::string& text) {
        std::printf("%s\n", text.c_str());
    }
}
