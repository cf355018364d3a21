// Base64 and SHA-1 beside those of OpenSSL.
//
// Input: the bytes to encode, all of them. Their number matters most: SHA-1 pads to blocks of 64,
// Base64 to groups of 3.

#include "vindra/base/base64.h"
#include "vindra/base/sha1.h"

#include "fuzz/fuzz.h"

#include <string>

#ifdef VINDRA_HAS_LIBCRYPTO
#include <openssl/evp.h>
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = base::base64(bytes);
    const std::string digest = base::sha1(bytes);
    require(text.size() == (size + 2) / 3 * 4, "four characters for three bytes");
    require(digest.size() == 20, "a digest of 160 bits");
#ifdef VINDRA_HAS_LIBCRYPTO
    std::string expected(text.size() + 1, '\0');
    expected.resize(static_cast<std::size_t>(EVP_EncodeBlock(
        reinterpret_cast<unsigned char*>(expected.data()), data, static_cast<int>(size))));
    require(text == expected, "Base64 is that of OpenSSL");

    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    require(EVP_Digest(data, size, sum, &length, EVP_sha1(), nullptr) == 1, "it has SHA-1");
    require(digest == std::string(reinterpret_cast<char*>(sum), length),
            "SHA-1 is that of OpenSSL");
#endif
    return 0;
}
